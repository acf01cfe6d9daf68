#pragma once

// Shared by the tests of all probes: what holds for the operations in a task's slots.

#include "captured_traces.h"
#include "probe_read.h"
#include "sample_task.h"

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <vector>

/// Shown by GoogleTest when an expectation fails.
inline void PrintTo(const Reading &reading, std::ostream *stream) {
    *stream << "value " << reading.value << ", error " << reading.error;
}
inline bool operator==(const Reading &left, const Reading &right) {
    return left.value == right.value && left.error == right.error;
}

inline constexpr std::int32_t STALE_VALUE = 77;
inline constexpr std::int32_t STALE_ERROR = 99;
inline constexpr std::uint8_t OTHERS_MARK = 7;

/// A task with an earlier value.
inline Task probe_task(const char *parameter) {
    Task task = sample_task();
    task.parameter = parameter;
    task.value = STALE_VALUE;
    task.error = STALE_ERROR;
    task.do_notify = task.do_log = task.do_logfile = OTHERS_MARK;
    return task;
}

/// The marks for the later steps are as `probe_task` set them.
inline void expect_others_marks_untouched(const Task &task) {
    EXPECT_EQ(task.do_notify, OTHERS_MARK);
    EXPECT_EQ(task.do_log, OTHERS_MARK);
    EXPECT_EQ(task.do_logfile, OTHERS_MARK);
    EXPECT_EQ(task.state, 0);
}

/// The run measures `value`: it is stored and marked, and nothing else of the task changes.
inline void expect_measured(TaskOperation exec, Task task, std::int32_t value) {
    task.flags &= ~std::uint32_t{TASK_VALUE_VALID};
    const Task before = task;
    EXPECT_EQ(exec(&task), 0);
    EXPECT_EQ(task.value, value);
    EXPECT_EQ(task.flags, before.flags | TASK_VALUE_VALID);
    EXPECT_EQ(task.error, STALE_ERROR) << "written on failure only";
    expect_others_marks_untouched(task);
}

/// The run fails with `error`: the old value stays, no longer valid, and nothing else changes.
inline void expect_failed(TaskOperation exec, Task task, std::int32_t error) {
    const Task before = task;
    ASSERT_TRUE(task_has(&before, TASK_VALUE_VALID));
    EXPECT_EQ(exec(&task), -1);
    EXPECT_EQ(task.error, error);
    EXPECT_EQ(task.value, STALE_VALUE);
    EXPECT_EQ(task.flags, before.flags & ~std::uint32_t{TASK_VALUE_VALID});
    expect_others_marks_untouched(task);
}

/// The init operation sets the first bit, clears the second and touches no other.
inline void expect_init_marks(TaskOperation init, const char *name) {
    for (const std::uint32_t others : {0U, 0xFFFFFFFCU, static_cast<std::uint32_t>(TASK_RUNNABLE)}) {
        for (const std::uint32_t marks : {0U, 1U, 2U, 3U}) {
            Task task = sample_task();
            task.flags = others | marks;
            EXPECT_EQ(init(&task), 0);
            EXPECT_EQ(task.flags, others | 1U) << std::hex << others << '+' << marks;
        }
    }
    const CapturedTraces traces;
    Task task = sample_task();
    init(&task);
    EXPECT_THAT(traces.texts_of(name), testing::ElementsAre(" "));
    EXPECT_THAT(traces.all().front().line, testing::StartsWith("(1) "));
}

/// A run traces its entry at level 2, then `rest` at level 3, all under the operation's name.
inline void expect_traces(const CapturedTraces &traces, const std::string &module,
                          const std::vector<std::string> &rest) {
    std::vector<std::string> expected{" "};
    expected.insert(expected.end(), rest.begin(), rest.end());
    EXPECT_EQ(traces.texts_of(module + "_exec"), expected);
    const std::vector<CapturedTrace> &all = traces.all();
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all.front().code_file, "CODE_FILE=builtin/" + module + ".c");
    EXPECT_THAT(all.front().line, testing::StartsWith("(2) "));
    for (auto trace = std::next(all.begin()); trace != all.end(); ++trace) {
        EXPECT_THAT(trace->line, testing::StartsWith("(3) "));
    }
}

inline std::ptrdiff_t open_descriptors() {
    const std::filesystem::directory_iterator folder("/proc/self/fd");
    return std::distance(begin(folder), end(folder));
}

/// A thousand runs leave no descriptor open.
inline void expect_no_descriptor_kept(TaskOperation exec, Task task, int result) {
    constexpr int runs = 1000;
    const CapturedTraces traces;
    exec(&task);
    const std::ptrdiff_t before = open_descriptors();
    for (int run = 0; run < runs; ++run) {
        ASSERT_EQ(exec(&task), result);
    }
    EXPECT_EQ(open_descriptors(), before);
}
