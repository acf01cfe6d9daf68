// Terminates the daemon at random instants of a busy life: start-up, passes, a rotation, questions to systemd,
// the fork of the load logger. STATION_TERMINATIONS=n sets their number, STATION_SEED=n repeats a run.

#include "busy_station.h"
#include "fake_systemd.h"
#include "from_environment.h"
#include "hang_guard.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iostream>
#include <random>
#include <set>
#include <sys/prctl.h>
#include <sys/wait.h>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

using std::chrono::steady_clock;

const unsigned DEFAULT_COUNT = is_sanitized() ? 50 : 200;
constexpr unsigned PASSES = 8; // the load logger is forked in the sixth
constexpr std::array TERMINATIONS{SIGTERM, SIGQUIT, SIGHUP, SIGINT};
constexpr std::chrono::seconds LONGEST{5};

/// This process's children, adopted orphans included.
std::set<pid_t> children() {
    std::set<pid_t> result;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream list(task.path() / "children");
        for (pid_t pid = 0; list >> pid;) {
            result.insert(pid);
        }
    }
    return result;
}

/// Waits for the end of all children except `known`; returns their wait statuses.
std::vector<int> reap_others(const std::set<pid_t> &known) {
    const HangGuard guard;
    std::vector<int> statuses;
    for (const pid_t pid : children()) {
        int status = 0;
        if (!known.contains(pid) && waitpid(pid, &status, 0) == pid) {
            statuses.push_back(WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status));
        }
    }
    return statuses;
}

/// Runs heartbeats without a pause until `done` or the daemon's end.
void live_until(BusyStation &station, const std::function<bool()> &done) {
    unsigned seen = 0;
    station.await("its instant", [&] {
        if (!station.is_running() || done()) {
            return true;
        }
        if (station.waits() > seen) {
            seen = station.waits();
            station.prepare_beat();
            station.advance(180);
            station.send(SIGALRM);
        }
        return false;
    });
}

std::vector<std::string> functions_of(const TraceLog &trace) {
    std::vector<std::string> functions;
    for (const TraceLine &line : trace.lines()) {
        functions.push_back(line.function);
    }
    return functions;
}

/// Without the bus threads, which may trace until the end.
std::vector<TraceLine> lines_of_main_thread(Station &station) {
    const auto main_thread = static_cast<unsigned>(station.pid());
    std::vector<TraceLine> lines = station.trace().lines();
    std::erase_if(lines, [main_thread](const TraceLine &line) { return line.thread != main_thread; });
    return lines;
}

/// The traces and questions of a life of PASSES passes.
struct Rehearsal {
    std::size_t handlers_installed = 0; ///< traces before that
    std::size_t traces = 0;
    int questions = 0;
};

class Terminations : public testing::Test {
  public:
    Terminations() { prctl(PR_SET_CHILD_SUBREAPER, 1); }
    ~Terminations() override { prctl(PR_SET_CHILD_SUBREAPER, 0); }

  protected:
    Rehearsal rehearse() {
        Rehearsal result;
        const int before = world.systemd().total();
        BusyStation station(world);
        station.launch_busy({"-D"});
        live_until(station, [&station] { return station.waits() >= PASSES; });
        const std::vector<std::string> functions = functions_of(station.trace());
        const auto installed = std::find(functions.begin(), functions.end(), "timer_init");
        result.handlers_installed = static_cast<std::size_t>(installed - functions.begin()) + 1;
        result.traces = functions.size();
        EXPECT_THAT(station.trace().messages_with("fork: parent"), SizeIs(1));
        EXPECT_EQ(station.stop(), 1);
        EXPECT_EQ(take_apart(station.recorded(), station.command_line()).rotations, 1);
        EXPECT_THAT(reap_others(world_children), ElementsAre(-SIGTERM));
        result.questions = world.systemd().total() - before;
        return result;
    }

    void expect_proper_end(BusyStation &station) {
        const auto sent = steady_clock::now();
        ASSERT_EQ(station.await_exit(), 1);
        longest = std::max(longest, steady_clock::now() - sent);
        ASSERT_LT(longest, LONGEST);
        ASSERT_THAT(station.trace().messages_of("sig_exit_handler"), SizeIs(1));
        const TraceLine last = lines_of_main_thread(station).back();
        ASSERT_EQ(last.function, "cleanup");
        ASSERT_EQ(last.message, "DONE");
        ASSERT_FALSE(station.is_locked());
        const LogContent log = take_apart(station.recorded(), station.command_line());
        ASSERT_THAT(log.torn, IsEmpty());
        ASSERT_EQ(log.closings, log.starts);
        ASSERT_EQ(log.ends_closed, log.starts == 1);
        for (const int status : reap_others(world_children)) {
            ASSERT_EQ(status, -SIGTERM);
        }
    }

    void report() const {
        std::cout << "longest end: " << std::chrono::duration_cast<std::chrono::milliseconds>(longest).count()
                  << " ms\n";
    }

    BusyWorld world;
    const std::set<pid_t> world_children = children();
    steady_clock::duration longest{};
};

} // namespace

// Starts when the handlers are installed; before that a signal has its default action.
TEST_F(Terminations, AtRandomInstantsAllEndWithStatus1) {
    const Rehearsal rehearsal = rehearse();
    ASSERT_LT(rehearsal.handlers_installed, rehearsal.traces);
    std::mt19937 random(seed_of_the_day());
    std::uniform_int_distribution<std::size_t> instant(rehearsal.handlers_installed, rehearsal.traces);
    for (unsigned i = 0; i < from_environment("STATION_TERMINATIONS", DEFAULT_COUNT); ++i) {
        const std::size_t line = instant(random);
        const int signo = TERMINATIONS.at(random() % TERMINATIONS.size());
        SCOPED_TRACE("signal " + std::to_string(signo) + " at trace " + std::to_string(line));
        BusyStation station(world);
        station.launch_busy({"-D"});
        live_until(station, [&] { return station.trace().lines().size() >= line || station.waits() >= PASSES; });
        station.send(signo);
        ASSERT_NO_FATAL_FAILURE(expect_proper_end(station));
    }
    report();
}

TEST_F(Terminations, WhileSystemdIsAskedAllEndWithStatus1) {
    const Rehearsal rehearsal = rehearse();
    ASSERT_GT(rehearsal.questions, 20);
    std::mt19937 random(seed_of_the_day());
    for (unsigned i = 0; i < from_environment("STATION_TERMINATIONS", DEFAULT_COUNT) / 4; ++i) {
        const int question = 1 + static_cast<int>(random() % static_cast<unsigned>(rehearsal.questions));
        const int signo = TERMINATIONS.at(random() % TERMINATIONS.size());
        SCOPED_TRACE("signal " + std::to_string(signo) + " at question " + std::to_string(question));
        BusyStation station(world);
        station.launch_busy({"-D"});
        world.systemd().strike(station.pid(), signo, question);
        live_until(station, [&station] { return station.waits() >= PASSES; });
        if (station.is_running()) { // some questions were asked before the strike was set up
            station.send(signo);
        }
        ASSERT_NO_FATAL_FAILURE(expect_proper_end(station));
    }
    report();
}
