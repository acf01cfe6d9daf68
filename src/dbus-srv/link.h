#pragma once

// The bus service's connection to the system bus: connecting, losing and reconnecting, and its state as shared
// between listener and sender.

#include "dbus-srv/bus_handle.h"

#include <cstdint>

/// Whether the daemon serves the bus, as the listener knows it.
enum class BusLink : std::uint8_t {
    starting, ///< the name is not owned yet
    serving,
    nameless, ///< connected again, but somebody else has the name
    lost,     ///< no connection, or one on which the bus does not answer
    ended,    ///< refused at start; the listener has ended for good
};

struct BusLinkView {
    BusLink state;
    BusConnection connection; ///< set while serving or nameless
};

/// Sets how the link stands, and wakes the sender. `connection` is shared while serving or nameless.
void bus_link_set(BusLink state, DBusConnection *connection);
BusLinkView bus_link_get();

/// The shared connection to the system bus, which does not end the process when the bus goes away and
/// reads in no more than 1 MiB and one message before these are handled; none with the error set on
/// failure. May wait for the bus: not for the main thread.
BusConnection bus_connect(BusError &error);
bool bus_is_connected(const BusConnection &connection);

/// What the bus says to a request for the name.
enum class NameAnswer : std::uint8_t {
    owner,
    refused, ///< somebody else keeps it, or the bus does not allow it
    none,    ///< no answer in the library's own time (25 s), or the connection was lost
};

/// Requests the configured name, and replaces an owner that allows it. A name that is not ours at
/// once is not queued for, and one that is granted too late is released.
NameAnswer bus_own_name(const BusConnection &connection, BusError &error);
/// Waits until a message comes, or until `wakeup`, an event descriptor or -1, is set, which it then clears;
/// reads in what has come. Returns early when the sender has read that instead.
void bus_read(const BusConnection &connection, int wakeup, int timeout_ms);
/// Drops all received messages. The last one of a dead connection is the library's own notice of its
/// end: until that is taken, the library returns the dead connection again.
void bus_drop_messages(const BusConnection &connection);

/// The seconds to wait before the `attempt`-th try, from 0, to come back: 1, 2, 4, ... 32, 60, 60.
constexpr unsigned bus_pause_seconds(unsigned attempt) {
    constexpr unsigned longest = 60;
    constexpr unsigned doublings = 6;
    return attempt < doublings ? 1U << attempt : longest;
}

/// Tries with growing pauses until there is a connection, which owns the name if `with_name`. Then also
/// keeps the link's state up to date, for the sender to use a connection without the name. `connection`
/// is the lost one, or one that lives and has no name.
BusConnection bus_reconnect(BusConnection connection, bool with_name);
