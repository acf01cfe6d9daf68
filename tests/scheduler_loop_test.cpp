// The endless loop with simulated time: a beat each second, passes as long as the test says, signals at given
// milliseconds. The result is the times of the passes.

#include "scheduler.h"

#include "captured_traces.h"
#include "hang_guard.h"
#include "neighbours.h"
#include "sample_task.h"
#include "signals.h"
#include "system_calls.h"
#include "timer.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

namespace {

constexpr std::int64_t BEAT = 1000;
constexpr std::int64_t NOON = 1700049600; // of 15 November 2023

struct Script {
    const char *name = "";
    std::vector<std::int64_t> durations; ///< of the passes; the last one is repeated
    std::vector<std::int64_t> reinits;   ///< when SIGUSR1 comes
    bool beat_during_start_up = false;
    const char *outcome = "";
};

struct World {
    Script script;
    std::int64_t now = 0; ///< milliseconds
    std::size_t passes = 0;
    std::string report{};
};

World &world() {
    static auto &only = *new World; // still in use when the process exits
    return only;
}

std::int64_t next_event_after(std::int64_t then) {
    std::int64_t next = (then / BEAT + 1) * BEAT;
    for (const std::int64_t reinit : world().script.reinits) {
        next = reinit > then ? std::min(next, reinit) : next;
    }
    return next;
}

/// Advances the time and raises the signals that become due.
void advance(std::int64_t until) {
    World &w = world();
    for (std::int64_t event = next_event_after(w.now); event <= until; event = next_event_after(event)) {
        w.now = event;
        raise(event % BEAT == 0 ? SIGALRM : SIGUSR1);
    }
    w.now = until;
}

void wait_for_a_signal(int /*number*/) {
    sigset_t pending;
    sigpending(&pending);
    if (sigisemptyset(&pending) != 0) {
        advance(next_event_after(world().now));
    }
}

void report(const std::string &what) { world().report += what + std::to_string(world().now) + " "; }

int run_one_pass(Task * /*task*/) {
    World &w = world();
    report("pass ");
    if (w.passes == 3) {
        std::fprintf(stderr, "%s\n", w.report.c_str());
        _exit(0);
    }
    advance(w.now + w.script.durations[std::min(w.passes, w.script.durations.size() - 1)]);
    ++w.passes;
    return 0;
}

Task only_task() {
    Task task = sample_task();
    task.exec = run_one_pass; // interval 0: it runs in every pass
    return task;
}

/// Starts the daemon's heartbeat as main does and enters the loop.
void run(const Script &script) {
    const HangGuard guard;
    world() = {.script = script};
    system_calls().clock = [] { return NOON + world().now / 1000; };
    system_calls().before_wait = wait_for_a_signal;
    signals_block();
    struct sigaction action {};
    action.sa_handler = [](int) { report("reinit "); };
    sigaction(SIGUSR1, &action, nullptr);
    timer_init();
    static Task task = only_task();
    gdata_set_tasks({.first = &task, .last = &task, .count = 1});
    if (script.beat_during_start_up) {
        raise(SIGALRM);
    }
    scheduler();
}

class SchedulerLoopDeathTest : public testing::TestWithParam<Script> {};

TEST_P(SchedulerLoopDeathTest, StartsItsPassesInTime) {
    EXPECT_EXIT(run(GetParam()), testing::ExitedWithCode(0), GetParam().outcome);
}

std::string name_of(const testing::TestParamInfo<Script> &info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(
    Scripts, SchedulerLoopDeathTest,
    testing::Values(
        // The first pass at once, the others on the beat.
        Script{"NoSignal", {100}, {}, false, "^pass 0 pass 1000 pass 2000 pass 3000 \n$"},
        // The beat at 1000 is counted when the pass ends at 1550, but noticed only with the one at 2000.
        Script{"Overrun", {1550}, {}, false, "^pass 0 pass 2000 pass 4000 pass 6000 \n$"},
        // Handled when the pass ends at 100; it wakes nothing.
        Script{"ReinitDuringAPass", {100}, {50}, false, "^pass 0 reinit 100 pass 1000 pass 2000 pass 3000 \n$"},
        // It does not end the wait after an overrun either: it is handled before.
        Script{"ReinitDuringAnOverrun", {1550}, {1200}, false, "^pass 0 reinit 1550 pass 2000 pass 4000 pass 6000 \n$"},
        // During the wait after an overrun it ends the wait, since a beat is recorded. The next pass lasts until 3250;
        // one of the beats at 2000 and 3000 is left.
        Script{"ReinitAfterAnOverrun", {1550}, {1700}, false, "^pass 0 reinit 1700 pass 1700 pass 4000 pass 6000 \n$"},
        // In a wait without a beat it is handled at once, and the wait continues.
        Script{"ReinitDuringTheWait", {100}, {500}, false, "^pass 0 reinit 500 pass 1000 pass 2000 pass 3000 \n$"},
        Script{"Mixed",
               {1550, 100},
               {300, 1800, 2500},
               false,
               "^pass 0 reinit 1550 reinit 1800 pass 1800 pass 2000 reinit 2500 pass 3000 \n$"},
        // A beat during startup is recorded, but does not start a second pass.
        Script{"BeatDuringStartUp", {100}, {300}, true, "^pass 0 reinit 300 pass 300 pass 1000 pass 2000 \n$"}),
    name_of);

/// A beat about to arrive while the loop reads the time must not give the pass a late date.
[[noreturn]] void time_around_the_block() {
    const HangGuard guard;
    system_calls().clock = [] {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        return NOON + (sigismember(&mask, SIGALRM) == 1 ? 1 : 0);
    };
    static const CapturedTraces traces;
    static Task task = only_task();
    task.exec = [](Task *) -> int { _exit(traces.has("scheduler", "RUN: at 12:00:00") ? 0 : 1); };
    gdata_set_tasks({.first = &task, .last = &task, .count = 1});
    timer_init();
    scheduler();
    _exit(2);
}

TEST(SchedulerStartDeathTest, TakesTheTimeBeforeItBlocksTheBeat) {
    EXPECT_EXIT(time_around_the_block(), testing::ExitedWithCode(0), "");
}

[[noreturn]] void enter_the_loop() {
    const HangGuard guard;
    static const CapturedTraces traces;
    static Task task = only_task();
    task.exec = [](Task *) -> int {
        const CapturedTrace &first = traces.all().front();
        _exit(first.function == "scheduler" && first.text == " " && first.line.starts_with("(1) [") ? 0 : 1);
    };
    gdata_set_tasks({.first = &task, .last = &task, .count = 1});
    static const CapturedTraces again; // drops the trace of the line above
    scheduler();
    _exit(2);
}

TEST(SchedulerStartDeathTest, TracesItsEntryAtLevel1) { EXPECT_EXIT(enter_the_loop(), testing::ExitedWithCode(0), ""); }

} // namespace
