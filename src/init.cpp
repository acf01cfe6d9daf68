#include "init.h"

#include "analyzer.h"
#include "dbus-srv.h"
#include "gdata.h"
#include "logfile.h"
#include "logger.h"
#include "notifier.h"
#include "signals.h"
#include "trace.h"

#include <array>

int init() {
    trace(TRACE_INFO, " ");
    constexpr std::array modules{analyzer_init, notifier_init, logger_init, logfile_init, d_bus_srv_init};
    for (const auto module_init : modules) {
        module_init(); // a failed module has traced its error; the others still run
        signals_safe_point();
    }
    for (Task *task = gdata_get_task_head(); task != nullptr; task = task->next) {
        trace(TRACE_TRACE, "init %s", task->name);
        if (task_has(task, TASK_RUNNABLE)) {
            task->init(task);
        }
        signals_safe_point();
    }
    trace(TRACE_TRACE, "DONE");
    return 0;
}
