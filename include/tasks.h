#pragma once

#include "gdata.h"

/// The built-in checks, in the order in which they are initialised, run and dumped.
TaskList builtin_tasks();
