// When passes run and which tasks run in them. The station starts at 12:00:07 by default.

#include "passes.h"
#include "station.h"

#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <sys/time.h>

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::int64_t NOON = 1709294400;
constexpr std::int64_t SECOND = 1'000'000; // unit of the recorded timer

std::string clock_text(std::int64_t seconds) {
    const auto two_digits = [](std::int64_t number) { return (number < 10 ? "0" : "") + std::to_string(number); };
    return two_digits(seconds / 3600) + ":" + two_digits(seconds / 60 % 60) + ":" + two_digits(seconds % 60);
}

/// 12:00:07, then each multiple of `interval` up to 13:00:00, each `tasks` times.
std::vector<std::string> runs_in_the_hour(std::int64_t interval, std::size_t tasks) {
    constexpr std::int64_t noon = 12LL * 3600;
    std::vector<std::string> times(tasks, "12:00:07");
    for (std::int64_t at = interval; at <= 3600; at += interval) {
        times.insert(times.end(), tasks, clock_text(noon + at));
    }
    return times;
}

} // namespace

struct StartSecond {
    std::int64_t second;
    std::int64_t first;
};

class TimerStart : public testing::TestWithParam<StartSecond> {};

TEST_P(TimerStart, AlignsTheFirstBeatToTheTenSeconds) {
    Station station(Board().clock(NOON + GetParam().second));
    station.start();
    EXPECT_EQ(station.timer().calls, 1U);
    EXPECT_EQ(station.timer().which, ITIMER_REAL);
    EXPECT_EQ(station.timer().period, 10 * SECOND);
    EXPECT_EQ(station.timer().first, GetParam().first * SECOND);
    EXPECT_THAT(station.trace().messages_of("timer_init"),
                ElementsAre(" ", "it_interval.tv_sec: 10 it_value.tv_sec: " + std::to_string(GetParam().first),
                            "INIT done: 12:00:" + clock_text(GetParam().second).substr(6)));
}

INSTANTIATE_TEST_SUITE_P(Seconds, TimerStart,
                         testing::Values(StartSecond{7, 3}, StartSecond{0, 10}, StartSecond{9, 1}, StartSecond{11, 9}));

TEST(FirstPass, ComesAtOnceAndRunsEveryTask) {
    Station station;
    station.start();
    EXPECT_THAT(pass_times(station.trace()), ElementsAre("12:00:07"));
    const std::vector<std::string> next_runs = station.trace().messages_with("next_run");
    for (const char *expected :
         {"temperature: next_run: 12:00:10", "bluetooth: next_run: 12:01:00", "ethernet: next_run: 12:01:00",
          "memoryusage: next_run: 12:00:10", "wearout: next_run: 13:00:00", "diskusage: next_run: 12:15:00",
          "service: next_run: 12:00:10", "load: next_run: 12:03:00"}) {
        EXPECT_THAT(next_runs, Contains(expected));
    }
}

TEST(Tasks, RunAtMultiplesOfTheirIntervalForAnHour) {
    Station station;
    station.start();
    station.step(3);
    station.heartbeats(359);
    EXPECT_EQ(station.clock(), NOON + 3600);
    EXPECT_EQ(pass_times(station.trace()), runs_in_the_hour(10, 1));
    EXPECT_EQ(run_times(station.trace(), "temperature"), runs_in_the_hour(10, 1));
    EXPECT_EQ(run_times(station.trace(), "memoryusage"), runs_in_the_hour(10, 1));
    EXPECT_EQ(run_times(station.trace(), "bluetooth"), runs_in_the_hour(60, 1));
    EXPECT_EQ(run_times(station.trace(), "ethernet"), runs_in_the_hour(60, 2));
    EXPECT_EQ(run_times(station.trace(), "load"), runs_in_the_hour(180, 2));
    EXPECT_EQ(run_times(station.trace(), "diskusage"), runs_in_the_hour(900, 8));
    EXPECT_EQ(run_times(station.trace(), "wearout"), runs_in_the_hour(3600, 1));
}

TEST(Pass, ChecksTheNetworkBeforeItsFirstTask) {
    Station station;
    station.start();
    station.forget();
    station.step(3);
    std::vector<std::string> order;
    for (const TraceLine &line : station.trace().lines()) {
        if (line.function == "timer_suspend" || line.function == "network_check_daemon" ||
            line.function == "temperature_exec" || line.function == "d_bus_srv_send_issues" ||
            line.function == "timer_continue" || line.function == "runrun_wait" || line.message.starts_with("RUN: ")) {
            if (order.empty() || order.back() != line.function) {
                order.push_back(line.function);
            }
        }
    }
    EXPECT_THAT(order, ElementsAre("timer_suspend", "network_check_daemon", "scheduler", "temperature_exec",
                                   "d_bus_srv_send_issues", "timer_continue", "runrun_wait"));
}

// The second pass of the station, at 12:00:10, is blocked where it reads the temperature.
class Wait : public testing::Test {
  protected:
    Wait() { station.start(); }

    void begin_held_pass() {
        held.emplace(station, TEMPERATURE_FILE);
        station.advance(3);
        station.send(SIGALRM);
        station.await_trace("temperature_exec");
    }

    void beat_during_the_pass() {
        station.advance(10);
        station.send(SIGALRM);
    }

    void end_held_pass() {
        const unsigned before = station.waits();
        held->release("42000\n");
        station.await_wait_after(before);
    }

    void signal_after(std::int64_t seconds, int signo) {
        station.advance(seconds);
        station.signal(signo);
    }

    /// A pass from 12:00:10 to 12:00:25; the beat of 12:00:20 arrives in it.
    void overrun() {
        begin_held_pass();
        beat_during_the_pass();
        station.advance(5);
        end_held_pass();
    }

    std::vector<std::string> passes() { return pass_times(station.trace()); }

    Station station;
    std::optional<HeldFile> held;
};

TEST_F(Wait, EndsAtEachBeat) {
    station.step(3);
    station.heartbeats(2);
    EXPECT_THAT(passes(), ElementsAre("12:00:07", "12:00:10", "12:00:20", "12:00:30"));
}

// The wait pauses before it checks the beats recorded so far. Kept.
TEST_F(Wait, AfterAnOverrunLastsToTheNextBeat) {
    overrun();
    EXPECT_THAT(passes(), ElementsAre("12:00:07", "12:00:10"));
    station.step(5);
    station.step(10);
    EXPECT_THAT(passes(), ElementsAre("12:00:07", "12:00:10", "12:00:30", "12:00:40"));
}

TEST_F(Wait, AfterAnOverrunOfSeveralBeatsOwesOnePass) {
    begin_held_pass();
    beat_during_the_pass();
    beat_during_the_pass();
    station.advance(5);
    end_held_pass();
    signal_after(1, SIGUSR1);
    signal_after(1, SIGUSR1);
    EXPECT_THAT(passes(), ElementsAre("12:00:07", "12:00:10", "12:00:36"));
}

TEST_F(Wait, IsNotEndedByASignalThatCameDuringThePass) {
    begin_held_pass();
    station.send(SIGUSR1);
    station.advance(2);
    end_held_pass();
    EXPECT_THAT(passes(), ElementsAre("12:00:07", "12:00:10"));
    EXPECT_EQ(station.trace().messages_of("sig_reinit_handler").size(), 1U) << "it was handled during the pass";
    station.step(8);
    EXPECT_THAT(passes(), ElementsAre("12:00:07", "12:00:10", "12:00:20"));
}

class WaitAfterOverrun : public Wait, public testing::WithParamInterface<int> {};

TEST_P(WaitAfterOverrun, IsEndedByAnySignal) {
    overrun();
    signal_after(2, GetParam());
    EXPECT_THAT(passes(), ElementsAre("12:00:07", "12:00:10", "12:00:27"));
    station.step(3);
    EXPECT_THAT(passes(), ElementsAre("12:00:07", "12:00:10", "12:00:27", "12:00:30"));
}

INSTANTIATE_TEST_SUITE_P(Signals, WaitAfterOverrun, testing::Values(SIGUSR1, SIGCHLD));

TEST_F(Wait, WithoutABeatContinuesAfterASignal) {
    station.step(3);
    signal_after(2, SIGUSR1);
    signal_after(2, SIGCHLD);
    EXPECT_THAT(passes(), ElementsAre("12:00:07", "12:00:10"));
    station.step(6);
    EXPECT_THAT(passes(), ElementsAre("12:00:07", "12:00:10", "12:00:20"));
}

TEST_F(Wait, ContinuesThroughAMixOfSignals) {
    begin_held_pass();
    station.send(SIGUSR1);
    beat_during_the_pass();
    station.send(SIGUSR1);
    station.advance(5);
    end_held_pass();
    EXPECT_THAT(passes(), ElementsAre("12:00:07", "12:00:10"));
    signal_after(2, SIGUSR1);
    EXPECT_THAT(passes(), ElementsAre("12:00:07", "12:00:10", "12:00:27"));
    signal_after(1, SIGUSR1);
    EXPECT_THAT(passes(), ElementsAre("12:00:07", "12:00:10", "12:00:27"));
    station.step(2);
    EXPECT_THAT(passes(), ElementsAre("12:00:07", "12:00:10", "12:00:27", "12:00:30"));
}

TEST(Clock, SetBackPausesTheTasksUntilTheirTime) {
    Station station;
    station.start();
    station.step(3);
    station.set_clock(NOON - 3600 + 10);
    station.heartbeats(3); // 11:00:20 to 11:00:40
    EXPECT_THAT(run_times(station.trace(), "temperature"), ElementsAre("12:00:07", "12:00:10"));
    station.set_clock(NOON + 10);
    station.step(); // 12:00:20
    EXPECT_THAT(run_times(station.trace(), "temperature"), ElementsAre("12:00:07", "12:00:10", "12:00:20"));
    EXPECT_THAT(pass_times(station.trace()),
                ElementsAre("12:00:07", "12:00:10", "11:00:20", "11:00:30", "11:00:40", "12:00:20"));
}

TEST(Clock, SetForwardRunsEachTaskOnce) {
    Station station;
    station.start();
    constexpr std::int64_t to_15_07 = 11220; // three hours and seven minutes
    station.set_clock(NOON + to_15_07);
    station.forget();
    station.step(30);
    EXPECT_THAT(run_times(station.trace(), "temperature"), ElementsAre("15:07:30"));
    EXPECT_EQ(run_times(station.trace(), "diskusage"), std::vector<std::string>(8, "15:07:30"));
    EXPECT_THAT(station.trace().messages_with("diskusage: next_run"), Each("diskusage: next_run: 15:15:00"));
    EXPECT_THAT(station.trace().messages_with("wearout: next_run"), ElementsAre("wearout: next_run: 16:00:00"));
    station.forget();
    station.step();
    EXPECT_THAT(run_times(station.trace(), "temperature"), ElementsAre("15:07:40"));
    EXPECT_THAT(run_times(station.trace(), "diskusage"), IsEmpty());
}

// 2^31 seconds are reached on 2038-01-19 at 03:14:08.
TEST(Clock, KeepsRunningPast2To31Seconds) {
    Station station(Board().clock(2147483645)); // 03:14:05
    station.start();
    EXPECT_EQ(station.timer().first, 5 * SECOND);
    station.step(5);
    station.heartbeats(6);
    EXPECT_THAT(run_times(station.trace(), "temperature"), ElementsAre("03:14:05", "03:14:10", "03:14:20", "03:14:30",
                                                                       "03:14:40", "03:14:50", "03:15:00", "03:15:10"));
    EXPECT_THAT(run_times(station.trace(), "bluetooth"), ElementsAre("03:14:05", "03:15:00"));
    EXPECT_THAT(run_times(station.trace(), "wearout"), ElementsAre("03:14:05"));
}
