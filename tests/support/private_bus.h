#pragma once

// A real private bus for a test, and a client on it.

#include "child_process.h"
#include "dbus-srv/bus_handle.h"
#include "scratch_folder.h"

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

enum class BusRules {
    open,   ///< everybody may do everything, with limits far above the usual
    system, ///< the rules of a system bus with the package's policy; anybody may own its names
};

/// A dbus-daemon on a socket in a scratch folder, ready when constructed, ended with the object.
class PrivateBus {
  public:
    explicit PrivateBus(BusRules rules = BusRules::open);
    /// With its socket in `folder`.
    explicit PrivateBus(std::string folder);
    /// Starts it again on the same address after `stop`; returns when ready.
    void start();
    /// Kills it.
    void stop();
    /// Ends it and removes everything, as if it had never existed.
    void remove();
    [[nodiscard]] pid_t pid() const { return daemon_->pid(); }
    /// Its log since its start.
    [[nodiscard]] std::vector<std::string> log() { return daemon_->errors().lines(); }
    /// The folder with its socket.
    [[nodiscard]] const std::string &folder() const { return folder_; }
    [[nodiscard]] std::string address() const { return "unix:path=" + folder_ + "/bus"; }
    /// As "NAME=value", for a program that shall use it as the system bus.
    [[nodiscard]] std::string variable() const { return "DBUS_SYSTEM_BUS_ADDRESS=" + address(); }

  private:
    ScratchFolder own_folder_;
    std::string folder_;
    BusRules rules_ = BusRules::open;
    std::optional<ChildProcess> daemon_;
};

/// A separate connection that shares nothing with the code under test.
class BusClient {
  public:
    explicit BusClient(const PrivateBus &bus);
    ~BusClient();
    BusClient(const BusClient &) = delete;
    BusClient &operator=(const BusClient &) = delete;

    [[nodiscard]] DBusConnection *connection() const { return connection_.get(); }
    /// Sends a call without waiting; returns its serial.
    dbus_uint32_t send(const BusMessage &call) const; // NOLINT(modernize-use-nodiscard)
    /// Sends a call and waits up to half a minute; returns the reply or the error, null if nothing arrived.
    BusMessage call(const BusMessage &call);
    /// Waits up to half a minute for the next message that is `wanted`; keeps the others for later calls.
    BusMessage wait_for(const std::function<bool(DBusMessage *)> &wanted);
    /// Drops the messages kept.
    void forget() { waiting_.clear(); }
    BusMessage wait_for_signal(const std::string &member);
    /// Asks the bus for all signals that match `rule`.
    void watch(const std::string &rule);
    /// Becomes a monitor of the bus, usable only with `wait_for`.
    void become_monitor();
    /// Calls a method of the bus with one text and, if `flags` is not negative, one number.
    BusMessage ask_bus(const char *member, const std::string &name, int flags = -1);
    /// The unique name of the owner of `name`, waiting for it to have one.
    std::string wait_for_owner(const std::string &name);

  private:
    BusConnection connection_;
    std::deque<BusMessage> waiting_;
};

/// A call of the daemon's method; no interface when it is null.
BusMessage method_call(const char *path, const char *interface, const char *member);
/// The first text of a message; empty without one.
std::string text_of(const BusMessage &message);
/// The first number of a message; 0 without one.
dbus_uint32_t number_of(const BusMessage &message);

inline constexpr const char *SERVICE_NAME = "com.corvana.vigmond";
