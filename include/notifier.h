#pragma once

#include "gdata.h"

/// Called once at start; returns 0.
int notifier_init();
/// Runs the task's notifier; its result, or -1 when it has none.
int notifier(Task *task);
/// Reports a marked change to the issue registry; returns 0.
int common_notifier(Task *task);
/// Clears the mark and reports nothing; returns 0.
int NULL_notifier(Task *task);
