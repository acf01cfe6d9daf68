#pragma once

// The load logger, a child process of the daemon.

#include "gdata.h"

/// Starts the load logger as the task's child and registers it; 0, or -1 when it cannot be forked.
int load_start_child(Task *task);
