#pragma once

// RAII owners of libdbus objects.

#include <dbus/dbus.h>
#include <memory>

struct ReleaseConnection {
    void operator()(DBusConnection *connection) const { dbus_connection_unref(connection); }
};

/// Owns a reference to a connection. A shared connection is never closed, only unreferenced.
using BusConnection = std::unique_ptr<DBusConnection, ReleaseConnection>;

/// A new reference to a connection.
inline BusConnection bus_share(DBusConnection *connection) {
    return BusConnection(connection == nullptr ? nullptr : dbus_connection_ref(connection));
}

struct ReleaseMessage {
    void operator()(DBusMessage *message) const { dbus_message_unref(message); }
};

/// Owns a reference to a message.
using BusMessage = std::unique_ptr<DBusMessage, ReleaseMessage>;

/// A DBusError, initialised before and freed after use: libdbus aborts on one that is already set.
class BusError {
  public:
    BusError() { dbus_error_init(&error_); }
    ~BusError() { dbus_error_free(&error_); }
    BusError(const BusError &) = delete;
    BusError(BusError &&) = delete;
    BusError &operator=(const BusError &) = delete;
    BusError &operator=(BusError &&) = delete;

    /// Clears the error and returns it for the next call.
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
