#include "builtin.h"
#include "logger.h"
#include "trace.h"

#include <array>
#include <unistd.h>

namespace {

/// 0 if the file exists, else 1. Its content, the controller's power state, does not matter.
std::int32_t bluetooth_state(const char *path) { return access(path, F_OK) == 0 ? 0 : 1; }

} // namespace

int bluetooth_init(Task *task) {
    trace(TRACE_INFO, " ");
    probe_mark_initialised(task);
    return 0;
}

int bluetooth_exec(Task *task) {
    trace(TRACE_DEBUG, " ");
    task_clear(task, TASK_VALUE_VALID);
    const std::int32_t value = bluetooth_state(task->parameter);
    trace(TRACE_TRACE, "%s: %d", task->parameter, value);
    return probe_succeed(task, value);
}

int bluetooth_logger(Task *task) {
    trace(TRACE_DEBUG, " ");
    if (task->do_log != 1) {
        return 0;
    }
    task->do_log = 0;
    std::array<char, PROBE_LINE_SIZE> buffer{};
    TextBuffer line = logger_value_line(buffer, task);
    line.append_format("Bluetooth hardware %s available.", task->state == 0 ? "is" : "is not");
    logger_syslog(probe_log_state(task), line.c_str());
    return 0;
}
