#include "executer.h"

#include "trace.h"

int executer(Task *task) {
    trace(TRACE_DEBUG, " ");
    return task->exec == nullptr ? -1 : task->exec(task);
}
