#pragma once

// The service probe's pure decisions.

#include "handle.h"

/// A unit's name as a part of its object path: letters and all but a leading digit stand for
/// themselves, every other byte becomes "_" and two hexadecimal digits. The caller owns the text; null
/// without a name or when memory is out.
TextHandle unit_path_escape(const char *name);

/// Whether a unit of this LoadState is there to be watched.
bool service_counts_as_loaded(const char *load_state);
/// Whether a unit of this ActiveState runs.
bool service_counts_as_running(const char *active_state);
/// The pause before the n-th repeated question at start-up (n from 1): none at first, then growing.
int service_retry_pause_ms(int repeat);
