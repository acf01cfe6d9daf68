#pragma once

// Owners of what libdbus hands out.

#include <dbus/dbus.h>
#include <memory>

struct ReleaseConnection {
    void operator()(DBusConnection *connection) const { dbus_connection_unref(connection); }
};

/// Owns a reference to a connection. A shared one is never closed, only let go.
using BusConnection = std::unique_ptr<DBusConnection, ReleaseConnection>;

/// A reference of one's own to a connection that somebody else holds.
inline BusConnection bus_share(DBusConnection *connection) {
    return BusConnection(connection == nullptr ? nullptr : dbus_connection_ref(connection));
}

struct ReleaseMessage {
    void operator()(DBusMessage *message) const { dbus_message_unref(message); }
};

/// Owns a reference to a message.
using BusMessage = std::unique_ptr<DBusMessage, ReleaseMessage>;

/// An error that is initialised before and freed after its use: libdbus aborts on one that is set.
class BusError {
  public:
    BusError() { dbus_error_init(&error_); }
    ~BusError() { dbus_error_free(&error_); }
    BusError(const BusError &) = delete;
    BusError(BusError &&) = delete;
    BusError &operator=(const BusError &) = delete;
    BusError &operator=(BusError &&) = delete;

    /// Unset again, to be handed to a call.
    DBusError *fresh() {
        dbus_error_free(&error_);
        return &error_;
    }
    [[nodiscard]] bool is_set() const { return dbus_error_is_set(&error_) != 0; }
    [[nodiscard]] bool has_name(const char *name) const { return dbus_error_has_name(&error_, name) != 0; }
    [[nodiscard]] const char *message() const { return error_.message; }

  private:
    DBusError error_{};
};
