#pragma once

// The bus service's connection to the system bus: connecting, reconnecting, and the state that listener and
// sender share.

#include "dbus-srv/bus_handle.h"

#include <cstdint>

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
/// the bus disappears, and it queues at most 1 MiB and one message. May block: not for the main thread.
BusConnection bus_connect(BusError &error);
bool bus_is_connected(const BusConnection &connection);

/// The bus's reply to a request for the name.
enum class NameAnswer : std::uint8_t {
    owner,
    refused, ///< another process keeps it, or the bus denies it
    none,    ///< no reply within the library's timeout (25 s), or the connection was lost
};

/// Requests the configured name and replaces an owner that allows it. Does not stay in the queue for the name; a
/// name granted after the timeout is released.
NameAnswer bus_own_name(const BusConnection &connection, BusError &error);
/// Waits until a message arrives or `wakeup` (an event descriptor or -1) is set, which it then clears; reads the
/// received data. Returns early if the sender reads the data first.
void bus_read(const BusConnection &connection, int wakeup, int timeout_ms);
/// Drops all received messages. The last one on a dead connection is the library's own "Disconnected": until it is
/// removed, the library returns the dead connection again.
void bus_drop_messages(const BusConnection &connection);

/// The seconds to wait before reconnect attempt number `attempt`, from 0: 1, 2, 4, ... 32, 60, 60.
constexpr unsigned bus_pause_seconds(unsigned attempt) {
    constexpr unsigned longest = 60;
    constexpr unsigned doublings = 6;
    return attempt < doublings ? 1U << attempt : longest;
}

/// Retries with growing pauses until there is a connection, which owns the name if `with_name`. In that case it
/// also updates the link's state, so that the sender can use a connection without the name. `connection` is the
/// lost one, or a live one without the name.
BusConnection bus_reconnect(BusConnection connection, bool with_name);
