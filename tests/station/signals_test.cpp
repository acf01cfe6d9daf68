// How the daemon handles its signals, and that a termination always ends it.

#include "from_environment.h"
#include "passes.h"
#include "station.h"
#include "status_log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr std::array TERMINATIONS{SIGTERM, SIGQUIT, SIGHUP, SIGINT};
constexpr std::array HANDLED{SIGALRM, SIGCHLD, SIGUSR1, SIGTERM, SIGQUIT, SIGHUP, SIGINT};

/// A signal mask from /proc/PID/status.
std::uint64_t mask_of(pid_t pid, const std::string &name) {
    const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    return std::stoull(status.substr(status.find(name + ":") + name.size() + 1), nullptr, 16);
}

bool has_signal(std::uint64_t mask, int signo) { return (mask >> (signo - 1) & 1U) != 0; }

/// The functions that traced in the main thread. The bus threads trace whenever they try to connect.
std::vector<std::string> functions_of(Station &station) {
    const auto main_thread = static_cast<unsigned>(station.pid());
    std::vector<std::string> functions;
    for (const TraceLine &line : station.trace().lines()) {
        if (line.thread == main_thread) {
            functions.push_back(line.function);
        }
    }
    return functions;
}

std::size_t first_line_of(Station &station, const std::string &function) {
    const std::vector<std::string> functions = functions_of(station);
    return static_cast<std::size_t>(std::find(functions.begin(), functions.end(), function) - functions.begin());
}

/// Starts the daemon and blocks its second pass in the first task; keeps the traces of that pass only.
HeldFile hold_second_pass(Station &station) {
    station.start();
    HeldFile held(station, TEMPERATURE_FILE);
    station.forget();
    station.advance(3);
    station.send(SIGALRM);
    station.await_trace("temperature_exec");
    return held;
}

} // namespace

class Termination : public testing::TestWithParam<int> {};

TEST_P(Termination, InTheWaitCleansUpAndEndsWithStatus1) {
    Station station;
    station.start();
    station.forget();
    station.send(GetParam());
    EXPECT_EQ(station.await_exit(), 1);
    std::vector<std::string> expected{" "};
    for (const std::string &check : names_of_checks()) {
        expected.push_back("task: " + check);
    }
    expected.emplace_back("DONE");
    EXPECT_EQ(station.trace().messages_of("cleanup"), expected);
    EXPECT_THAT(station.trace().messages_of("sig_exit_handler"), ElementsAre(" "));
    EXPECT_EQ(functions_of(station).front(), "sig_exit_handler");
}

// A termination waits for the running probe at most.
TEST_P(Termination, DuringAPassEndsItBeforeTheNextTask) {
    Station station;
    const HeldFile held = hold_second_pass(station);
    station.send(GetParam());
    held.release("42000\n");
    EXPECT_EQ(station.await_exit(), 1);
    EXPECT_THAT(station.trace().messages_with("temperature: next_run"), SizeIs(1));
    EXPECT_THAT(station.trace().messages_of("memoryusage_exec"), IsEmpty());
    EXPECT_THAT(station.trace().messages_of("cleanup"), Contains("DONE"));
}

INSTANTIATE_TEST_SUITE_P(All, Termination, testing::ValuesIn(TERMINATIONS));

TEST(Reinit, ChangesNothingButItsOwnTraces) {
    Station station;
    station.start();
    station.step(3);
    station.forget();
    station.step();
    const std::vector<std::string> usual = functions_of(station);
    station.forget();
    station.signal(SIGUSR1);
    EXPECT_THAT(station.trace().messages_of("sig_reinit_handler"), ElementsAre(" "));
    EXPECT_THAT(station.trace().messages_with("init "), IsEmpty());
    EXPECT_THAT(pass_times(station.trace()), IsEmpty());
    station.forget();
    station.step();
    EXPECT_EQ(functions_of(station), usual);
}

/// The numbers of the daemon's calls of sigaction at its start. Two before them bound the journal's first wait.
enum HandlerCall : std::uint32_t { FOR_SIGTERM = 3, FOR_SIGUSR1 = 7, FOR_SIGALRM = 8, FOR_SIGCHLD = 9 };

StationFault failing(StationCall call, std::uint32_t number) {
    return {.call = call, .first = number, .last = number, .error = EINVAL, .threads = StationThreads::main};
}

struct MissedHandler {
    HandlerCall call;
    const char *trace;
    int status; ///< of the daemon after SIGTERM
};

class StartWithoutHandler : public testing::TestWithParam<MissedHandler> {};

TEST_P(StartWithoutHandler, Continues) {
    Station station;
    station.fault = failing(StationCall::handler, GetParam().call);
    station.start();
    EXPECT_THAT(station.trace().messages_of("signal_init"), ElementsAre(" ", GetParam().trace));
    station.step(3);
    station.send(SIGTERM);
    EXPECT_EQ(station.await_exit(), GetParam().status);
}

INSTANTIATE_TEST_SUITE_P(Any, StartWithoutHandler,
                         testing::Values(MissedHandler{FOR_SIGTERM, "SIGTERM FAILED", -SIGTERM},
                                         MissedHandler{FOR_SIGUSR1, "SIGUSR1 FAILED", 1}));

struct FailedStart {
    StationFault fault;
    const char *function;
};

class StartWithout : public testing::TestWithParam<FailedStart> {};

TEST_P(StartWithout, EndsWith255AndNoCleanup) {
    Station station;
    station.fault = GetParam().fault;
    const Outcome outcome = station.run({"-D"});
    TraceLog traces;
    traces.append(outcome.err);
    EXPECT_EQ(outcome.status, 255);
    EXPECT_EQ(traces.lines().back().function, GetParam().function);
    EXPECT_EQ(station.read(std::string(STATUS_FOLDER) + "/logfile"), "");
}

INSTANTIATE_TEST_SUITE_P(Any, StartWithout,
                         testing::Values(FailedStart{failing(StationCall::handler, FOR_SIGALRM), "timer_init"},
                                         FailedStart{failing(StationCall::timer, 1), "timer_init"},
                                         FailedStart{failing(StationCall::handler, FOR_SIGCHLD), "process_init"}));

TEST(Handlers, AreInstalledForAllSevenSignals) {
    Station station;
    station.start();
    for (const int signo : HANDLED) {
        EXPECT_TRUE(has_signal(mask_of(station.pid(), "SigCgt"), signo)) << signo;
    }
}

TEST(Pass, BlocksAllSevenSignals) {
    Station station;
    const HeldFile held = hold_second_pass(station);
    for (const int signo : HANDLED) {
        EXPECT_TRUE(has_signal(mask_of(station.pid(), "SigBlk"), signo)) << signo;
    }
    const unsigned before = station.waits();
    held.release("42000\n");
    station.await_wait_after(before);
}

TEST(Pass, HandlesASignalBeforeItsNextTask) {
    Station station;
    const HeldFile held = hold_second_pass(station);
    station.send(SIGUSR1);
    const unsigned before = station.waits();
    held.release("42000\n");
    station.await_wait_after(before);
    EXPECT_LT(first_line_of(station, "temperature_exec"), first_line_of(station, "sig_reinit_handler"));
    EXPECT_LT(first_line_of(station, "sig_reinit_handler"), first_line_of(station, "memoryusage_exec"));
}
