#pragma once

#include "gdata.h"

/// Called once at start; returns 0.
int notifier_init();
/// Runs the task's notifier; its result, or -1 when it has none.
int notifier(Task *task);
/// Reports the state to the issue registry if `do_notify` is set, and clears the mark; returns 0.
int common_notifier(Task *task);
/// Clears `do_notify` and reports nothing; returns 0.
int NULL_notifier(Task *task);
