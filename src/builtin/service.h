#pragma once

// The decisions of the service probe. These functions use no bus.

#include "handle.h"

/// Escapes a unit's name for its object path: letters, and digits except a leading one, stay; any other byte
/// becomes "_" and two hexadecimal digits. The caller owns the text. Null without a name or when out of memory.
TextHandle unit_path_escape(const char *name);

/// Whether a unit in this LoadState is watched.
bool service_counts_as_loaded(const char *load_state);
/// Whether a unit of this ActiveState runs.
bool service_counts_as_running(const char *active_state);
/// The pause in ms before the n-th retry at start-up (n from 1): 0 at first, then growing.
int service_retry_pause_ms(int repeat);
