#pragma once

#include "gdata.h"

/// A runnable task with nothing bound: state 0, analyzable, its value valid.
inline Task sample_task() {
    Task task{};
    task.flags = TASK_RUNNABLE | TASK_VALUE_VALID;
    task.source = "sample";
    task.name = "sample";
    task.analyzable = 1;
    task.do_logfile = 1;
    return task;
}
