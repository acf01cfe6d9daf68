#include "scheduler.h"

#include "captured_traces.h"
#include "hang_guard.h"
#include "neighbours.h"
#include "sample_task.h"
#include "signals.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <limits>
#include <pthread.h>
#include <set>

namespace {

using Events = std::vector<std::string>;

void record(const std::string &event) { events().push_back(event); }

constexpr std::int64_t NOON = 1700049600; // of 15 November 2023

/// Operations that record the task's name and fail; the scheduler must ignore that.
Task recording_task(const char *name, std::int32_t interval) {
    Task task = sample_task();
    task.name = name;
    task.source = name;
    task.interval = interval;
    task.exec = [](Task *given) {
        record(std::string(given->name) + " exec");
        return -1;
    };
    task.analyze = {[](Task *given) {
                        record(std::string(given->name) + " analyze");
                        return -1;
                    },
                    "recording"};
    task.notify = {[](Task *given) {
                       record(std::string(given->name) + " notify");
                       return -1;
                   },
                   "recording"};
    task.logging = {[](Task *given) {
                        record(std::string(given->name) + " logging");
                        return -1;
                    },
                    "recording"};
    return task;
}

/// A list of tasks in place of the built-in ones.
class Station {
  public:
    explicit Station(std::vector<Task> given) : tasks(std::move(given)) {
        for (std::size_t i = 1; i < tasks.size(); ++i) {
            tasks[i - 1].next = &tasks[i];
            tasks[i].prev = &tasks[i - 1];
        }
        gdata_set_tasks({.first = tasks.empty() ? nullptr : &tasks.front(),
                         .last = tasks.empty() ? nullptr : &tasks.back(),
                         .count = static_cast<std::int32_t>(tasks.size())});
    }
    ~Station() { gdata_set_tasks({.first = nullptr, .last = nullptr, .count = 0}); }
    Station(const Station &) = delete;
    Station &operator=(const Station &) = delete;

    std::vector<Task> tasks;
};

class SchedulerTest : public testing::Test {
  protected:
    SchedulerTest() { events().clear(); }
};

/// Whether the only task ran in a pass at `now`.
bool runs_at(Station &station, std::int64_t now) {
    events().clear();
    scheduler_pass(now);
    const std::string event = std::string(station.tasks.front().name) + " exec";
    return std::find(events().begin(), events().end(), event) != events().end();
}

// One pass. --------------------------------------------------------------------------------------

TEST_F(SchedulerTest, RunsTheNetworkThenEveryTasksPipelineThenTheAnnouncement) {
    const Station station({recording_task("a", 10), recording_task("b", 60)});
    scheduler_pass(NOON);
    EXPECT_EQ(events(), (Events{"network", "a exec", "a analyze", "a notify", "a logging", "b exec", "b analyze",
                                "b notify", "b logging", "announce " + std::to_string(NOON)}));
}

TEST_F(SchedulerTest, TracesEachStepInItsOrder) {
    Station station({recording_task("a", 10)});
    station.tasks.front().source = "probe";
    const CapturedTraces traces;
    scheduler_pass(1700000007); // 22:13:27
    const std::set<std::string> steps_of_a_pass{"scheduler", "executer", "analyzer",
                                                "notifier",  "logger",   "logfile_run"};
    Events steps;
    for (const CapturedTrace &trace : traces.all()) {
        if (steps_of_a_pass.contains(trace.function)) {
            steps.push_back(trace.function);
        }
    }
    EXPECT_EQ(steps, (Events{"scheduler", "executer", "analyzer", "notifier", "logger", "logfile_run", "scheduler"}));
    EXPECT_EQ(traces.texts_of("scheduler"), (Events{"RUN: at 22:13:27", "probe: next_run: 22:13:30"}));
    EXPECT_TRUE(traces.all().front().line.starts_with("(2) ["));
    EXPECT_TRUE(traces.all().back().line.starts_with("(3) ["));
    EXPECT_EQ(traces.all().front().code_file, "CODE_FILE=scheduler.c");
}

TEST_F(SchedulerTest, WalksWithoutTasks) {
    const Station station({});
    scheduler_pass(NOON);
    EXPECT_EQ(events(), (Events{"network", "announce " + std::to_string(NOON)}));
}

TEST_F(SchedulerTest, ClearsErrorAndValidityBeforeTheProbe) {
    Station station({recording_task("a", 10)});
    Task &task = station.tasks.front();
    task.error = 5;
    task.flags |= TASK_VALUE_VALID | TASK_REINIT;
    task.exec = [](Task *given) {
        record(std::to_string(given->error) + (task_has(given, TASK_VALUE_VALID) ? " valid" : " invalid"));
        given->error = 22;
        return -1;
    };
    task.analyze.run = [](Task *given) {
        record(std::to_string(given->error));
        return 0;
    };
    scheduler_pass(NOON);
    EXPECT_EQ(events()[1], "0 invalid");
    EXPECT_EQ(events()[2], "22");
    EXPECT_EQ(task.error, 22);
    EXPECT_EQ(task.flags, std::uint32_t{TASK_RUNNABLE} | TASK_REINIT); // nothing else changes
}

TEST_F(SchedulerTest, RunsATaskWithNothingBound) {
    Station station({sample_task()});
    station.tasks.front().interval = 10;
    scheduler_pass(NOON);
    EXPECT_EQ(station.tasks.front().next_run, NOON + 10);
}

TEST_F(SchedulerTest, RunsATaskInTheSecondItIsDueAndNotBefore) {
    Station station({recording_task("a", 60)});
    station.tasks.front().next_run = NOON;
    EXPECT_FALSE(runs_at(station, NOON - 1));
    EXPECT_EQ(station.tasks.front().next_run, NOON);
    EXPECT_TRUE(runs_at(station, NOON));
    EXPECT_EQ(station.tasks.front().next_run, NOON + 60);
    EXPECT_FALSE(runs_at(station, NOON + 59));
    EXPECT_TRUE(runs_at(station, NOON + 60));
}

TEST_F(SchedulerTest, LeavesATaskAloneThatIsNotRunnable) {
    Station station({recording_task("a", 10)});
    Task &task = station.tasks.front();
    task.flags = TASK_VALUE_VALID | TASK_HAS_PRECONDITION;
    task.error = 5;
    task.precondition = [](Task *) {
        record("asked");
        return 1;
    };
    scheduler_pass(NOON);
    EXPECT_EQ(events(), (Events{"network", "announce " + std::to_string(NOON)}));
    EXPECT_EQ(task.next_run, 0);
    EXPECT_EQ(task.error, 5);
    EXPECT_TRUE(task_has(&task, TASK_VALUE_VALID));
}

TEST_F(SchedulerTest, AsksARefusedTaskAgainOnEveryBeat) {
    Station station({recording_task("a", 900), recording_task("b", 900)});
    Task &task = station.tasks.front();
    task.flags |= TASK_HAS_PRECONDITION;
    task.next_run = NOON - 7;
    task.error = 5;
    static int answer;
    answer = 0;
    task.precondition = [](Task *) {
        record("asked");
        return answer;
    };
    for (std::int64_t beat = 0; beat < 3; ++beat) {
        events().clear();
        scheduler_pass(NOON + beat * 10);
        EXPECT_EQ(events()[1], "asked");
        EXPECT_FALSE(events()[2].starts_with("a "));
        EXPECT_EQ(task.next_run, NOON - 7);
        EXPECT_EQ(task.error, 5);
        EXPECT_TRUE(task_has(&task, TASK_VALUE_VALID));
    }
    EXPECT_EQ(station.tasks[1].next_run, NOON + 900); // the others continue
    answer = -1;                                      // anything but 0 lets it run
    EXPECT_TRUE(runs_at(station, NOON + 30));
    EXPECT_EQ(task.next_run, NOON + 900);
    events().clear();
    scheduler_pass(NOON + 40); // not due, so not asked
    EXPECT_EQ(events(), (Events{"network", "announce " + std::to_string(NOON + 40)}));
}

TEST_F(SchedulerTest, AsksOnlyTasksThatHaveAPrecondition) {
    Station station({recording_task("a", 10)});
    Task &task = station.tasks.front();
    task.precondition = [](Task *) { return 0; }; // slot without flag
    EXPECT_TRUE(runs_at(station, NOON));
    task.flags |= TASK_HAS_PRECONDITION;
    task.precondition = nullptr; // flag without slot
    EXPECT_TRUE(runs_at(station, NOON + 10));
}

// The next run. ----------------------------------------------------------------------------------

struct NextRun {
    std::int64_t now;
    std::int32_t interval;
    std::int64_t next;
};

class FollowingRun : public SchedulerTest, public testing::WithParamInterface<NextRun> {};

TEST_P(FollowingRun, IsTheNextMultipleOfTheInterval) {
    Station station({recording_task("a", GetParam().interval)});
    station.tasks.front().next_run = std::numeric_limits<std::int64_t>::min();
    EXPECT_TRUE(runs_at(station, GetParam().now));
    EXPECT_EQ(station.tasks.front().next_run, GetParam().next);
}

INSTANTIATE_TEST_SUITE_P(
    Times, FollowingRun,
    testing::Values(NextRun{1700000007, 10, 1700000010}, NextRun{1700000010, 10, 1700000020}, // strictly after now
                    NextRun{1700000007, 900, 1700000100},                                     // 22:13:27 -> 22:15:00
                    NextRun{1700000099, 900, 1700000100}, NextRun{1700000100, 900, 1700001000},
                    NextRun{1700000007, 3600, 1700002800}, // 23:00:00
                    NextRun{1700000007, 1, 1700000008}, NextRun{0, 10, 10},
                    // Past the 32-bit seconds: 2147483647 = 2386092 * 900 + 847 and 4294967296 = 4772185 * 900 + 796.
                    NextRun{2147483647, 900, 2147483700}, NextRun{2147483700, 900, 2147484600},
                    NextRun{4294967296, 900, 4294967400},
                    // An interval beyond 2^31: the product does not fit 32 bits.
                    NextRun{1700000007, 2147483647, 2147483647}, NextRun{2147483647, 2147483647, 4294967294},
                    // The division truncates towards zero, which skips a multiple before the epoch.
                    NextRun{-5, 10, 10}, NextRun{-10, 10, 0}, NextRun{-15, 10, 0},
                    // With interval 0 the task is due again on the next beat.
                    NextRun{1700000007, 0, 1700000007}, NextRun{1700000007, -10, 1700000007},
                    NextRun{1700000007, -2147483647 - 1, 1700000007}));

TEST_F(SchedulerTest, RunsATaskWithoutIntervalOnEveryBeat) {
    for (const std::int32_t interval : {0, -1, -900}) {
        Station station({recording_task("a", interval)});
        for (std::int64_t beat = 0; beat < 5; ++beat) {
            EXPECT_TRUE(runs_at(station, NOON + beat * 10));
        }
    }
}

TEST_F(SchedulerTest, PausesUntilTheNextRunWhenTheClockIsSetBack) {
    Station station({recording_task("a", 900)});
    EXPECT_TRUE(runs_at(station, NOON + 3600));
    EXPECT_FALSE(runs_at(station, NOON));
    EXPECT_FALSE(runs_at(station, NOON + 3600 + 899));
    EXPECT_TRUE(runs_at(station, NOON + 3600 + 900));
}

TEST_F(SchedulerTest, RunsOnceWhenTheClockIsSetForward) {
    Station station({recording_task("a", 900)});
    EXPECT_TRUE(runs_at(station, NOON));
    EXPECT_TRUE(runs_at(station, NOON + 86400 + 7));
    EXPECT_FALSE(runs_at(station, NOON + 86400 + 17));
    EXPECT_EQ(station.tasks.front().next_run, NOON + 86400 + 900);
}

TEST_F(SchedulerTest, RunsAQuarterHourlyTaskForAMonth) {
    constexpr std::int64_t month = 30 * std::int64_t{86400};
    constexpr std::int64_t start = NOON + 7; // seven seconds after a quarter
    Station station({recording_task("a", 900)});
    int runs = 0;
    for (std::int64_t now = start; now < start + month; now += 120) {
        const CapturedTraces forgotten;
        runs += runs_at(station, now) ? 1 : 0;
    }
    // One run at once, then one for each of the following 30 * 96 quarters except the last: that is start + month - 7,
    // after the last pass at start + month - 120.
    EXPECT_EQ(runs, 1 + 30 * 96 - 1);
}

// Signals. ---------------------------------------------------------------------------------------

/// All seven blocked as in the daemon; SIGUSR1 records when it is handled.
class SignalledPass : public SchedulerTest {
  public:
    SignalledPass() {
        const sigset_t all = signals_all();
        pthread_sigmask(SIG_BLOCK, &all, &mask_before_);
        struct sigaction action {};
        action.sa_handler = [](int) { record("reinit"); };
        sigaction(SIGUSR1, &action, nullptr);
    }
    ~SignalledPass() override {
        struct sigaction action {};
        action.sa_handler = SIG_DFL;
        sigaction(SIGUSR1, &action, nullptr);
        pthread_sigmask(SIG_SETMASK, &mask_before_, nullptr);
    }
    SignalledPass(const SignalledPass &) = delete;
    SignalledPass &operator=(const SignalledPass &) = delete;

  private:
    sigset_t mask_before_{};
    HangGuard guard_;
};

Task signalling_task(const char *name, std::int32_t interval) {
    Task task = recording_task(name, interval);
    task.exec = [](Task *given) {
        record(std::string(given->name) + " exec");
        raise(SIGUSR1);
        return 0;
    };
    return task;
}

TEST_F(SignalledPass, TakesASignalBetweenTwoTasks) {
    const Station station({signalling_task("a", 10), recording_task("b", 10)});
    scheduler_pass(NOON);
    EXPECT_EQ(events(), (Events{"network", "a exec", "a analyze", "a notify", "a logging", "reinit", "b exec",
                                "b analyze", "b notify", "b logging", "announce " + std::to_string(NOON)}));
}

TEST_F(SignalledPass, TakesASignalOfTheLastTaskBeforeThePassEnds) {
    const Station station({signalling_task("a", 10)});
    scheduler_pass(NOON);
    EXPECT_EQ(events(), (Events{"network", "a exec", "a analyze", "a notify", "a logging",
                                "announce " + std::to_string(NOON), "reinit"}));
}

TEST_F(SignalledPass, TakesASignalEvenIfNoTaskIsDue) {
    Station station({recording_task("a", 10)});
    station.tasks.front().next_run = NOON + 1;
    raise(SIGUSR1);
    scheduler_pass(NOON);
    EXPECT_EQ(events(), (Events{"network", "announce " + std::to_string(NOON), "reinit"}));
}

} // namespace
