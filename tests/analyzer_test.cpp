#include "analyzer.h"

#include "captured_traces.h"
#include "samples.h"

namespace {

TEST(BoolAnalyzer, ActsAfterTheDelayAndKeepsCounting) {
    expect_samples(bool_analyzer, with_delay(sample_task(), 2),
                   {
                       {1, 0, {0, 0, 0, 0, 1}, 0},
                       {1, 2, {0, 0, 0, 0, 2}, 1},
                       {1, 2, {0, 0, 0, 0, 3}, 0},
                       {0, 2, {0, 0, 1, 0, 0}, 0},
                       {1, 2, {0, 0, 0, 0, 1}, 0},
                       {0, 2, {0, 0, 1, 0, 0}, 0},
                       {0, 0, {0, 0, 2, 0, 0}, 1},
                       {0, 0, {0, 0, 3, 0, 0}, 0},
                   });
}

TEST(BoolAnalyzer, ActsOnTheFirstSampleWithoutDelayOrWithOneBelowTwo) {
    for (const std::int32_t delay : {1, 0, -1}) {
        expect_samples(bool_analyzer, with_delay(sample_task(), delay),
                       {{1, 2, {0, 0, 0, 0, 1}, 1}, {0, 0, {0, 0, 1, 0, 0}, 1}});
    }
    Task undelayed = sample_task();
    undelayed.delay = 10;
    expect_samples(bool_analyzer, undelayed, {{1, 2, {0, 0, 0, 0, 1}, 1}, {0, 0, {0, 0, 1, 0, 0}, 1}});
}

TEST(BoolAnalyzer, IgnoresOtherValuesEntirely) {
    Task task = with_delay(sample_task(), 1);
    preset_counters(task, 7);
    task.state = 2;
    for (const std::int32_t value : {7, 2, -1, 256, LOWEST, HIGHEST}) {
        expect_samples(bool_analyzer, task, {{value, 2, {7, 7, 7, 7, 7}, 0}});
    }
}

TEST(BoolAnalyzer, TouchesOnlyItsOwnTwoCounters) {
    Task task = with_delay(sample_task(), 100);
    preset_counters(task, 7);
    expect_samples(bool_analyzer, task, {{1, 0, {7, 7, 0, 7, 8}, 0}, {0, 0, {7, 7, 1, 7, 0}, 0}});
}

TEST(BoolAnalyzer, WrapsItsCountersAt256AndKeepsTheState) {
    struct Way {
        std::int32_t value;
        std::uint8_t Task::*counter;
        int state;
    };
    for (const Way &way : {Way{1, &Task::counter_maxfail, 2}, Way{0, &Task::counter_ok, 0}}) {
        Task task = with_delay(sample_task(), 10);
        task.state = static_cast<std::int8_t>(2 - way.state);
        task.value = way.value;
        for (int i = 1; i <= 600; ++i) {
            task.do_notify = task.do_log = 0;
            bool_analyzer(&task);
            ASSERT_EQ(int{task.*way.counter}, i % 256);
            ASSERT_EQ(int{task.state}, i >= 10 ? way.state : 2 - way.state) << i;
            ASSERT_EQ(int{task.do_notify}, i == 10 ? 1 : 0) << i;
        }
    }
}

TEST(BoolAnalyzer, UsesNeitherLimitsNorLowestFlags) {
    Task task = temperature_like();
    task.flags &= ~0xFU;
    task.maxfail = 0;
    expect_samples(bool_analyzer, task,
                   {{0, 0, {0, 0, 1, 0, 0}, 0}, {1, 2, {0, 0, 0, 0, 1}, 1}, {0, 0, {0, 0, 1, 0, 0}, 1}});
}

TEST(BoolAnalyzer, ChangesNothingOnAnInvalidValue) {
    Task task = with_delay(sample_task(), 1);
    preset_counters(task, 7);
    task.flags &= ~std::uint32_t{TASK_VALUE_VALID};
    expect_samples(bool_analyzer, task, {{1, 0, {7, 7, 7, 7, 7}, 0}, {0, 0, {7, 7, 7, 7, 7}, 0}});
}

TEST(CommonAnalyzer, EvaluatesAgainstTheThresholds) {
    expect_samples(common_analyzer, with_delay(temperature_like(), 2),
                   {
                       {80, 0, {0, 0, 0, 1, 1}, 0},
                       {80, 2, {0, 0, 0, 0, 0}, 1},
                       {64, 2, {0, 0, 1, 0, 0}, 0},
                       {64, 0, {0, 0, 0, 0, 0}, 1},
                   });
}

TEST(Analyzers, DoNothingUnlessAnalyzableIsExactlyOne) {
    for (const TaskOperation operation : {bool_analyzer, threshold_analyzer, common_analyzer}) {
        for (const int analyzable : {0, 2, 255}) {
            Task task = temperature_like();
            task.maxwarn = task.maxfail = 1; // a 1 is a failure for all three
            preset_counters(task, 7);
            task.analyzable = static_cast<std::uint8_t>(analyzable);
            expect_samples(operation, task, {{1, 0, {7, 7, 7, 7, 7}, 0}});
            task.analyzable = 1;
            task.value = 1;
            operation(&task);
            EXPECT_EQ(int{task.state}, 2);
        }
    }
}

TEST(Analyzers, LeavePendingMarksWithoutAChange) {
    for (const TaskOperation operation : {bool_analyzer, threshold_analyzer, common_analyzer}) {
        Task task = temperature_like();
        task.do_notify = task.do_log = 1;
        task.value = 0;
        operation(&task); // no change
        EXPECT_EQ(int{task.do_notify}, 1);
        EXPECT_EQ(int{task.do_log}, 1);
    }
}

TEST(NullAnalyzer, ClearsTheMarksAndNothingElse) {
    for (const std::uint32_t valid : {0U, std::uint32_t{TASK_VALUE_VALID}}) {
        for (const int analyzable : {1, 2, 255}) {
            Task task = temperature_like();
            task.flags = (task.flags & ~std::uint32_t{TASK_VALUE_VALID}) | valid;
            task.analyzable = static_cast<std::uint8_t>(analyzable);
            task.value = 100;
            task.state = 1;
            preset_counters(task, 7);
            task.do_notify = task.do_log = 1;
            EXPECT_EQ(NULL_analyzer(&task), 0);
            EXPECT_EQ(task.do_notify + task.do_log, 0);
            EXPECT_EQ(int{task.state}, 1);
            EXPECT_EQ(counters_of(task), (Counters{7, 7, 7, 7, 7}));
        }
    }
}

TEST(NullAnalyzer, LeavesTheMarksOfATaskThatIsNotAnalyzable) {
    Task task = sample_task();
    task.analyzable = 0;
    task.do_notify = task.do_log = 1;
    EXPECT_EQ(NULL_analyzer(&task), 0);
    EXPECT_EQ(int{task.do_notify}, 1);
    EXPECT_EQ(int{task.do_log}, 1);
}

TEST(Analyzer, ReturnsTheOperationsResultOrMinusOneWithoutOne) {
    Task task = sample_task();
    EXPECT_EQ(analyzer(&task), -1);
    task.analyze = {[](Task *given) { return given->id; }, "own"};
    task.id = 42;
    EXPECT_EQ(analyzer(&task), 42);
    EXPECT_EQ(analyzer_init(), 0);
}

/// All traces in order, as "function: text".
std::vector<std::string> traces_of(TaskOperation operation, Task task) {
    const CapturedTraces traces;
    operation(&task);
    std::vector<std::string> lines;
    for (const CapturedTrace &trace : traces.all()) {
        lines.push_back(trace.function + ":" + trace.text);
    }
    return lines;
}

using Lines = std::vector<std::string>;

Task traced_task() {
    Task task = sample_task();
    task.id = 5;
    task.index = 3;
    task.value = -12;
    return task;
}

Task invalid(Task task) {
    task.flags &= ~std::uint32_t{TASK_VALUE_VALID};
    return task;
}

Task not_analyzable(Task task) {
    task.analyzable = 0;
    return task;
}

TEST(AnalyzerTraces, OfBool) {
    const Task task = traced_task();
    EXPECT_EQ(traces_of(bool_analyzer, task),
              (Lines{"bool_analyzer: ", "bool_analyzer:analyze ID: CB05[3] -- value: -12 (VALID)",
                     "bool_analyzer:analyze ID: CB05[3] -- value: -12 (VALID) -- do_log: N, do_notify: N"}));
    EXPECT_EQ(traces_of(bool_analyzer, invalid(task)),
              (Lines{"bool_analyzer: ", "bool_analyzer:analyze ID: CB05[3] -- value: -12 (INVALID)",
                     "bool_analyzer:analyze ID: CB05[3] -- value: -12 (INVALID) -- do_log: N, do_notify: N"}));
    EXPECT_EQ(traces_of(bool_analyzer, not_analyzable(task)),
              (Lines{"bool_analyzer: ",
                     "bool_analyzer:analyze ID: CB05[3] -- value: -12 (VALID) -- do_log: N, do_notify: N"}));
}

TEST(AnalyzerTraces, OfThreshold) {
    const Task task = traced_task();
    EXPECT_EQ(traces_of(threshold_analyzer, task),
              (Lines{"threshold_analyzer: ", "threshold_analyzer:analyze ID: CB05[3] -- value: -12 (VALID)",
                     "threshold_analyzer:analyze ID: CB05[3] -- value: -12 (VALID) -- do_log: N, do_notify: N"}));
    EXPECT_EQ(traces_of(threshold_analyzer, invalid(task)),
              (Lines{"threshold_analyzer: ",
                     "threshold_analyzer:analyze ID: CB05[3] -- value: -12 (INVALID) -- do_log: N, do_notify: N"}));
    EXPECT_EQ(traces_of(threshold_analyzer, not_analyzable(task)),
              (Lines{"threshold_analyzer: ",
                     "threshold_analyzer:analyze ID: CB05[3] -- value: -12 (VALID) -- do_log: N, do_notify: N"}));
}

TEST(AnalyzerTraces, OfCommonShowTheValueTwice) {
    const Task task = traced_task();
    EXPECT_EQ(traces_of(common_analyzer, task),
              (Lines{"common_analyzer: ", "common_analyzer:analyze ID: CB05[3] -- value: -12 (VALID)",
                     "threshold_analyzer: ", "threshold_analyzer:analyze ID: CB05[3] -- value: -12 (VALID)",
                     "threshold_analyzer:analyze ID: CB05[3] -- value: -12 (VALID) -- do_log: N, do_notify: N"}));
    EXPECT_EQ(traces_of(common_analyzer, invalid(task)),
              (Lines{"common_analyzer: ", "common_analyzer:analyze ID: CB05[3] -- value: -12 (INVALID)",
                     "threshold_analyzer: ",
                     "threshold_analyzer:analyze ID: CB05[3] -- value: -12 (INVALID) -- do_log: N, do_notify: N"}));
    EXPECT_EQ(traces_of(common_analyzer, not_analyzable(task)), (Lines{"common_analyzer: "}));
}

TEST(AnalyzerTraces, OfNull) {
    const Task task = traced_task();
    EXPECT_EQ(traces_of(NULL_analyzer, task),
              (Lines{"NULL_analyzer: ", "NULL_analyzer:skip analyze ID: CB05[3] -- value: -12 (VALID)"}));
    EXPECT_EQ(traces_of(NULL_analyzer, invalid(task)), (Lines{"NULL_analyzer: "}));
    EXPECT_EQ(traces_of(NULL_analyzer, not_analyzable(task)), (Lines{"NULL_analyzer: "}));
}

TEST(AnalyzerTraces, OfDispatcherAndInit) {
    EXPECT_EQ(traces_of(analyzer, traced_task()), (Lines{"analyzer: "}));
    EXPECT_EQ(traces_of([](Task *) { return analyzer_init(); }, traced_task()), (Lines{"analyzer_init: "}));
}

TEST(AnalyzerTraces, ShowTheMarkOfTheNotifierInBothFields) {
    for (const TaskOperation operation : {bool_analyzer, threshold_analyzer}) {
        Task task = traced_task();
        task.do_notify = 1;
        EXPECT_TRUE(traces_of(operation, task).back().ends_with(" -- do_log: Y, do_notify: Y"));
        task.do_notify = 0;
        task.do_log = 1;
        EXPECT_TRUE(traces_of(operation, task).back().ends_with(" -- do_log: N, do_notify: N"));
        task.do_notify = 2; // only 1 counts
        EXPECT_TRUE(traces_of(operation, task).back().ends_with(" -- do_log: N, do_notify: N"));
    }
}

TEST(AnalyzerTraces, ShowTheMarksOfTheChangeThatTheyEndWith) {
    for (const TaskOperation operation : {bool_analyzer, threshold_analyzer, common_analyzer}) {
        Task task = temperature_like();
        task.value = 1;
        task.maxfail = 1;
        EXPECT_TRUE(traces_of(operation, task).back().ends_with(" -- value: 1 (VALID) -- do_log: Y, do_notify: Y"));
    }
}

TEST(AnalyzerTraces, ShowTheNumberOfAnUnsetId) {
    Task task = traced_task();
    task.id = TASK_ID_UNSET;
    task.index = 0;
    EXPECT_EQ(traces_of(NULL_analyzer, task).back(), "NULL_analyzer:skip analyze ID: CB99[0] -- value: -12 (VALID)");
}

TEST(AnalyzerTraces, ComeFromLine90OfTheAnalyzerForThreshold) {
    const CapturedTraces traces;
    Task task = traced_task();
    threshold_analyzer(&task);
    const CapturedTrace &entry = traces.all().front();
    EXPECT_EQ(entry.code_file, "CODE_FILE=analyzer.c");
    EXPECT_EQ(entry.code_line, "CODE_LINE=90");
    EXPECT_TRUE(entry.line.starts_with("(2) ["));
    EXPECT_TRUE(entry.line.ends_with(" analyzer.c: threshold_analyzer(90)  ")) << entry.line;
}

TEST(AnalyzerTraces, HaveLevel2AtEntryAndLevel3After) {
    for (const TaskOperation operation : {bool_analyzer, threshold_analyzer, NULL_analyzer}) {
        const CapturedTraces traces;
        Task task = traced_task();
        operation(&task);
        ASSERT_GE(traces.all().size(), 2U);
        for (std::size_t i = 0; i < traces.all().size(); ++i) {
            EXPECT_TRUE(traces.all()[i].line.starts_with(i == 0 ? "(2) [" : "(3) [")) << traces.all()[i].line;
            EXPECT_EQ(traces.all()[i].priority, 7);
        }
    }
}

TEST(AnalyzerTraces, HaveLevel2AtEachEntryOfCommonAndOfDispatcherAndInit) {
    Task task = traced_task();
    task.analyze = {.run = common_analyzer, .name = "common"};
    const CapturedTraces traces;
    analyzer_init();
    analyzer(&task);
    std::string levels;
    for (const CapturedTrace &trace : traces.all()) {
        levels += trace.line.substr(0, 3);
    }
    EXPECT_EQ(levels, "(2)(2)(2)(3)(2)(3)(3)"); // init, analyzer, common and its value, threshold, value, marks
}

} // namespace
