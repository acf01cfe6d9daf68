#include "scheduler.h"

#include "analyzer.h"
#include "dbus-srv.h"
#include "executer.h"
#include "gdata.h"
#include "log_sockets.h"
#include "logfile.h"
#include "logger.h"
#include "network.h"
#include "notifier.h"
#include "signals.h"
#include "supervision.h"
#include "time_of_day.h"
#include "timer.h"
#include "trace.h"

#include <array>
#include <ctime>

namespace {

bool is_due(const Task *task, std::int64_t now) { return task_has(task, TASK_RUNNABLE) && task->next_run <= now; }

/// A task whose precondition returns 0 is skipped. It keeps its `next_run`, so the next heartbeat tries it again.
bool is_refused(Task *task) {
    return task_has(task, TASK_HAS_PRECONDITION) && task->precondition != nullptr && task->precondition(task) == 0;
}

/// The next multiple of the interval after `now`; a task without an interval is due at every heartbeat.
std::int64_t following_run(std::int64_t now, std::int32_t interval) {
    return interval <= 0 ? now : interval * (now / interval) + interval;
}

void run_pipeline(Task *task) {
    task->error = 0;
    task_clear(task, TASK_VALUE_VALID);
    executer(task);
    analyzer(task);
    notifier(task);
    logger(task);
    logfile_run(task);
}

void report_to_service_manager() {
    std::array<char, 256> labels{};
    d_bus_srv_raised_labels(labels.data(), labels.size());
    supervision_pass_done({.raised_issues = labels.data(),
                           .is_off_bus = d_bus_srv_is_off_bus(),
                           .status_log_error = logfile_pass_error(),
                           .lost_traces = trace_lost_lines()});
}

} // namespace

void scheduler_pass(std::int64_t now) {
    logfile_follow_name();
    network_check_daemon();
    const TimeOfDay start = utc_time_of_day(now);
    trace_as("scheduler", TRACE_DEBUG, "RUN: at %02d:%02d:%02d", start.hour, start.minute, start.second);
    for (Task *task = gdata_get_task_head(); task != nullptr; task = task->next) {
        if (!is_due(task, now)) {
            continue;
        }
        signals_safe_point();
        if (is_refused(task)) {
            continue;
        }
        run_pipeline(task);
        task->next_run = following_run(now, task->interval);
        const TimeOfDay next = utc_time_of_day(task->next_run);
        trace_as("scheduler", TRACE_TRACE, "%s: next_run: %02d:%02d:%02d", task->source, next.hour, next.minute,
                 next.second);
    }
    d_bus_srv_send_issues(now);
    signals_safe_point(); // a signal from the pass must not end the wait after it
}

void scheduler() {
    trace(TRACE_INFO, " ");
    supervision_ready();
    timer_continue();
    for (;;) {
        const std::int64_t now = std::time(nullptr); // first: the calls below may take time
        log_sockets_resume();
        timer_suspend();
        logger_tell_lost();
        scheduler_pass(now);
        report_to_service_manager();
        timer_continue();
        runrun_wait();
    }
}
