#pragma once

// Hostile neighbours on the bus, which flood the daemon until they are destroyed.

#include "child_process.h"
#include "private_bus.h"

#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <vector>

/// Some clients that write one and the same call as fast as the bus takes it, and read nothing.
class Blast {
  public:
    Blast(const PrivateBus &bus, const BusMessage &call) {
        for (int i = 0; i < 8; ++i) {
            clients_.push_back(std::make_unique<BusClient>(bus));
        }
        dbus_message_set_serial(call.get(), 1000);
        char *bytes = nullptr;
        int size = 0;
        EXPECT_NE(dbus_message_marshal(call.get(), &bytes, &size), 0U);
        while (calls_.size() < 65536) {
            calls_.append(bytes, static_cast<std::size_t>(size));
        }
        size_ = static_cast<std::size_t>(size);
        dbus_free(bytes);
        writer_ = std::jthread([this](const std::stop_token &stop) { run(stop); });
    }
    [[nodiscard]] std::size_t written() const { return bytes_written_ / size_; }

  private:
    void run(const std::stop_token &stop) {
        std::vector<std::size_t> sent(clients_.size());
        while (!stop.stop_requested()) {
            std::vector<pollfd> sockets;
            for (const auto &client : clients_) {
                sockets.push_back({-1, POLLOUT, 0});
                dbus_connection_get_unix_fd(client->connection(), &sockets.back().fd);
            }
            poll(sockets.data(), sockets.size(), 100);
            for (std::size_t i = 0; i < sockets.size(); ++i) {
                const ssize_t written = ::send(sockets[i].fd, calls_.data() + sent[i], calls_.size() - sent[i],
                                               MSG_DONTWAIT | MSG_NOSIGNAL);
                if (written > 0) {
                    sent[i] = (sent[i] + static_cast<std::size_t>(written)) % calls_.size();
                    bytes_written_ += static_cast<std::size_t>(written);
                }
            }
        }
    }

    std::vector<std::unique_ptr<BusClient>> clients_;
    std::string calls_;
    std::size_t size_ = 0;
    std::atomic<std::size_t> bytes_written_ = 0;
    std::jthread writer_; ///< ends first
};

/// Signals to the connection over which systemd is asked, as fast as a process of its own can send them.
class SignalFlood {
  public:
    SignalFlood(const PrivateBus &bus, pid_t daemon, const std::string &size)
        : neighbour_({BUS_FLOOD, std::to_string(daemon), size}, {bus.variable()}) {
        EXPECT_TRUE(neighbour_.output().wait_for("sent to all"));
    }

  private:
    ChildProcess neighbour_;
};
