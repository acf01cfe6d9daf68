#include "builtin/load.h"

#include "builtin.h"
#include "builtin/load/child.h"
#include "common.h"
#include "handle.h"
#include "logger.h"
#include "trace.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>

// /proc/stat; the line of all CPUs starts with user, nice, system and idle:
//     cpu  10132153 290696 3084719 46828483 16683 0 25195 0 0 0

namespace {

// Shared by both load tasks: the second one in a pass sees too few ticks and repeats the first one's load.
constinit CpuCounters previous{.user = 0, .system = 0, .idle = 0};
constinit std::int32_t last_load = 0;
constinit bool first_run = true;
constinit bool load_child_started = false;

/// The number modulo 2^32 (idle exceeds 2^31 within months). False if the text is not a count.
bool to_ticks(const char *text, std::int32_t *ticks) {
    constexpr double exact_up_to = 9007199254740992.0; // 2^53
    const double number = std::strtod(text, nullptr);
    if (!std::isfinite(number) || std::fabs(number) > exact_up_to) {
        return false;
    }
    *ticks = static_cast<std::int32_t>(static_cast<std::uint32_t>(static_cast<std::int64_t>(number)));
    return true;
}

std::int64_t ticks_between(std::int32_t before, std::int32_t now) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(now) - static_cast<std::uint32_t>(before));
}

} // namespace

bool load_parse_line(char *line, CpuCounters *counters) {
    constexpr int max_tokens = 11;
    constexpr int needed = 5;
    std::array<char *, max_tokens + 1> tokens{};
    return strsplit(line, tokens.data(), max_tokens) >= needed && to_ticks(tokens[1], &counters->user) &&
           to_ticks(tokens[3], &counters->system) && to_ticks(tokens[4], &counters->idle);
}

bool load_between(const CpuCounters &before, const CpuCounters &now, CpuLoad *load) {
    constexpr std::int64_t most_of_too_few = 99;
    const std::int64_t user = ticks_between(before.user, now.user);
    const std::int64_t system = ticks_between(before.system, now.system);
    const std::int64_t idle = ticks_between(before.idle, now.idle);
    const std::int64_t total = user + system + idle;
    if (total <= most_of_too_few) {
        return false;
    }
    const std::int64_t idle_percent = 100 * idle / total;
    *load = {.user = static_cast<std::int32_t>(100 * user / total),
             .system = static_cast<std::int32_t>(100 * system / total),
             .idle = static_cast<std::int32_t>(idle_percent),
             .load = static_cast<std::int32_t>(100 - idle_percent)};
    return true;
}

int load_read_values(std::int32_t *user, std::int32_t *system, std::int32_t *idle) {
    const FileHandle file(std::fopen("/proc/stat", "re"));
    if (!file) {
        trace(TRACE_TRACE, "fopen()");
        return -1;
    }
    std::array<char, 1024> line{};
    if (std::fgets(line.data(), static_cast<int>(line.size()), file.get()) == nullptr) {
        trace(TRACE_TRACE, "fgets()");
        return -1;
    }
    CpuCounters counters{};
    if (!load_parse_line(line.data(), &counters)) {
        trace(TRACE_TRACE, "strsplit()");
        return -1;
    }
    *user = counters.user;
    *system = counters.system;
    *idle = counters.idle;
    return 0;
}

int load_init(Task *task) {
    trace(TRACE_INFO, " ");
    if (first_run) {
        first_run = false;
        load_read_values(&previous.user, &previous.system, &previous.idle);
    }
    load_child_started = false;
    probe_mark_initialised(task);
    return 0;
}

int load_exec(Task *task) {
    trace(TRACE_DEBUG, "CB%02d", task->id);
    task_clear(task, TASK_VALUE_VALID);
    if (task_has(task, TASK_REINIT)) {
        task_clear(task, TASK_REINIT);
        load_child_started = false;
    }
    CpuCounters now{};
    if (load_read_values(&now.user, &now.system, &now.idle) != 0) {
        trace(TRACE_TRACE, "CB%02d FAILED!", task->id);
        return probe_fail(task, -1);
    }
    CpuLoad load{};
    if (load_between(previous, now, &load)) {
        const double average = load.load;
        trace(TRACE_TRACE, "user: %6.2f system: %6.2f idle: %6.2f -- avg_load: %6.2f", static_cast<double>(load.user),
              static_cast<double>(load.system), static_cast<double>(load.idle), average);
        previous = now;
        last_load =
            static_cast<std::int32_t>(average + 0.5); // NOLINT(bugprone-incorrect-roundings): kept for negative loads
    }
    return probe_succeed(task, last_load);
}

int load_logger(Task *task) {
    trace(TRACE_DEBUG, " ");
    if (task->do_log == 0) {
        return 0;
    }
    threshold_logger(task);
    const bool has_command = task_has(task, TASK_HAS_PARAMETER) && task->parameter != nullptr;
    if (task->state == 0 || !has_command || task->child_pid != 0 || load_child_started) {
        return 0;
    }
    const int result = load_start_child(task);
    load_child_started = task->child_pid != 0;
    return result;
}

int load_cleanup(Task *task) {
    const pid_t pid = task->child_pid;
    trace(TRACE_TRACE, "pid: %d", pid);
    if (pid > 1 && kill(-pid, SIGTERM) != 0 && errno == ESRCH) {
        kill(pid, SIGTERM); // it has not created its process group yet
    }
    task->child_pid = 0;
    return 0;
}
