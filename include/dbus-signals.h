#pragma once

// The signals of raised and cleared issues: built on the main thread, queued, sent by the sender.

#include "dbus_handle.h"

#include <cstdint>

/// Builds and queues the signals of what has changed since `now`; the number of issues announced, or
/// -1 when a signal could not be built or queued. What was queued before that stays queued.
int d_bus_srv_create_signal_messages(std::int64_t now);
/// One signal with `now` and the first `count` of `labels`; none on failure.
BusMessage d_bus_create_signals(std::int64_t now, const char *member, const char *const *labels, int count);

/// Appends; 0, or -1 when memory is out, the message then being released.
int d_bus_srv_msg_queue_add(BusMessage message);
/// Takes the oldest message out; none when the queue is empty.
BusMessage d_bus_srv_msg_queue_remove();
/// Blocks until there has been a wake-up since the last return.
void d_bus_srv_msg_queue_wait();
/// Wakes the sender.
void d_bus_srv_msg_queue_signal();

/// Keeps the termination signals away from the calling thread, for the main thread to get.
void d_bus_srv_init_signals();
/// The sender thread.
void *d_bus_srv_msg_sender(void *);
