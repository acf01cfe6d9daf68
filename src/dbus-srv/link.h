#pragma once

// The bus service's connection to the system bus: connecting, reconnecting, and the state that listener and
// sender share.

#include "dbus-srv/bus_handle.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <utility>

/// The state of the bus service, maintained by the listener.
enum class BusLink : std::uint8_t {
    starting, ///< the name is not owned yet
    serving,
    nameless, ///< reconnected, but another process owns the name
    lost,     ///< no connection, or the bus does not reply
    ended,    ///< refused at start; the listener thread has ended
};

struct BusLinkView {
    BusLink state;
    BusConnection connection; ///< set while serving or nameless
};

/// Sets the link's state and wakes the sender. `connection` is shared while serving or nameless, else null.
void bus_link_set(BusLink state, DBusConnection *connection);
BusLinkView bus_link_get();

/// The shared connection to the system bus; none, with the error set, on failure. It does not end the process when
/// the bus disappears, and it queues at most 64 KiB and one message. May block: not for the main thread.
BusConnection bus_connect(BusError &error);
bool bus_is_connected(const BusConnection &connection);

/// The bus's reply to a request for the name.
enum class NameAnswer : std::uint8_t {
    owner,
    refused, ///< another process keeps it, or the bus denies it
    none,    ///< no reply in time, or the connection was lost; the error is set
};

/// The bus's own messages that arrived before its reply to the request for the name, in order, for the listener.
class EarlyMessages {
  public:
    /// Drops the message if there are too many: the bus sends two, one for each name.
    void keep(BusMessage message) {
        if (kept_ < messages_.size()) {
            messages_[kept_++] = std::move(message);
        }
    }
    /// Removes and returns the first message; none if there are no more.
    BusMessage take() { return taken_ < kept_ ? std::move(messages_[taken_++]) : nullptr; }

  private:
    std::array<BusMessage, 4> messages_;
    std::size_t kept_ = 0;
    std::size_t taken_ = 0;
};

/// The library's default. A bus is slow while a system boots.
constexpr std::chrono::seconds NAME_TIMEOUT{25};

/// Requests the configured name and replaces an owner that allows it. Does not stay in the queue for the name;
/// releases a name that is granted after the timeout. Fills `early` and drops all other messages: no client can address
/// the name before the reply.
NameAnswer bus_own_name(const BusConnection &connection, EarlyMessages &early, BusError &error,
                        std::chrono::milliseconds timeout = NAME_TIMEOUT);
/// Waits until data arrives or `wakeup` (an eventfd or -1) is set, then reads the data and clears `wakeup`. Returns
/// early if the sender reads the data first.
void bus_read(const BusConnection &connection, int wakeup, int timeout_ms);
/// Writes all sent messages. Waits as long as the bus does not read; returns early if the connection is lost.
void bus_flush(DBusConnection *connection);
/// Drops all received messages. The last one on a dead connection is the library's own "Disconnected": until it is
/// removed, the library returns the dead connection again.
void bus_drop_messages(const BusConnection &connection);

/// The seconds to wait before reconnect attempt number `attempt`, from 0: 1, 2, 4, ... 32, 60, 60.
constexpr unsigned bus_pause_seconds(unsigned attempt) {
    constexpr unsigned longest = 60;
    constexpr unsigned doublings = 6;
    return attempt < doublings ? 1U << attempt : longest;
}

/// Retries with growing pauses until there is a connection; with `early` not null, until that also owns the name. Then
/// it fills `early` and updates the link's state, so that the sender can use a connection without the name.
/// `connection` is the lost one, or a live one without the name.
BusConnection bus_reconnect(BusConnection connection, EarlyMessages *early);
