#pragma once

#include "gdata.h"

/// Runs the task's probe; its result, or -1 when it has none.
int executer(Task *task);
