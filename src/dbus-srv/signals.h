#pragma once

// The signals of raised and cleared issues, built on the main thread.

#include "dbus-srv/bus_handle.h"

#include <cstdint>

/// Builds and queues the signals of the issues changed since `now`. Returns the number of issues announced, or -1
/// if a signal could not be built or queued; earlier signals stay queued.
int d_bus_srv_create_signal_messages(std::int64_t now);
/// One signal with `now` and the first `count` of `labels`; none on failure.
BusMessage d_bus_create_signals(std::int64_t now, const char *member, const char *const *labels, int count);
