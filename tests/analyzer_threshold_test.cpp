#include "analyzer.h"

#include "samples.h"

#include <array>

namespace {

/// The state after one sample of a task in `state`.
int state_after(Task task, int state, std::int32_t value) {
    task.state = static_cast<std::int8_t>(state);
    task.value = value;
    threshold_analyzer(&task);
    return task.state;
}

struct Edge {
    int from;
    std::int32_t value;
    int to;
};

class HysteresisEdge : public testing::TestWithParam<Edge> {};

TEST_P(HysteresisEdge, LeadsToTheState) {
    const auto [from, value, to] = GetParam();
    EXPECT_EQ(state_after(temperature_like(), from, value), to) << "from " << from << " with " << value;
}

// From 0 the limits are -40 -30 70 80, each inclusive.
INSTANTIATE_TEST_SUITE_P(FromOk, HysteresisEdge,
                         testing::Values(Edge{0, -41, -2}, Edge{0, -40, -2}, Edge{0, -39, -1}, Edge{0, -30, -1},
                                         Edge{0, -29, 0}, Edge{0, 0, 0}, Edge{0, 69, 0}, Edge{0, 70, 1}, Edge{0, 79, 1},
                                         Edge{0, 80, 2}, Edge{0, 81, 2}));
// From -2 both lower limits are 5 higher: -35 -25 70 80.
INSTANTIATE_TEST_SUITE_P(FromLowFailure, HysteresisEdge,
                         testing::Values(Edge{-2, -40, -2}, Edge{-2, -35, -2}, Edge{-2, -34, -1}, Edge{-2, -25, -1},
                                         Edge{-2, -24, 0}, Edge{-2, 69, 0}, Edge{-2, 70, 1}, Edge{-2, 79, 1},
                                         Edge{-2, 80, 2}));
// From -1 only the lower warning limit is 5 higher: -40 -25 70 80.
INSTANTIATE_TEST_SUITE_P(FromLowWarning, HysteresisEdge,
                         testing::Values(Edge{-1, -40, -2}, Edge{-1, -39, -1}, Edge{-1, -25, -1}, Edge{-1, -24, 0},
                                         Edge{-1, 69, 0}, Edge{-1, 70, 1}, Edge{-1, 79, 1}, Edge{-1, 80, 2}));
// From 1 only the upper warning limit is 5 lower: -40 -30 65 80.
INSTANTIATE_TEST_SUITE_P(FromHighWarning, HysteresisEdge,
                         testing::Values(Edge{1, 80, 2}, Edge{1, 79, 1}, Edge{1, 65, 1}, Edge{1, 64, 0},
                                         Edge{1, -29, 0}, Edge{1, -30, -1}, Edge{1, -39, -1}, Edge{1, -40, -2}));
// From 2 both upper limits are 5 lower: -40 -30 65 75.
INSTANTIATE_TEST_SUITE_P(FromHighFailure, HysteresisEdge,
                         testing::Values(Edge{2, 80, 2}, Edge{2, 75, 2}, Edge{2, 74, 1}, Edge{2, 65, 1}, Edge{2, 64, 0},
                                         Edge{2, -29, 0}, Edge{2, -30, -1}, Edge{2, -39, -1}, Edge{2, -40, -2}));

TEST(ThresholdAnalyzer, DoesNotMoveLimitsWithoutTheHysteresisFlag) {
    Task task = temperature_like();
    task.flags &= ~std::uint32_t{TASK_HAS_HYSTERESIS};
    EXPECT_EQ(state_after(task, 2, 79), 1);
    EXPECT_EQ(state_after(task, 2, 69), 0);
    EXPECT_EQ(state_after(task, 1, 69), 0);
    EXPECT_EQ(state_after(task, -1, -29), 0);
    EXPECT_EQ(state_after(task, -2, -39), -1);
    EXPECT_EQ(state_after(task, -2, -29), 0);
}

TEST(ThresholdAnalyzer, TestsOnlyTheLimitsThatTheTaskHas) {
    const auto without = [](std::uint32_t flag) {
        Task task = temperature_like();
        task.flags &= ~flag;
        return task;
    };
    EXPECT_EQ(state_after(without(TASK_HAS_MINFAIL), 0, -100), -1);
    EXPECT_EQ(state_after(without(TASK_HAS_MINWARN), 0, -39), 0);
    EXPECT_EQ(state_after(without(TASK_HAS_MINWARN), 0, -40), -2);
    EXPECT_EQ(state_after(without(TASK_HAS_MAXFAIL), 0, 100), 1);
    EXPECT_EQ(state_after(without(TASK_HAS_MAXWARN), 0, 79), 0);
    EXPECT_EQ(state_after(without(TASK_HAS_MAXWARN), 0, 80), 2);
    EXPECT_EQ(state_after(without(ALL_LIMITS), 2, 100), 0);
    EXPECT_EQ(state_after(without(ALL_LIMITS), -2, -100), 0);
}

TEST(ThresholdAnalyzer, TestsFailureBeforeWarningAndLowerBeforeUpperLimits) {
    Task task = temperature_like();
    task.minfail = 50;
    task.minwarn = 60;
    task.maxwarn = 40;
    task.maxfail = 45;
    EXPECT_EQ(state_after(task, 0, 50), -2); // within all four
    EXPECT_EQ(state_after(task, 0, 60), -1); // within all but minfail
    EXPECT_EQ(state_after(task, 0, 61), 2);  // within both upper ones
    task.maxfail = 100;
    EXPECT_EQ(state_after(task, 0, 60), -1); // both warnings
    EXPECT_EQ(state_after(task, 0, 61), 1);
    task.minwarn = 20; // below minfail
    EXPECT_EQ(state_after(task, 0, 20), -2);
}

TEST(ThresholdAnalyzer, KeepsExtremeNumbersInOrder) {
    Task task = temperature_like();
    task.minfail = LOWEST;
    task.minwarn = LOWEST;
    task.maxwarn = HIGHEST;
    task.maxfail = HIGHEST;
    task.hysteresis = 0;
    EXPECT_EQ(state_after(task, 0, LOWEST), -2);
    EXPECT_EQ(state_after(task, 0, LOWEST + 1), 0);
    EXPECT_EQ(state_after(task, 0, HIGHEST), 2);
    EXPECT_EQ(state_after(task, 0, HIGHEST - 1), 0);
    task.hysteresis = HIGHEST; // -2^31 + (2^31 - 1) = -1 and (2^31 - 1) - (2^31 - 1) = 0
    EXPECT_EQ(state_after(task, -2, -1), -2);
    EXPECT_EQ(state_after(task, -2, 0), 0);
    EXPECT_EQ(state_after(task, 2, 0), 2);
    EXPECT_EQ(state_after(task, 2, -1), 0);
    task.hysteresis = LOWEST; // moves the limits out of reach: -2^32 and 2^32 - 1
    EXPECT_EQ(state_after(task, -2, LOWEST), 0);
    EXPECT_EQ(state_after(task, 2, HIGHEST), 0);
    task.minfail = task.minwarn = HIGHEST; // 2^32 - 2 holds every value
    task.hysteresis = HIGHEST;
    EXPECT_EQ(state_after(task, -2, HIGHEST), -2);
    EXPECT_EQ(state_after(task, -1, HIGHEST), -2);
}

TEST(ThresholdAnalyzer, CountsARiseAndItsReturn) {
    expect_samples(threshold_analyzer, with_delay(temperature_like(), 2),
                   {
                       {80, 0, {0, 0, 0, 1, 1}, 0}, // a failure counts for the warning too
                       {80, 2, {0, 0, 0, 0, 0}, 1},
                       {80, 2, {0, 0, 0, 1, 1}, 0},
                       {80, 2, {0, 0, 0, 0, 0}, 0}, // reached again without a change
                       {75, 2, {0, 0, 0, 1, 1}, 0}, // 80 - 5 is still a failure
                       {74, 1, {0, 0, 0, 0, 0}, 1}, // one less is a warning, the second in a row
                       {65, 1, {0, 0, 0, 1, 0}, 0},
                       {64, 1, {0, 0, 1, 0, 0}, 0},
                       {65, 1, {0, 0, 0, 1, 0}, 0},
                       {64, 1, {0, 0, 1, 0, 0}, 0},
                       {64, 0, {0, 0, 0, 0, 0}, 1},
                       {69, 0, {0, 0, 1, 0, 0}, 0},
                       {69, 0, {0, 0, 0, 0, 0}, 0},
                   });
}

TEST(ThresholdAnalyzer, CountsAFallAndItsReturn) {
    expect_samples(threshold_analyzer, with_delay(temperature_like(), 2),
                   {
                       {-40, 0, {1, 1, 0, 0, 0}, 0},
                       {-40, -2, {0, 0, 0, 0, 0}, 1},
                       {-35, -2, {1, 1, 0, 0, 0}, 0},
                       {-34, -1, {0, 0, 0, 0, 0}, 1},
                       {-25, -1, {0, 1, 0, 0, 0}, 0},
                       {-24, -1, {0, 0, 1, 0, 0}, 0},
                       {-24, 0, {0, 0, 0, 0, 0}, 1},
                       {-30, 0, {0, 1, 0, 0, 0}, 0},
                       {-40, 0, {1, 2, 0, 0, 0}, 0}, // the failure row reads only its own counter
                       {-40, -2, {0, 0, 0, 0, 0}, 1},
                   });
}

TEST(ThresholdAnalyzer, NeedsFiveSamplesWithTheUsualTemperatureDelay) {
    expect_samples(threshold_analyzer, with_delay(temperature_like(), 5),
                   {
                       {72, 0, {0, 0, 0, 1, 0}, 0},
                       {72, 0, {0, 0, 0, 2, 0}, 0},
                       {72, 0, {0, 0, 0, 3, 0}, 0},
                       {72, 0, {0, 0, 0, 4, 0}, 0},
                       {72, 1, {0, 0, 0, 0, 0}, 1},
                       {80, 1, {0, 0, 0, 1, 1}, 0},
                       {64, 1, {0, 0, 1, 0, 0}, 0},
                       {64, 1, {0, 0, 2, 0, 0}, 0},
                       {64, 1, {0, 0, 3, 0, 0}, 0},
                       {64, 1, {0, 0, 4, 0, 0}, 0},
                       {64, 0, {0, 0, 0, 0, 0}, 1},
                   });
}

TEST(ThresholdAnalyzer, CountsFailuresTowardsTheWarning) {
    expect_samples(threshold_analyzer, with_delay(temperature_like(), 3),
                   {
                       {80, 0, {0, 0, 0, 1, 1}, 0},
                       {80, 0, {0, 0, 0, 2, 2}, 0},
                       {79, 1, {0, 0, 0, 0, 0}, 1}, // the third at or above the warning limit
                   });
    expect_samples(threshold_analyzer, with_delay(temperature_like(), 3),
                   {
                       {72, 0, {0, 0, 0, 1, 0}, 0},
                       {72, 0, {0, 0, 0, 2, 0}, 0},
                       {80, 0, {0, 0, 0, 3, 1}, 0}, // the failure row does not read the warning's three
                       {72, 1, {0, 0, 0, 0, 0}, 1}, // 4 >= 3
                   });
}

TEST(ThresholdAnalyzer, NeverActsOnAlternatingSamples) {
    Task task = with_delay(temperature_like(), 2);
    for (int i = 0; i < 1000; ++i) {
        task.value = i % 2 == 0 ? 72 : 20;
        threshold_analyzer(&task);
        ASSERT_EQ(int{task.state}, 0);
        ASSERT_EQ(counters_of(task), (i % 2 == 0 ? Counters{0, 0, 0, 1, 0} : Counters{0, 0, 1, 0, 0}));
        ASSERT_EQ(task.do_notify + task.do_log, 0);
    }
}

struct RowCase {
    std::int32_t value;
    Counters after;
};

TEST(ThresholdAnalyzer, ResetsTheCountersOfTheOtherClasses) {
    const std::array rows{
        RowCase{-40, {8, 8, 0, 0, 0}}, RowCase{-30, {0, 8, 0, 0, 0}}, RowCase{80, {0, 0, 0, 8, 8}},
        RowCase{70, {0, 0, 0, 8, 0}},  RowCase{0, {0, 0, 8, 0, 0}},
    };
    for (const RowCase &row : rows) {
        Task task = with_delay(temperature_like(), 100);
        preset_counters(task, 7);
        expect_samples(threshold_analyzer, task, {{row.value, 0, row.after, 0}});
    }
}

TEST(ThresholdAnalyzer, WrapsItsCountersFrom255To0) {
    for (const std::int32_t value : {-40, -30, 80, 70, 0}) {
        Task task = with_delay(temperature_like(), 300);
        preset_counters(task, 255);
        expect_samples(threshold_analyzer, task, {{value, 0, {0, 0, 0, 0, 0}, 0}});
    }
}

TEST(ThresholdAnalyzer, ResetsTheCountersOfItsRowOnReaching) {
    // The failure row also resets the warning's count.
    Task task = with_delay(temperature_like(), 8);
    preset_counters(task, 7);
    expect_samples(threshold_analyzer, task, {{-40, -2, {0, 0, 0, 0, 0}, 1}});
    expect_samples(threshold_analyzer, task, {{-30, -1, {0, 0, 0, 0, 0}, 1}});
    expect_samples(threshold_analyzer, task, {{80, 2, {0, 0, 0, 0, 0}, 1}});
    expect_samples(threshold_analyzer, task, {{70, 1, {0, 0, 0, 0, 0}, 1}});
    task.state = 1;
    expect_samples(threshold_analyzer, task, {{0, 0, {0, 0, 0, 0, 0}, 1}});
}

TEST(ThresholdAnalyzer, ActsOnTheFirstSampleWithoutDelayOrWithOneBelowTwo) {
    for (const std::int32_t delay : {1, 0, -1, LOWEST}) {
        expect_samples(threshold_analyzer, with_delay(temperature_like(), delay),
                       {{70, 1, {0, 0, 0, 0, 0}, 1}, {64, 0, {0, 0, 0, 0, 0}, 1}, {-40, -2, {0, 0, 0, 0, 0}, 1}});
    }
    Task undelayed = with_delay(temperature_like(), 10);
    undelayed.flags &= ~std::uint32_t{TASK_HAS_DELAY};
    expect_samples(threshold_analyzer, undelayed,
                   {{70, 1, {0, 0, 0, 0, 0}, 1}, {64, 0, {0, 0, 0, 0, 0}, 1}, {-40, -2, {0, 0, 0, 0, 0}, 1}});
}

TEST(ThresholdAnalyzer, ReachesADelayOf255ButNeverOneOf256) {
    Task task = with_delay(temperature_like(), 255);
    task.value = 72;
    for (int i = 1; i <= 254; ++i) {
        threshold_analyzer(&task);
        ASSERT_EQ(int{task.state}, 0) << i;
    }
    threshold_analyzer(&task);
    EXPECT_EQ(int{task.state}, 1);

    task = with_delay(temperature_like(), 256);
    task.value = 72;
    for (int i = 1; i <= 600; ++i) {
        threshold_analyzer(&task);
        ASSERT_EQ(int{task.state}, 0) << i;
        ASSERT_EQ(int{task.counter_maxwarn}, i % 256);
    }
}

TEST(ThresholdAnalyzer, CountsOkSamplesOnlyForTasksWithOneOfTheLowestFlags) {
    for (const std::uint32_t bit : {0x1U, 0x2U, 0x4U, 0x8U}) {
        Task task = with_delay(temperature_like(), 2);
        task.flags = (task.flags & ~0xFU) | bit;
        task.state = 1;
        expect_samples(threshold_analyzer, task, {{0, 1, {0, 0, 1, 0, 0}, 0}, {0, 0, {0, 0, 0, 0, 0}, 1}});
    }
}

TEST(ThresholdAnalyzer, LeavesATaskWithoutTheLowestFlagsInItsState) {
    Task task = with_delay(temperature_like(), 1);
    task.flags &= ~0xFU;
    task.state = 1;
    expect_samples(threshold_analyzer, task, std::vector<Sample>(300, {0, 1, {0, 0, 0, 0, 0}, 0}));
    task.counter_ok = 7;
    task.delay = 8;
    expect_samples(threshold_analyzer, task, {{0, 1, {0, 0, 7, 0, 0}, 0}}); // neither counted nor reset
    task.delay = 0;
    expect_samples(threshold_analyzer, task, {{0, 0, {0, 0, 0, 0, 0}, 1}}); // 7 >= 0
}

TEST(ThresholdAnalyzer, ChangesNothingOnAnInvalidValue) {
    Task task = with_delay(temperature_like(), 1);
    preset_counters(task, 7);
    task.state = -1;
    task.flags &= ~std::uint32_t{TASK_VALUE_VALID};
    expect_samples(threshold_analyzer, task, {{100, -1, {7, 7, 7, 7, 7}, 0}, {-100, -1, {7, 7, 7, 7, 7}, 0}});
}

} // namespace
