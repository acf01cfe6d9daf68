// Random samples against a model that keeps the history of the samples instead of counters.

#include "analyzer.h"

#include "captured_traces.h"
#include "samples.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <random>

namespace {

constexpr int ROUNDS = 40;
constexpr int SAMPLES = 700; // an 8-bit counter wraps more than twice

unsigned seed() {
    static const unsigned value = [] {
        const char *given = std::getenv("VIGMOND_TEST_SEED");
        const unsigned chosen =
            given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device{}();
        std::cout << "seed " << chosen << ", to be repeated with VIGMOND_TEST_SEED=" << chosen << '\n';
        return chosen;
    }();
    return value;
}

class Dice {
  public:
    explicit Dice(unsigned round) : engine_(seed() + round) {}
    std::int32_t between(std::int32_t low, std::int32_t high) {
        return std::uniform_int_distribution<std::int32_t>(low, high)(engine_);
    }
    bool once_in(int times) { return between(1, times) == 1; }
    template <typename T, std::size_t N> T one_of(const T (&choices)[N]) {
        return choices[static_cast<std::size_t>(between(0, static_cast<std::int32_t>(N) - 1))];
    }

  private:
    std::mt19937 engine_;
};

/// The class of a value: the limits that it violates in a given state.
int class_of(const Task &task, int state) {
    const bool moved = task_has(&task, TASK_HAS_HYSTERESIS);
    const auto violates = [&](std::uint32_t flag, std::int64_t limit, int side, bool held) {
        const std::int64_t slack = moved && held ? task.hysteresis : 0;
        return task_has(&task, flag) && side * (task.value - limit) + slack >= 0;
    };
    if (violates(TASK_HAS_MINFAIL, task.minfail, -1, state == -2)) {
        return -2;
    }
    if (violates(TASK_HAS_MINWARN, task.minwarn, -1, state <= -1)) {
        return -1;
    }
    if (violates(TASK_HAS_MAXFAIL, task.maxfail, 1, state == 2)) {
        return 2;
    }
    return violates(TASK_HAS_MAXWARN, task.maxwarn, 1, state >= 1) ? 1 : 0;
}

/// Whether a sample of class `seen` counts towards a change to class `wanted`.
bool supports(int seen, int wanted) { return seen == wanted || (wanted % 2 != 0 && seen == 2 * wanted); }

/// How many of the latest samples count towards `wanted`.
int support_for(const std::vector<int> &classes, int wanted) {
    const auto end = std::find_if(classes.rbegin(), classes.rend(), [&](int seen) { return !supports(seen, wanted); });
    return static_cast<int>(end - classes.rbegin());
}

int samples_needed(const Task &task) { return task_has(&task, TASK_HAS_DELAY) ? std::max(task.delay, 1) : 1; }

/// Whether an 8-bit count of the samples reaches the delay.
bool enough(const Task &task, int count) { return !task_has(&task, TASK_HAS_DELAY) || count % 256 >= task.delay; }

/// What the threshold analyzer should do, from the classes seen since a delay was last reached.
class Model {
  public:
    int next(const Task &task, int state) {
        const int seen = class_of(task, state);
        classes_.push_back(seen);
        const bool counts = seen != 0 || (task.flags & 0xFU) != 0;
        if (!enough(task, counts ? support_for(classes_, seen) : 0)) {
            return state;
        }
        classes_.clear();
        return seen;
    }

  private:
    std::vector<int> classes_;
};

Task random_task(Dice &dice) {
    constexpr std::int32_t delays[]{-1, 0, 1, 2, 3, 5, 10, 200, 255, 256, 1000};
    constexpr std::int32_t hystereses[]{0, 1, 5, 30, -5, HIGHEST, LOWEST};
    Task task = sample_task();
    task.flags = static_cast<std::uint32_t>(dice.between(0, 15));
    for (const std::uint32_t flag : {TASK_HAS_MINFAIL, TASK_HAS_MINWARN, TASK_HAS_MAXWARN, TASK_HAS_MAXFAIL,
                                     TASK_HAS_HYSTERESIS, TASK_HAS_DELAY}) {
        task.flags |= dice.once_in(6) ? 0U : flag;
    }
    task.minfail = dice.between(-50, -20);
    task.minwarn = dice.between(-40, 0);
    task.maxwarn = dice.between(0, 40);
    task.maxfail = dice.between(20, 50);
    if (dice.once_in(8)) {
        task.minfail = task.minwarn = LOWEST;
        task.maxwarn = task.maxfail = HIGHEST;
    }
    task.delay = dice.one_of(delays);
    task.hysteresis = dice.one_of(hystereses);
    return task;
}

/// Stays constant for a while, then jumps.
std::int32_t random_value(Dice &dice, const Task &task) {
    constexpr std::int32_t extremes[]{LOWEST, LOWEST + 1, -1, 0, 1, HIGHEST - 1, HIGHEST};
    if (dice.once_in(50)) {
        return dice.one_of(extremes);
    }
    return dice.once_in(dice.once_in(3) ? 3 : 60) ? dice.between(-60, 60) : task.value;
}

void take_sample(Dice &dice, Task &task, std::int32_t value) {
    task.value = value;
    task.do_notify = task.do_log = 0;
    const std::uint32_t valid = dice.once_in(10) ? 0U : std::uint32_t{TASK_VALUE_VALID};
    task.flags = (task.flags & ~std::uint32_t{TASK_VALUE_VALID}) | valid;
}

void expect_marks_of_change(const Task &task, int before) {
    EXPECT_EQ(int{task.do_notify}, task.state != before ? 1 : 0);
    EXPECT_EQ(int{task.do_log}, task.state != before ? 1 : 0);
}

TEST(AnalyzerProperty, ThresholdFollowsTheModelAndItsInvariants) {
    for (unsigned round = 0; round < ROUNDS && !testing::Test::HasFailure(); ++round) {
        SCOPED_TRACE("seed " + std::to_string(seed()) + " round " + std::to_string(round));
        const CapturedTraces forgotten;
        Dice dice(round);
        Task task = random_task(dice);
        Model model;
        std::vector<int> seen;
        for (int i = 0; i < SAMPLES && !testing::Test::HasFailure(); ++i) {
            take_sample(dice, task, random_value(dice, task));
            const int before = int{task.state};
            const Task untouched = task;
            (dice.once_in(2) ? threshold_analyzer : common_analyzer)(&task);
            expect_marks_of_change(task, before);
            if (!task_has(&task, TASK_VALUE_VALID)) {
                EXPECT_EQ(int{task.state}, before);
                EXPECT_EQ(counters_of(task), counters_of(untouched));
                continue;
            }
            seen.push_back(class_of(untouched, before));
            EXPECT_EQ(int{task.state}, model.next(untouched, before)) << "sample " << i;
            if (task.state != before) {
                EXPECT_GE(support_for(seen, task.state), samples_needed(task)) << "sample " << i;
                EXPECT_EQ(int{task.state}, seen.back());
            }
        }
    }
}

TEST(AnalyzerProperty, BoolFollowsAfterTheDelayOnly) {
    for (unsigned round = 0; round < ROUNDS && !testing::Test::HasFailure(); ++round) {
        SCOPED_TRACE("seed " + std::to_string(seed()) + " round " + std::to_string(round));
        const CapturedTraces forgotten;
        Dice dice(round);
        Task task = random_task(dice);
        task.value = 0;
        std::vector<int> seen;
        for (int i = 0; i < SAMPLES && !testing::Test::HasFailure(); ++i) {
            const std::int32_t turned = dice.once_in(40) ? 1 - task.value : task.value;
            const std::int32_t value = dice.once_in(20) ? dice.between(2, 9) : turned;
            const int before = int{task.state};
            take_sample(dice, task, value);
            bool_analyzer(&task);
            task.value = turned;
            expect_marks_of_change(task, before);
            if (!task_has(&task, TASK_VALUE_VALID) || value > 1) {
                EXPECT_EQ(int{task.state}, before);
                continue;
            }
            seen.push_back(2 * value);
            const int count = support_for(seen, seen.back());
            EXPECT_EQ(int{value == 1 ? task.counter_maxfail : task.counter_ok}, count % 256);
            const bool follows = enough(task, count);
            EXPECT_EQ(int{task.state}, follows ? seen.back() : before) << "sample " << i;
        }
    }
}

} // namespace
