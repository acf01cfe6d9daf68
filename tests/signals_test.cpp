#include "signals.h"

#include "hang_guard.h"
#include "scratch_folder.h"

#include <cerrno>
#include <chrono>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr int SEVEN[]{SIGALRM, SIGCHLD, SIGUSR1, SIGTERM, SIGQUIT, SIGHUP, SIGINT};

// What the handlers record. They run as ordinary calls, so they may use the heap.
std::vector<std::string> &events() {
    static std::vector<std::string> list;
    return list;
}

int signal_to_raise = 0;
siginfo_t last_info{};

std::string name_of(int signo) { return sigabbrev_np(signo); }

void recording_handler(int signo) {
    events().push_back("begin " + name_of(signo));
    if (signal_to_raise != 0) {
        raise(std::exchange(signal_to_raise, 0));
        signals_safe_point();
    }
    events().push_back("end " + name_of(signo));
    errno = EIO;
}

/// For a signal that is sent faster than it is handled.
void flooded_handler(int signo) { raise(signo); }

void informed_handler(int signo, siginfo_t *info, void * /*context*/) {
    events().push_back("informed " + name_of(signo));
    last_info = *info;
}

void install(int signo, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    sigaction(signo, &action, nullptr);
}

sigset_t set_of(int signo) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signo);
    return set;
}

bool is_pending(int signo) {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, signo) == 1;
}

/// Blocks all seven, each with a recording handler; restores mask and dispositions at the end.
class SignalsTest : public testing::Test {
  public:
    SignalsTest() {
        events().clear();
        signal_to_raise = 0;
        const sigset_t all = signals_all();
        pthread_sigmask(SIG_BLOCK, &all, &mask_before_);
        for (const int signo : SEVEN) {
            install(signo, recording_handler);
        }
    }
    ~SignalsTest() override {
        for (const int signo : SEVEN) {
            install(signo, SIG_IGN); // drops what is pending
            install(signo, SIG_DFL);
        }
        pthread_sigmask(SIG_SETMASK, &mask_before_, nullptr);
    }
    SignalsTest(const SignalsTest &) = delete;
    SignalsTest &operator=(const SignalsTest &) = delete;

  private:
    sigset_t mask_before_{};
    HangGuard guard_;
};

using Events = std::vector<std::string>;

TEST_F(SignalsTest, AreSevenAndAllButTheHeartbeatAreBlocked) {
    const sigset_t all = signals_all();
    const sigset_t held = signals_handled();
    for (int signo = 1; signo < NSIG; ++signo) {
        const bool is_ours = std::find(std::begin(SEVEN), std::end(SEVEN), signo) != std::end(SEVEN);
        EXPECT_EQ(sigismember(&all, signo), is_ours ? 1 : 0) << signo;
        EXPECT_EQ(sigismember(&held, signo), is_ours && signo != SIGALRM ? 1 : 0) << signo;
    }
}

TEST_F(SignalsTest, WaitForASafePoint) {
    raise(SIGUSR1);
    EXPECT_EQ(events(), Events{});
    signals_safe_point();
    EXPECT_EQ(events(), (Events{"begin USR1", "end USR1"}));
    signals_safe_point();
    EXPECT_EQ(events().size(), 2U);
}

TEST_F(SignalsTest, AreTakenOneAfterTheOther) {
    raise(SIGTERM);
    raise(SIGUSR1);
    raise(SIGUSR1); // merges with the one pending
    signals_safe_point();
    ASSERT_EQ(events().size(), 4U);
    for (std::size_t i = 0; i < 4; i += 2) {
        EXPECT_EQ(events()[i].substr(6), events()[i + 1].substr(4)); // start and end of the same
    }
}

TEST_F(SignalsTest, AreNeverTakenInsideAHandler) {
    signal_to_raise = SIGHUP; // the handler then reaches a safe point
    raise(SIGUSR1);
    signals_safe_point();
    EXPECT_EQ(events(), (Events{"begin USR1", "end USR1", "begin HUP", "end HUP"}));
}

TEST_F(SignalsTest, LeaveTheHeartbeatPendingAtASafePoint) {
    raise(SIGALRM);
    signals_safe_point();
    EXPECT_EQ(events(), Events{});
    EXPECT_TRUE(is_pending(SIGALRM));
    signals_dispatch(signals_all());
    EXPECT_EQ(events(), (Events{"begin ALRM", "end ALRM"}));
}

TEST_F(SignalsTest, OutsideTheSetStayPending) {
    raise(SIGUSR1);
    raise(SIGINT);
    signals_dispatch(set_of(SIGINT));
    EXPECT_EQ(events(), (Events{"begin INT", "end INT"}));
    EXPECT_TRUE(is_pending(SIGUSR1));
}

TEST_F(SignalsTest, AreTakenTogetherByOneWait) {
    raise(SIGALRM);
    raise(SIGUSR1);
    signals_wait(signals_all());
    EXPECT_EQ(events().size(), 4U);
    EXPECT_FALSE(is_pending(SIGALRM));
    EXPECT_FALSE(is_pending(SIGUSR1));
}

TEST_F(SignalsTest, AreTakenByAWaitThatFollowsAnInterruptedCall) {
    raise(SIGUSR1);
    errno = EINTR;
    signals_wait(signals_all());
    EXPECT_EQ(events(), (Events{"begin USR1", "end USR1"}));
}

/// Waits until the process sleeps or has ended.
void await_sleep(pid_t pid) {
    const std::string status = "/proc/" + std::to_string(pid) + "/stat";
    for (std::string text; text.find(") S ") == std::string::npos && text.find(") Z ") == std::string::npos;) {
        text = read_file(status);
    }
}

TEST_F(SignalsTest, AreStillAwaitedAfterAStop) {
    const pid_t waiting = fork();
    if (waiting == 0) {
        signals_wait(signals_all());
        _exit(events() == Events{"begin USR1", "end USR1"} ? 0 : 1);
    }
    await_sleep(waiting);
    kill(waiting, SIGSTOP);
    int status = -1;
    EXPECT_EQ(waitpid(waiting, &status, WUNTRACED), waiting);
    kill(waiting, SIGCONT);
    await_sleep(waiting);
    kill(waiting, SIGUSR1);
    EXPECT_EQ(waitpid(waiting, &status, 0), waiting);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(SignalsTest, EndAPauseExceptTheHeartbeat) {
    constexpr int an_hour = 3600 * 1000;
    raise(SIGALRM);
    raise(SIGUSR1);
    raise(SIGHUP);
    signals_pause(an_hour);
    EXPECT_EQ(events(), (Events{"begin HUP", "end HUP", "begin USR1", "end USR1"})); // in the order of their numbers
    signals_pause(0);
    EXPECT_EQ(events().size(), 4U);
    EXPECT_TRUE(is_pending(SIGALRM));
}

TEST_F(SignalsTest, LetAPauseRunToItsEnd) {
    for (const int milliseconds : {100, 1000}) {
        const auto begin = std::chrono::steady_clock::now();
        signals_pause(milliseconds);
        EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(milliseconds));
    }
    EXPECT_EQ(events(), Events{});
}

TEST_F(SignalsTest, AreTakenFromTheLowestNumberOn) {
    ASSERT_EQ(SIGHUP, 1);
    for (void (*const take)() : {+[] { signals_safe_point(); }, +[] { signals_dispatch(signals_all()); },
                                 +[] { signals_wait(signals_all()); }, +[] { signals_pause(1000); }}) {
        events().clear();
        raise(SIGHUP);
        take();
        EXPECT_EQ(events(), (Events{"begin HUP", "end HUP"}));
    }
}

TEST_F(SignalsTest, ThatKeepComingDelayNoOther) {
    install(SIGUSR1, flooded_handler);
    for (void (*const take)() : {+[] { signals_safe_point(); }, +[] { signals_dispatch(signals_all()); },
                                 +[] { signals_wait(signals_all()); }, +[] { signals_pause(1000); }}) {
        events().clear();
        raise(SIGUSR1);
        raise(SIGTERM);
        take();
        EXPECT_EQ(events(), (Events{"begin TERM", "end TERM"}));
    }
}

TEST_F(SignalsTest, PassTheirInformationOn) {
    struct sigaction action {};
    action.sa_sigaction = informed_handler;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGUSR1, &action, nullptr);
    for (void (*const take)() :
         {+[] { signals_safe_point(); }, +[] { signals_wait(signals_all()); }, +[] { signals_pause(1000); }}) {
        events().clear();
        last_info = {};
        const sigval value{.sival_int = 4711};
        sigqueue(getpid(), SIGUSR1, value);
        take();
        EXPECT_EQ(events(), (Events{"informed USR1"}));
        EXPECT_EQ(last_info.si_signo, SIGUSR1);
        EXPECT_EQ(last_info.si_code, SI_QUEUE);
        EXPECT_EQ(last_info.si_pid, getpid());
        EXPECT_EQ(last_info.si_value.sival_int, 4711);
    }
}

TEST_F(SignalsTest, KeepErrno) {
    for (void (*const take)() : {+[] { signals_safe_point(); }, +[] { signals_dispatch(signals_all()); },
                                 +[] { signals_wait(signals_all()); }, +[] { signals_pause(1000); }}) {
        raise(SIGUSR1); // its handler leaves EIO
        errno = ENOENT;
        take();
        EXPECT_EQ(errno, ENOENT);
    }
    errno = ENOENT;
    signals_safe_point(); // nothing pending
    signals_pause(0);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(SignalsTest, ThatAreIgnoredAreDropped) {
    raise(SIGHUP);
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    raise(SIGUSR1);
    sigaction(SIGCHLD, &action, nullptr); // ignored by default
    raise(SIGCHLD);
    action.sa_handler = SIG_IGN;
    sigaction(SIGHUP, &action, nullptr);
    raise(SIGHUP);
    signals_safe_point();
    EXPECT_EQ(events(), (Events{"begin USR1", "end USR1"}));
    EXPECT_FALSE(is_pending(SIGHUP));
    EXPECT_FALSE(is_pending(SIGCHLD));
}

using SignalsDeathTest = SignalsTest;

TEST_F(SignalsDeathTest, WithoutAHandlerEndTheProcess) {
    const auto end_by_default = [] {
        install(SIGTERM, SIG_DFL);
        raise(SIGTERM);
        signals_safe_point();
    };
    EXPECT_EXIT(end_by_default(), testing::KilledBySignal(SIGTERM), "");
}

/// Blocks twice, with another mask in between; exits with 0 if the mask from before the first block is kept.
[[noreturn]] void block_twice() {
    const sigset_t none{};
    const sigset_t pipe = set_of(SIGPIPE);
    const sigset_t child = set_of(SIGCHLD);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    signals_block();
    pthread_sigmask(SIG_BLOCK, &child, nullptr);
    signals_block();
    sigset_t now;
    pthread_sigmask(SIG_BLOCK, nullptr, &now);
    const sigset_t original = signals_original_mask();
    for (const int signo : SEVEN) {
        const int held = signo == SIGALRM ? 0 : 1;
        if (sigismember(&now, signo) != held || sigismember(&original, signo) != 0) {
            _exit(signo);
        }
    }
    _exit(sigismember(&original, SIGPIPE) == 1 && sigismember(&now, SIGPIPE) == 1 ? 0 : 99);
}

TEST_F(SignalsDeathTest, BlockedTwiceKeepTheFirstOriginalMask) {
    EXPECT_EXIT(block_twice(), testing::ExitedWithCode(0), "");
}

} // namespace
