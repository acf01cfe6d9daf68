#include "builtin/load.h"

#include "builtin.h"
#include "captured_traces.h"
#include "in_child.h"
#include "redirected_open.h"
#include "sample_task.h"
#include "scratch_folder.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <string>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr std::int32_t WARNING = 31;
constexpr std::int32_t FAILURE = 32;

// --- the line of all CPUs

struct Parsed {
    bool usable;
    CpuCounters counters;
};

Parsed parse(std::string line) {
    Parsed parsed{false, {.user = 11, .system = 22, .idle = 33}};
    parsed.usable = load_parse_line(line.data(), &parsed.counters);
    return parsed;
}

void expect_counters(const CpuCounters &counters, std::int32_t user, std::int32_t system, std::int32_t idle) {
    EXPECT_EQ(counters.user, user);
    EXPECT_EQ(counters.system, system);
    EXPECT_EQ(counters.idle, idle);
}

TEST(LoadParseLine, TakesUserSystemAndIdleAndIgnoresNiceAndTheLaterOnes) {
    const Parsed parsed = parse("cpu  10132153 290696 3084719 46828483 16683 0 25195 0 175628 0\n");
    EXPECT_TRUE(parsed.usable);
    expect_counters(parsed.counters, 10132153, 3084719, 46828483);
}

TEST(LoadParseLine, NeedsFiveWords) {
    for (const char *line : {"", "\n", "cpu\n", "cpu 1 2 3\n", "   \t \n"}) {
        EXPECT_FALSE(parse(line).usable) << line;
    }
    const Parsed parsed = parse("cpu 1 2 3 4");
    EXPECT_TRUE(parsed.usable);
    expect_counters(parsed.counters, 1, 3, 4);
}

TEST(LoadParseLine, IgnoresTheLabel) {
    const Parsed parsed = parse("intr 1 2 3 4\n");
    EXPECT_TRUE(parsed.usable);
    expect_counters(parsed.counters, 1, 3, 4);
}

TEST(LoadParseLine, TruncatesNumbersModuloTwoTo32) {
    struct Case {
        const char *word;
        std::int32_t ticks;
    };
    for (const Case &given :
         {Case{"2147483647", INT32_MAX}, Case{"2147483648", INT32_MIN}, Case{"4294967295", -1}, Case{"4294967296", 0},
          Case{"4294967301", 5}, Case{"-1", -1}, Case{"1.9", 1}, Case{"-1.9", -1}, Case{"1e3", 1000}, Case{"12x", 12},
          Case{"x", 0}, Case{"9007199254740992", 0}, // 2^53
          Case{"-2147483648", INT32_MIN}}) {
        const Parsed parsed = parse(std::string("cpu ") + given.word + " 0 " + given.word + " " + given.word + "\n");
        EXPECT_TRUE(parsed.usable) << given.word;
        expect_counters(parsed.counters, given.ticks, given.ticks, given.ticks);
    }
}

TEST(LoadParseLine, RejectsWhatIsNotACount) {
    for (const std::string word : {"inf", "-inf", "nan", "1e300", "-1e300", "9007199254740994"}) {
        EXPECT_FALSE(parse("cpu " + word + " 0 1 1\n").usable) << word;
        EXPECT_FALSE(parse("cpu 1 0 " + word + " 1\n").usable) << word;
        EXPECT_FALSE(parse("cpu 1 0 1 " + word + "\n").usable) << word;
        EXPECT_TRUE(parse("cpu 1 " + word + " 1 1\n").usable) << word;   // nice
        EXPECT_TRUE(parse("cpu 1 0 1 1 " + word + "\n").usable) << word; // iowait
    }
}

// --- the load between two readings

struct Interval {
    CpuCounters before;
    CpuCounters now;
    CpuLoad load;
};

class LoadBetweenTest : public testing::TestWithParam<Interval> {};

TEST_P(LoadBetweenTest, FollowsTheFormula) {
    CpuLoad load{};
    EXPECT_TRUE(load_between(GetParam().before, GetParam().now, &load));
    EXPECT_EQ(load.user, GetParam().load.user);
    EXPECT_EQ(load.system, GetParam().load.system);
    EXPECT_EQ(load.idle, GetParam().load.idle);
    EXPECT_EQ(load.load, GetParam().load.load);
}

INSTANTIATE_TEST_SUITE_P(Plain, LoadBetweenTest,
                         testing::Values(Interval{{0, 0, 0}, {20, 10, 70}, {20, 10, 70, 30}},
                                         Interval{{5, 6, 7}, {5, 6, 107}, {0, 0, 100, 0}},
                                         Interval{{5, 6, 7}, {105, 6, 7}, {100, 0, 0, 100}},
                                         // of 300: 100/3 = 33, 33, and 99/3 = 33; the load is 100 - 33
                                         Interval{{0, 0, 0}, {100, 100, 100}, {33, 33, 33, 67}},
                                         // of 1000: 0.9, 0 and 99.1 percent; the load is not the sum of user and system
                                         Interval{{0, 0, 0}, {9, 0, 991}, {0, 0, 99, 1}}));

INSTANTIATE_TEST_SUITE_P(PastTheRange, LoadBetweenTest,
                         testing::Values(
                             // idle from 2^31 - 50 to 2^31 + 47, modulo 2^32
                             Interval{{0, 0, 2147483598}, {3, 0, -2147483601}, {3, 0, 97, 3}},
                             // idle from 2^32 - 50 to 2^32 + 47
                             Interval{{0, 0, -50}, {2, 1, 47}, {2, 1, 97, 3}},
                             // 100 * 30,000,000 does not fit 32 bits; a third is idle
                             Interval{{0, 0, 0}, {30000000, 30000000, 30000000}, {33, 33, 33, 67}}));

INSTANTIATE_TEST_SUITE_P(Backwards, LoadBetweenTest,
                         testing::Values(
                             // -3, 0 and 103 of 100: more idle than there was time
                             Interval{{10, 0, 0}, {7, 0, 103}, {-3, 0, 103, -3}},
                             // 150, 0 and -50 of 100
                             Interval{{0, 0, 60}, {150, 0, 10}, {150, 0, -50, 150}},
                             // -1 of 200: -0.5 percent truncated towards zero; 201 of 200 is 100.5
                             Interval{{1, 0, 0}, {0, 0, 201}, {0, 0, 100, 0}},
                             // 1 - 2^31 of 100: 100 + 2^31 - 1 wraps
                             Interval{{0, 0, 0},
                                      {INT32_MAX, 100, -INT32_MAX},
                                      {INT32_MAX, 100, -INT32_MAX, 100U + INT32_MAX - 4294967296}}));

TEST(LoadBetween, NeedsAHundredTicks) {
    for (const CpuCounters &now : {CpuCounters{0, 0, 0}, CpuCounters{33, 33, 33}, CpuCounters{0, 0, 99},
                                   CpuCounters{-100, 0, 0}, CpuCounters{INT32_MIN, INT32_MIN, INT32_MIN}}) {
        CpuLoad load{.user = 1, .system = 2, .idle = 3, .load = 4};
        EXPECT_FALSE(load_between({0, 0, 0}, now, &load));
        EXPECT_EQ(load.load, 4);
    }
    CpuLoad load{};
    EXPECT_TRUE(load_between({0, 0, 0}, {33, 33, 34}, &load));
    EXPECT_EQ(load.load, 66);
}

// --- the probe; its state lasts as long as the process, so each test forks

class LoadTest : public testing::Test {
  protected:
    void show(const std::string &line) { open.redirect("/proc/stat", folder.write("stat", line)); }
    void show(int user, int system, int idle) {
        show("cpu " + std::to_string(user) + " 1000 " + std::to_string(system) + " " + std::to_string(idle) +
             " 5000 0 0\ncpu0 1 1 1 1\n");
    }

    static Task load_task(std::int32_t id) {
        Task task = sample_task();
        task.id = id;
        task.value = 77;
        task.flags = TASK_RUNNABLE;
        return task;
    }

    static void expect_load(Task *task, std::int32_t load) {
        task->flags &= ~std::uint32_t{TASK_VALUE_VALID};
        EXPECT_EQ(load_exec(task), 0);
        EXPECT_EQ(task->value, load);
        EXPECT_EQ(task->error, 0);
        EXPECT_TRUE(task_has(task, TASK_VALUE_VALID));
    }

    ScratchFolder folder;
    RedirectedOpen open;
};

TEST_F(LoadTest, InitMarksTheTaskAndTouchesNoOtherFlag) {
    in_child([&] {
        show(0, 0, 0);
        for (const std::uint32_t flags : {0U, 1U, 2U, 0xffffffffU}) {
            Task task = load_task(WARNING);
            task.flags = flags;
            EXPECT_EQ(load_init(&task), 0);
            EXPECT_EQ(task.flags, (flags & ~2U) | 1U);
        }
    });
}

TEST_F(LoadTest, TakesTheFirstReadingInTheFirstInitOnly) {
    in_child([&] {
        Task task = load_task(WARNING);
        show(1000, 1000, 1000);
        load_init(&task);
        EXPECT_EQ(open.count(), 1);
        show(5000, 5000, 5000);
        load_init(&task);
        EXPECT_EQ(open.count(), 1);
        show(1010, 1020, 1070);
        expect_load(&task, 30);
    });
}

TEST_F(LoadTest, AnUnreadableFirstReadingCountsFromZero) {
    in_child([&] {
        Task task = load_task(WARNING);
        open.fail(ENOENT);
        EXPECT_EQ(load_init(&task), 0);
    });
    in_child([&] {
        Task task = load_task(WARNING);
        show("cpu\n");
        EXPECT_EQ(load_init(&task), 0);
        show(33, 33, 34); // one tick less would be too few
        expect_load(&task, 66);
    });
}

TEST_F(LoadTest, MeasuresFromReadingToReading) {
    in_child([&] {
        Task task = load_task(WARNING);
        show(0, 0, 0);
        load_init(&task);
        show(20, 10, 70);
        expect_load(&task, 30);
        show(110, 20, 70); // 90 and 10 of 100
        expect_load(&task, 100);
        show(110, 20, 270);
        expect_load(&task, 0);
    });
}

TEST_F(LoadTest, IgnoresNiceAndIowait) {
    in_child([&] {
        Task task = load_task(WARNING);
        show("cpu 0 0 0 0 0\n");
        load_init(&task);
        show("cpu 10 9000 10 80 9000\n");
        expect_load(&task, 20);
    });
}

TEST_F(LoadTest, RepeatsTheLastLoadUntil100TicksHavePassedAndKeepsTheReading) {
    in_child([&] {
        Task task = load_task(WARNING);
        show(0, 0, 0);
        load_init(&task);
        show(99, 0, 0);
        expect_load(&task, 0); // none measured yet
        show(60, 0, 40);
        expect_load(&task, 60);
        show(110, 0, 40);
        expect_load(&task, 60); // 50 ticks later
        show(159, 0, 40);
        expect_load(&task, 60); // 99 since the last reading that was kept
        show(159, 0, 41);
        expect_load(&task, 99); // 100, 1 of them idle
    });
}

TEST_F(LoadTest, TheSecondTaskOfAPassRepeatsTheLoadOfTheFirst) {
    in_child([&] {
        Task warning = load_task(WARNING);
        Task failure = load_task(FAILURE);
        show(0, 0, 0);
        load_init(&warning);
        load_init(&failure);
        show(80, 10, 10);
        expect_load(&warning, 90);
        expect_load(&failure, 90);
        show(80, 10, 110);
        expect_load(&failure, 0); // measured from the reading of the other
        expect_load(&warning, 0);
    });
}

TEST_F(LoadTest, ANegativeLoadIsRoundedTowardsZero) {
    in_child([&] {
        Task task = load_task(WARNING);
        show(10, 0, 0);
        load_init(&task);
        show(7, 0, 103); // 103 % idle: -3 + 0.5 = -2.5
        expect_load(&task, -2);
        show(6, 0, 204); // 101 % idle: -1 + 0.5 = -0.5
        expect_load(&task, 0);
        show(156, 0, 154); // 150 and -50 of 100: 150 stays
        expect_load(&task, 150);
    });
}

TEST_F(LoadTest, KeepsMeasuringWhenIdlePasses32Bits) {
    in_child([&] {
        Task task = load_task(WARNING);
        show("cpu 0 0 0 2147483600\n");
        load_init(&task);
        show("cpu 3 0 0 2147483697\n");
        expect_load(&task, 3);
        show("cpu 3 0 0 4294967290\n"); // only idle; more than 2^31 - 1 ticks would count as negative
        expect_load(&task, 0);
        show("cpu 13 0 0 4294967380\n"); // 10 of 100
        expect_load(&task, 10);
    });
}

TEST_F(LoadTest, TracesARun) {
    in_child([&] {
        Task task = load_task(WARNING);
        show(0, 0, 0);
        load_init(&task);
        show(20, 10, 70);
        const CapturedTraces traces;
        load_exec(&task);
        EXPECT_THAT(traces.texts_of("load_exec"),
                    ElementsAre("CB31", "user:  20.00 system:  10.00 idle:  70.00 -- avg_load:  30.00"));
        EXPECT_EQ(traces.all()[0].code_file, "CODE_FILE=builtin/load.c");
        const CapturedTraces traces_of_second;
        load_exec(&task);
        EXPECT_THAT(traces_of_second.texts_of("load_exec"), ElementsAre("CB31"));
    });
}

/// A run that cannot read keeps the old value, without its valid mark, and the last reading.
void expect_failed_run(Task *task, const char *step) {
    const CapturedTraces traces;
    task->flags |= TASK_VALUE_VALID;
    EXPECT_EQ(load_exec(task), -1);
    EXPECT_EQ(task->error, -1);
    EXPECT_EQ(task->value, 77);
    EXPECT_FALSE(task_has(task, TASK_VALUE_VALID));
    EXPECT_THAT(traces.texts_of("load_read_values"), ElementsAre(step));
    EXPECT_THAT(traces.texts_of("load_exec"), ElementsAre("CB32", "CB32 FAILED!"));
    EXPECT_THAT(traces.all().back().line, StartsWith("(3) "));
}

TEST_F(LoadTest, FailsWithMinusOneWhenTheCountersCannotBeRead) {
    in_child([&] {
        Task task = load_task(FAILURE);
        show(0, 0, 0);
        load_init(&task);
        show("");
        expect_failed_run(&task, "fgets()");
        for (const char *line : {"\n", "cpu 1 2 3\n", "cpu nan 0 0 0\n", "cpu 0 0 inf 0\n", "cpu 0 0 0 1e300\n"}) {
            show(line);
            expect_failed_run(&task, "strsplit()");
        }
        open.redirect("/proc/stat", folder.path()); // opens, but cannot be read
        expect_failed_run(&task, "fgets()");
        open.redirect("/proc/stat", folder / "missing");
        expect_failed_run(&task, "fopen()");
        task.error = 0;
        show(25, 0, 75);
        expect_load(&task, 25);
    });
    for (const int error : {EMFILE, 0}) {
        in_child([&] {
            Task task = load_task(FAILURE);
            open.fail(error);
            expect_failed_run(&task, "fopen()");
        });
    }
}

TEST_F(LoadTest, ReadsAtMost1023CharactersOfTheFirstLine) {
    show(std::string(1010, ' ') + "cpu 1 2 3 456\n"); // 1010 + 13 characters end in "456"
    std::int32_t user = 0;
    std::int32_t system = 0;
    std::int32_t idle = 0;
    EXPECT_EQ(load_read_values(&user, &system, &idle), 0);
    EXPECT_EQ(idle, 456);
    show(std::string(1011, ' ') + "cpu 1 2 3 456\n");
    EXPECT_EQ(load_read_values(&user, &system, &idle), 0);
    EXPECT_EQ(idle, 45);
    show("\ncpu 1 2 3 4\n");
    EXPECT_EQ(load_read_values(&user, &system, &idle), -1);
    EXPECT_EQ(idle, 45); // as it was
}

TEST_F(LoadTest, ReadsTheSystemsOwnCounters) {
    std::int32_t user = 0;
    std::int32_t system = 0;
    std::int32_t idle = 0;
    const CapturedTraces traces;
    EXPECT_EQ(load_read_values(&user, &system, &idle), 0);
    EXPECT_THAT(traces.all(), IsEmpty());
    EXPECT_NE(system, 0);
}

TEST_F(LoadTest, ClearsTheMarkForRestartEvenWhenTheReadFails) {
    in_child([&] {
        Task task = load_task(WARNING);
        show(0, 0, 0);
        load_init(&task);
        task.flags |= TASK_REINIT;
        open.fail(ENOENT);
        load_exec(&task);
        EXPECT_FALSE(task_has(&task, TASK_REINIT));
    });
}

} // namespace
