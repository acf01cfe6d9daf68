#pragma once

// The queue of signals between the main thread and the sender.

#include "dbus-srv/bus_handle.h"

/// Appends the message and returns 0. When out of memory, releases it and returns -1.
int d_bus_srv_msg_queue_add(BusMessage message);
/// Removes and returns the oldest message; none when the queue is empty.
BusMessage d_bus_srv_msg_queue_remove();
/// Blocks the sender until d_bus_srv_msg_queue_signal() is called; returns at once if that has happened since the
/// last return.
void d_bus_srv_msg_queue_wait();
/// Wakes the sender.
void d_bus_srv_msg_queue_signal();
