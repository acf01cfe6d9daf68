#pragma once

// Tables of samples: an analyzer's result for each value, row by row.

#include "sample_task.h"

#include <gtest/gtest.h>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

inline constexpr std::uint32_t ALL_LIMITS = TASK_HAS_MINFAIL | TASK_HAS_MINWARN | TASK_HAS_MAXWARN | TASK_HAS_MAXFAIL;
inline constexpr std::int32_t LOWEST = std::numeric_limits<std::int32_t>::min();
inline constexpr std::int32_t HIGHEST = std::numeric_limits<std::int32_t>::max();

/// Limits -40 -30 70 80 and a hysteresis of 5; acts on the first sample until a test sets a delay.
inline Task temperature_like() {
    Task task = sample_task();
    task.flags |= ALL_LIMITS | TASK_HAS_HYSTERESIS;
    task.minfail = -40;
    task.minwarn = -30;
    task.maxwarn = 70;
    task.maxfail = 80;
    task.hysteresis = 5;
    return task;
}

inline Task with_delay(Task task, std::int32_t delay) {
    task.flags |= TASK_HAS_DELAY;
    task.delay = delay;
    return task;
}

struct Counters {
    int minfail, minwarn, ok, maxwarn, maxfail;
    bool operator==(const Counters &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const Counters &counters) {
    return out << counters.minfail << ' ' << counters.minwarn << ' ' << counters.ok << ' ' << counters.maxwarn << ' '
               << counters.maxfail;
}

inline Counters counters_of(const Task &task) {
    return {task.counter_minfail, task.counter_minwarn, task.counter_ok, task.counter_maxwarn, task.counter_maxfail};
}

inline void preset_counters(Task &task, std::uint8_t count) {
    task.counter_minfail = task.counter_minwarn = task.counter_ok = task.counter_maxwarn = task.counter_maxfail = count;
}

/// One sample and the task's state after it. The marks are cleared before each sample.
struct Sample {
    std::int32_t value;
    int state;
    Counters counters;
    int marks;
};

inline void expect_samples(TaskOperation operation, Task task, const std::vector<Sample> &samples) {
    for (std::size_t i = 0; i < samples.size(); ++i) {
        SCOPED_TRACE("sample " + std::to_string(i) + ", value " + std::to_string(samples[i].value));
        task.do_notify = task.do_log = 0;
        task.value = samples[i].value;
        EXPECT_EQ(operation(&task), 0);
        EXPECT_EQ(int{task.state}, samples[i].state);
        EXPECT_EQ(counters_of(task), samples[i].counters);
        EXPECT_EQ(int{task.do_notify}, samples[i].marks);
        EXPECT_EQ(int{task.do_log}, samples[i].marks);
    }
}
