#pragma once

#include "gdata.h"

/// Called once at start; returns 0.
int notifier_init();
/// Runs the task's notifier; its result, or -1 when it has none.
int notifier(Task *task);
/// Passes a marked change on to the issue registry; returns 0.
int common_notifier(Task *task);
/// Takes back the mark and passes nothing on; returns 0.
int NULL_notifier(Task *task);
