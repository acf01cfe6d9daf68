#pragma once

// The methods that the bus service answers, called by the listener only.

#include <dbus/dbus.h>

/// Answers with the raised issues, or with no argument at all when none is; 0 or -1.
int d_bus_srv_GetListing(DBusConnection *connection, DBusMessage *message);
/// Answers with the description of the object path; 0 or -1.
int d_bus_srv_Introspect(DBusConnection *connection, DBusMessage *message);
/// Marks the issues of an interface family as available or not; 0 or -1.
int d_bus_srv_ChangeInterfaceAvailability(DBusConnection *connection, DBusMessage *message);
