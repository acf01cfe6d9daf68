#include "timer.h"

#include "captured_traces.h"
#include "gdata.h"
#include "hang_guard.h"
#include "scratch_folder.h"
#include "signals.h"
#include "system_calls.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Texts = std::vector<std::string>;

bool is_blocked(int signo) {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, signo) == 1;
}

bool is_pending(int signo) {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, signo) == 1;
}

int reinits = 0;

void count_reinit(int /*signo*/) { ++reinits; }

/// The calls at their defaults, all seven signals blocked, SIGUSR1 with a counting handler.
class TimerTest : public testing::Test {
  public:
    TimerTest() {
        system_calls() = {};
        reinits = 0;
        const sigset_t all = signals_all();
        pthread_sigmask(SIG_BLOCK, &all, &mask_before_);
        struct sigaction action {};
        action.sa_handler = count_reinit;
        sigaction(SIGUSR1, &action, nullptr);
    }
    ~TimerTest() override {
        for (const int signo : {SIGALRM, SIGUSR1}) {
            struct sigaction action {};
            action.sa_handler = SIG_IGN; // drops what is pending
            sigaction(signo, &action, nullptr);
            action.sa_handler = SIG_DFL;
            sigaction(signo, &action, nullptr);
        }
        pthread_sigmask(SIG_SETMASK, &mask_before_, nullptr);
        system_calls() = {};
    }
    TimerTest(const TimerTest &) = delete;
    TimerTest &operator=(const TimerTest &) = delete;

  private:
    sigset_t mask_before_{};
    HangGuard guard_;
};

// The start. -------------------------------------------------------------------------------------

struct Start {
    std::int64_t now;
    int first;
    const char *time_of_day;
};

class TimerAlignment : public TimerTest, public testing::WithParamInterface<Start> {};

TEST_P(TimerAlignment, PutsTheFirstBeatOnTheNextMultipleOfTheStep) {
    const Start &start = GetParam();
    system_calls().clock = [now = start.now] { return now; };
    const CapturedTraces traces;
    EXPECT_EQ(timer_init(), 0);
    ASSERT_TRUE(system_calls().timer);
    EXPECT_EQ(system_calls().timer_kind, ITIMER_REAL);
    EXPECT_EQ(system_calls().timer->it_interval.tv_sec, 10);
    EXPECT_EQ(system_calls().timer->it_interval.tv_usec, 0);
    EXPECT_EQ(system_calls().timer->it_value.tv_sec, start.first);
    EXPECT_EQ(system_calls().timer->it_value.tv_usec, 0);
    EXPECT_EQ(traces.texts_of("timer_init"),
              (Texts{" ", "it_interval.tv_sec: 10 it_value.tv_sec: " + std::to_string(start.first),
                     std::string("INIT done: ") + start.time_of_day}));
}

INSTANTIATE_TEST_SUITE_P(Times, TimerAlignment,
                         testing::Values(Start{1700000007, 3, "22:13:27"}, Start{1700000000, 10, "22:13:20"},
                                         Start{1700000001, 9, "22:13:21"}, Start{1700000009, 1, "22:13:29"},
                                         Start{0, 10, "00:00:00"},
                                         // The 32-bit seconds end at 03:14:07 on 19 January 2038.
                                         Start{2147483647, 3, "03:14:07"}, Start{2147483648, 2, "03:14:08"},
                                         Start{4294967299, 1, "06:28:19"}));

TEST_F(TimerTest, TakesTheStepFromTheSettings) {
    gdata_record().intervalsteps = 7;
    system_calls().clock = [] { return std::int64_t{1700000005}; }; // 7 * 242857143 + 4
    const CapturedTraces traces;
    EXPECT_EQ(timer_init(), 0);
    gdata_record().intervalsteps = 10;
    EXPECT_EQ(system_calls().timer->it_interval.tv_sec, 7);
    EXPECT_EQ(system_calls().timer->it_value.tv_sec, 3);
    EXPECT_TRUE(traces.has("timer_init", "it_interval.tv_sec: 7 it_value.tv_sec: 3"));
}

TEST_F(TimerTest, TracesItsStartAtFallingLevels) {
    const CapturedTraces traces;
    timer_init();
    std::string levels;
    for (const CapturedTrace &trace : traces.all()) {
        if (trace.function == "timer_init") {
            levels += trace.line.substr(0, 3);
            EXPECT_EQ(trace.code_file, "CODE_FILE=timer.c");
        }
    }
    EXPECT_EQ(levels, "(1)(2)(2)");
}

TEST_F(TimerTest, ArmsTheRealTimer) {
    system_calls().timer_is_real = true;
    EXPECT_EQ(timer_init(), 0);
    itimerval timer{};
    getitimer(ITIMER_REAL, &timer);
    EXPECT_EQ(timer.it_interval.tv_sec, 10);
    EXPECT_EQ(timer.it_interval.tv_usec, 0);
    EXPECT_TRUE(timer.it_value.tv_sec > 0 || timer.it_value.tv_usec > 0);
    const itimerval none{};
    setitimer(ITIMER_REAL, &none, nullptr);
}

TEST_F(TimerTest, InstallsAPlainHandlerAndBlocksTheBeat) {
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    EXPECT_EQ(timer_init(), 0);
    EXPECT_TRUE(is_blocked(SIGALRM));
    EXPECT_FALSE(is_blocked(SIGUSR1));
    struct sigaction action {};
    sigaction(SIGALRM, nullptr, &action);
    EXPECT_EQ(action.sa_handler, sig_alarm_handler);
    EXPECT_EQ(action.sa_flags & (SA_SIGINFO | SA_RESTART | SA_NODEFER | static_cast<int>(SA_RESETHAND)), 0);
    for (int signo = 1; signo < NSIG; ++signo) {
        EXPECT_NE(sigismember(&action.sa_mask, signo), 1) << signo;
    }
}

TEST_F(TimerTest, FailsWithoutAHandlerBeforeItArmsAnything) {
    system_calls().sigaction_fails_for = SIGALRM;
    const CapturedTraces traces;
    EXPECT_EQ(timer_init(), -1);
    EXPECT_FALSE(system_calls().timer);
    EXPECT_EQ(traces.texts_of("timer_init"), (Texts{" ", "FAILED"}));
    EXPECT_TRUE(traces.all().back().line.starts_with("(3) ["));
    EXPECT_TRUE(is_blocked(SIGALRM));
}

TEST_F(TimerTest, FailsWithoutATimer) {
    system_calls().clock = [] { return std::int64_t{1700000007}; };
    system_calls().timer_fails = true;
    const CapturedTraces traces;
    EXPECT_EQ(timer_init(), -1);
    EXPECT_EQ(traces.texts_of("timer_init"), (Texts{" ", "it_interval.tv_sec: 10 it_value.tv_sec: 3", "FAILED"}));
    EXPECT_TRUE(traces.all().back().line.starts_with("(3) ["));
}

// Blocking and waiting. --------------------------------------------------------------------------

/// With the heartbeat started; beats come only from the tests.
class WaitTest : public TimerTest {
  public:
    WaitTest() { timer_init(); }
    CapturedTraces traces;
    [[nodiscard]] std::size_t beats() const { return traces.texts_of("sig_alarm_handler").size(); }
};

TEST_F(WaitTest, KeepsABeatPendingUntilItIsUnblocked) {
    timer_continue();
    EXPECT_FALSE(is_blocked(SIGALRM));
    timer_suspend();
    EXPECT_TRUE(is_blocked(SIGALRM));
    raise(SIGALRM);
    EXPECT_EQ(beats(), 0U);
    EXPECT_TRUE(is_pending(SIGALRM));
    timer_continue();
    EXPECT_EQ(beats(), 1U);
    EXPECT_FALSE(is_pending(SIGALRM));
    EXPECT_EQ(traces.texts_of("sig_alarm_handler"), (Texts{" "}));
    EXPECT_EQ(traces.texts_of("timer_suspend").back(), " ");
    EXPECT_EQ(traces.texts_of("timer_continue").back(), " ");
    raise(SIGUSR1);
    runrun_wait(); // consumes the counted beat
}

TEST_F(WaitTest, TracesEachStepAtItsLevel) {
    const CapturedTraces only_these;
    timer_suspend();
    raise(SIGALRM);
    timer_continue(); // the beat arrives during this call
    system_calls().before_wait = [](int) { raise(SIGUSR1); };
    runrun_wait();
    Texts steps;
    for (const CapturedTrace &trace : traces.all()) {
        steps.push_back(trace.line.substr(0, 4) + trace.code_file + " " + trace.function);
    }
    EXPECT_EQ(steps, (Texts{"(3) CODE_FILE=timer.c timer_suspend", "(3) CODE_FILE=timer.c timer_continue",
                            "(3) CODE_FILE=timer.c sig_alarm_handler", "(2) CODE_FILE=timer.c runrun_wait"}));
}

TEST_F(WaitTest, EndsWithABeatAndRestartsTheCount) {
    raise(SIGALRM);
    runrun_wait();
    EXPECT_EQ(system_calls().waits, 1);
    EXPECT_EQ(beats(), 1U);
    EXPECT_FALSE(is_blocked(SIGALRM));
    EXPECT_EQ(traces.texts_of("runrun_wait"), (Texts{"\n"}));

    system_calls().before_wait = [](int number) { raise(number < 4 ? SIGUSR1 : SIGALRM); };
    runrun_wait(); // waits 2 to 4: the counter had been set back
    EXPECT_EQ(system_calls().waits, 4);
    EXPECT_EQ(reinits, 2);
}

TEST_F(WaitTest, NoticesABeatCountedBeforeOnlyAfterTheNextBeat) {
    raise(SIGALRM);
    timer_continue(); // counted: the pass has taken longer than a beat
    EXPECT_EQ(beats(), 1U);
    system_calls().before_wait = [](int) { raise(SIGALRM); };
    runrun_wait();
    EXPECT_EQ(system_calls().waits, 1);
    EXPECT_EQ(beats(), 2U);
}

TEST_F(WaitTest, EndsWithAnyOtherSignalWhenABeatIsRecorded) {
    raise(SIGALRM);
    timer_continue();
    system_calls().before_wait = [](int) { raise(SIGUSR1); };
    runrun_wait();
    EXPECT_EQ(system_calls().waits, 1);
    EXPECT_EQ(reinits, 1);
    EXPECT_EQ(beats(), 1U);
}

TEST_F(WaitTest, ContinuesAfterAnotherSignalAlone) {
    system_calls().before_wait = [](int number) { pthread_kill(pthread_self(), number <= 5 ? SIGUSR1 : SIGALRM); };
    runrun_wait();
    EXPECT_EQ(system_calls().waits, 6);
    EXPECT_EQ(reinits, 5);
    EXPECT_EQ(beats(), 1U);
}

TEST_F(WaitTest, TakesABeatAndAnotherSignalTogether) {
    raise(SIGUSR1);
    raise(SIGALRM);
    runrun_wait();
    EXPECT_EQ(system_calls().waits, 1);
    EXPECT_EQ(reinits, 1);
    EXPECT_EQ(beats(), 1U);
    EXPECT_FALSE(is_pending(SIGUSR1));
}

TEST_F(WaitTest, CountsTwoBeatsOfOnePassAsOne) {
    raise(SIGALRM);
    timer_continue();
    raise(SIGALRM); // handled at once: not blocked
    EXPECT_EQ(beats(), 2U);
    system_calls().before_wait = [](int number) { raise(number == 2 ? SIGUSR1 : SIGALRM); };
    runrun_wait();
    EXPECT_EQ(system_calls().waits, 1);
    timer_suspend();
    runrun_wait(); // SIGUSR1 at wait 2 does not end it: no beat is left
    EXPECT_EQ(system_calls().waits, 3);
}

TEST_F(WaitTest, IsNotEndedByAnInterruption) {
    raise(SIGALRM);
    timer_continue();
    system_calls().interrupted_waits = 3;
    system_calls().before_wait = [](int number) {
        if (number == 4) {
            raise(SIGUSR1);
        }
    };
    runrun_wait(); // a beat is recorded, but only the signal ends the wait
    EXPECT_EQ(system_calls().waits, 4);
    EXPECT_EQ(reinits, 1);
}

/// The kernel's letter for what a process is doing: S when it waits, Z when it has ended.
char state_of(pid_t pid) {
    const std::string line = read_file("/proc/" + std::to_string(pid) + "/stat");
    const std::size_t name_end = line.rfind(") ");
    return name_end == std::string::npos ? '?' : line[name_end + 2];
}

void wait_until_idle(pid_t pid) {
    while (state_of(pid) != 'S' && state_of(pid) != 'Z') {
        sched_yield();
    }
}

TEST_F(WaitTest, ContinuesAfterAStopAndAContinue) {
    const pid_t child = fork();
    if (child == 0) {
        raise(SIGALRM);
        timer_continue(); // a beat is recorded: whatever ends the first wait ends them all
        runrun_wait();
        _exit(reinits == 1 ? 0 : 1);
    }
    wait_until_idle(child);
    kill(child, SIGSTOP);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, WUNTRACED), child);
    ASSERT_TRUE(WIFSTOPPED(status));
    kill(child, SIGCONT);
    wait_until_idle(child);
    kill(child, SIGUSR1);
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(WaitTest, BlocksTheBeatBeforeItTraces) {
    timer_continue();
    system_calls().before_wait = [](int) {
        EXPECT_TRUE(is_blocked(SIGALRM));
        raise(SIGALRM);
    };
    runrun_wait();
    EXPECT_EQ(beats(), 1U);
    EXPECT_FALSE(is_blocked(SIGALRM));
}

TEST_F(WaitTest, KeepsErrnoInTheHandler) {
    errno = ENOENT;
    sig_alarm_handler(SIGALRM);
    EXPECT_EQ(errno, ENOENT);
    raise(SIGUSR1);
    runrun_wait(); // consumes the counted beat
}

} // namespace
