#include "analyzer.h"

#include "trace.h"

namespace {

constexpr std::uint32_t FOUR_LOWEST_FLAGS = 0xF;

struct Limits {
    std::int64_t lo_fail;
    std::int64_t lo_warn;
    std::int64_t hi_warn;
    std::int64_t hi_fail;
};

const char *validity(const Task *task) { return task_has(task, TASK_VALUE_VALID) ? "" : "IN"; }

const char *yes_no(std::uint8_t mark) { return mark == 1 ? "Y" : "N"; }

bool delay_reached(const Task *task, std::uint8_t counter) {
    return !task_has(task, TASK_HAS_DELAY) || int{counter} >= task->delay;
}

void commit(Task *task, std::int8_t candidate) {
    if (candidate == task->state) {
        return;
    }
    task->state = candidate;
    task->do_notify = 1;
    task->do_log = 1;
}

/// The task's limits. The hysteresis moves the limits that the current state has passed, so that the value must return
/// beyond them to end the state.
Limits effective_limits(const Task *task) {
    Limits limits{task->minfail, task->minwarn, task->maxwarn, task->maxfail};
    const std::int64_t h = task_has(task, TASK_HAS_HYSTERESIS) ? task->hysteresis : 0;
    switch (task->state) {
    case -2:
        limits.lo_fail += h;
        limits.lo_warn += h;
        break;
    case -1:
        limits.lo_warn += h;
        break;
    case 1:
        limits.hi_warn -= h;
        break;
    case 2:
        limits.hi_fail -= h;
        limits.hi_warn -= h;
        break;
    default:
        break;
    }
    return limits;
}

// Each of these counts a sample of one class and resets the counters of the others. A failure also counts as a
// warning. After `delay` samples the state changes.

void count_minfail(Task *task) {
    ++task->counter_minfail;
    ++task->counter_minwarn;
    task->counter_ok = task->counter_maxwarn = task->counter_maxfail = 0;
    if (delay_reached(task, task->counter_minfail)) {
        task->counter_minfail = task->counter_minwarn = 0;
        commit(task, -2);
    }
}

void count_minwarn(Task *task) {
    ++task->counter_minwarn;
    task->counter_minfail = task->counter_ok = task->counter_maxwarn = task->counter_maxfail = 0;
    if (delay_reached(task, task->counter_minwarn)) {
        task->counter_minwarn = 0;
        commit(task, -1);
    }
}

void count_maxfail(Task *task) {
    ++task->counter_maxfail;
    ++task->counter_maxwarn;
    task->counter_minfail = task->counter_minwarn = task->counter_ok = 0;
    if (delay_reached(task, task->counter_maxfail)) {
        task->counter_maxfail = task->counter_maxwarn = 0;
        commit(task, 2);
    }
}

void count_maxwarn(Task *task) {
    ++task->counter_maxwarn;
    task->counter_minfail = task->counter_minwarn = task->counter_ok = task->counter_maxfail = 0;
    if (delay_reached(task, task->counter_maxwarn)) {
        task->counter_maxwarn = 0;
        commit(task, 1);
    }
}

void count_ok(Task *task) {
    task->counter_minfail = task->counter_minwarn = task->counter_maxwarn = task->counter_maxfail = 0;
    if ((task->flags & FOUR_LOWEST_FLAGS) != 0) { // kept: without any of them, a good value never counts
        ++task->counter_ok;
    }
    if (delay_reached(task, task->counter_ok)) {
        task->counter_ok = 0;
        commit(task, 0);
    }
}

/// Failure before warning, lower limits before upper ones, limits inclusive.
void classify(Task *task, const Limits &limits) {
    if (task_has(task, TASK_HAS_MINFAIL) && task->value <= limits.lo_fail) {
        count_minfail(task);
    } else if (task_has(task, TASK_HAS_MINWARN) && task->value <= limits.lo_warn) {
        count_minwarn(task);
    } else if (task_has(task, TASK_HAS_MAXFAIL) && task->value >= limits.hi_fail) {
        count_maxfail(task);
    } else if (task_has(task, TASK_HAS_MAXWARN) && task->value >= limits.hi_warn) {
        count_maxwarn(task);
    } else {
        count_ok(task);
    }
}

/// Kept: a counter is not reset when it changes the state; it continues and wraps at 256.
void count_bool(Task *task) {
    if (task->value == 1) {
        task->counter_ok = 0;
        ++task->counter_maxfail;
        if (delay_reached(task, task->counter_maxfail)) {
            commit(task, 2);
        }
    } else if (task->value == 0) {
        task->counter_maxfail = 0;
        ++task->counter_ok;
        if (delay_reached(task, task->counter_ok)) {
            commit(task, 0);
        }
    }
}

} // namespace

// The traces before and after the analysis. Kept: the second shows do_notify for both marks.
#define trace_value(task)                                                                                              \
    trace(TRACE_TRACE, "analyze ID: CB%02d[%d] -- value: %d (%s%s)", (task)->id, (task)->index, (task)->value,         \
          validity(task), "VALID")
#define trace_marks(task)                                                                                              \
    trace(TRACE_TRACE, "analyze ID: CB%02d[%d] -- value: %d (%s%s) -- do_log: %s, do_notify: %s", (task)->id,          \
          (task)->index, (task)->value, validity(task), "VALID", yes_no((task)->do_notify), yes_no((task)->do_notify))

int analyzer_init() {
    trace(TRACE_DEBUG, " ");
    return 0;
}

int analyzer(Task *task) {
    trace(TRACE_DEBUG, " ");
    return task->analyze.run == nullptr ? -1 : task->analyze.run(task);
}

int bool_analyzer(Task *task) {
    trace(TRACE_DEBUG, " ");
    if (task->analyzable == 1) {
        trace_value(task);
        if (task_has(task, TASK_VALUE_VALID)) {
            count_bool(task);
        }
    }
    trace_marks(task);
    return 0;
}

int threshold_analyzer(Task *task) {
    // The line number is fixed.
    trace_at(TRACE_DEBUG, TRACE_FILE, __func__, 90, " ");
    if (task->analyzable == 1 && task_has(task, TASK_VALUE_VALID)) {
        trace_value(task);
        classify(task, effective_limits(task));
    }
    trace_marks(task);
    return 0;
}

int common_analyzer(Task *task) {
    trace(TRACE_DEBUG, " ");
    if (task->analyzable == 1) {
        trace_value(task);
        threshold_analyzer(task);
    }
    return 0;
}

int NULL_analyzer(Task *task) {
    trace(TRACE_DEBUG, " ");
    if (task->analyzable != 0) {
        if (task_has(task, TASK_VALUE_VALID)) {
            trace(TRACE_TRACE, "skip analyze ID: CB%02d[%d] -- value: %d (%s%s)", task->id, task->index, task->value,
                  validity(task), "VALID");
        }
        task->do_log = 0;
        task->do_notify = 0;
    }
    return 0;
}
