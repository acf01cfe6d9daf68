#pragma once

#include "gdata.h"

// Analyzers turn a task's value into its state. A change of state sets `do_notify` and `do_log`. All four operations
// return 0.

/// Called once at start; returns 0.
int analyzer_init();
/// Runs the task's analyzer; its result, or -1 when it has none.
int analyzer(Task *task);

/// The value 0 is good, 1 is bad, each after `delay` samples; any other value is ignored.
int bool_analyzer(Task *task);
/// Inclusive limits with hysteresis and delay.
int threshold_analyzer(Task *task);
/// `threshold_analyzer` for most built-in tasks; traces the value before it.
int common_analyzer(Task *task);
/// Clears both marks and leaves the state unchanged.
int NULL_analyzer(Task *task);
