#pragma once

/// Blocks the POSIX termination signals in the calling thread, so that the main thread gets them.
void d_bus_srv_init_signals();
/// The sender thread: sends the queued signals.
void *d_bus_srv_msg_sender(void *);
