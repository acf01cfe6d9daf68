#include "notifier.h"

#include "dbus-srv.h"
#include "trace.h"

int notifier_init() {
    trace(TRACE_INFO, " ");
    trace(TRACE_TRACE, "DONE");
    return 0;
}

int notifier(Task *task) {
    trace(TRACE_DEBUG, " ");
    return task->notify.run == nullptr ? -1 : task->notify.run(task);
}

int common_notifier(Task *task) {
    trace(TRACE_DEBUG, " ");
    if (task->do_notify == 1) {
        trace(TRACE_TRACE, "NOTIFY %s: value: %d -- state %d", task->name, task->value, task->state);
        d_bus_srv_issue_update(static_cast<std::uint32_t>(task->id), task->state);
    }
    task->do_notify = 0;
    return 0;
}

int NULL_notifier(Task *task) {
    trace(TRACE_DEBUG, " ");
    if (task->do_notify != 0) {
        trace(TRACE_TRACE, "skip notification %s: value: %d -- state %d", task->name, task->value, task->state);
    }
    task->do_notify = 0;
    return 0;
}
