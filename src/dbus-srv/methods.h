#pragma once

// The methods of the bus service. Called by the listener only.

#include <dbus/dbus.h>

/// Replies with the raised issues, or without arguments when none is raised; 0 or -1.
int d_bus_srv_GetListing(DBusConnection *connection, DBusMessage *message);
/// Replies with the description of the object path; 0 or -1.
int d_bus_srv_Introspect(DBusConnection *connection, DBusMessage *message);
/// Marks the issues of WiFi, LAN or Cell as available or not; 0 or -1.
int d_bus_srv_ChangeInterfaceAvailability(DBusConnection *connection, DBusMessage *message);
