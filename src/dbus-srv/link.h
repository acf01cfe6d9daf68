#pragma once

// The daemon's connection to the system bus: how it is made, lost, and made again, and what the
// listener tells the sender of it.

#include "dbus-srv/bus_handle.h"

#include <cstdint>

/// Whether the daemon serves the bus, as the listener knows it.
enum class BusLink : std::uint8_t {
    starting, ///< the name is not there yet
    serving,
    lost,  ///< being made again
    ended, ///< the listener gave up at start and will not come back
};

struct BusLinkView {
    BusLink state;
    BusConnection connection; ///< set while serving
};

/// Says how the link stands, and wakes the sender. `connection` is shared while serving.
void bus_link_set(BusLink state, DBusConnection *connection);
BusLinkView bus_link_get();

/// The shared connection to the system bus, which will not end the process when the bus goes away;
/// none with the error set on failure. May wait for the bus: not for the main thread.
BusConnection bus_connect(BusError &error);
bool bus_is_connected(const BusConnection &connection);
/// Becomes the owner of the configured name, replacing one that allows it, within 5 s; false, with
/// the request taken back, when somebody else keeps it or the bus does not answer.
bool bus_own_name(const BusConnection &connection, BusError &error);
/// Drops all received messages, of a dead connection also the library's own notice of its end:
/// until that is taken the library hands out the dead one again.
void bus_drop_messages(const BusConnection &connection);

/// The seconds to wait before the `attempt`-th try, from 0, to come back: 1, 2, 4, ... 32, 60, 60.
constexpr unsigned bus_pause_seconds(unsigned attempt) {
    constexpr unsigned longest = 60;
    constexpr unsigned doublings = 6;
    return attempt < doublings ? 1U << attempt : longest;
}

/// Lets go of a lost connection and tries until there is another, which owns the name if `with_name`.
BusConnection bus_reconnect(BusConnection lost, bool with_name);
