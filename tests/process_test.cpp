#include "process.h"

#include "captured_traces.h"
#include "common.h"
#include "hang_guard.h"
#include "memory_fault.h"
#include "sample_task.h"
#include "signals.h"
#include "system_calls.h"

#include <array>
#include <cerrno>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Texts = std::vector<std::string>;

constexpr pid_t NOBODY = 0x7ffffff0; // above the kernel's largest pid

bool is_blocked(int signo) {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, signo) == 1;
}

void set_blocked(int signo, bool blocked) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signo);
    pthread_sigmask(blocked ? SIG_BLOCK : SIG_UNBLOCK, &set, nullptr);
}

Task owner(const char *parameter) {
    Task task = sample_task();
    task.name = "load";
    task.parameter = parameter;
    return task;
}

/// A child that has ended, not yet reaped.
pid_t ended_child() {
    const pid_t pid = fork();
    if (pid == 0) {
        setsid(); // as the load logger does
        _exit(3);
    }
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
    return pid;
}

siginfo_t child_info(int signo) {
    siginfo_t info{};
    info.si_signo = signo;
    info.si_errno = 1;
    info.si_code = CLD_EXITED;
    info.si_pid = 77;
    info.si_uid = 88;
    info.si_status = 3;
    return info;
}

void handle(int signo) {
    siginfo_t info = child_info(SIGCHLD);
    sig_child_handler(signo, &info, nullptr);
}

/// SIGCHLD is blocked, as in the daemon; the registry is empty before and after.
class ProcessTest : public testing::Test {
  public:
    ProcessTest() {
        set_blocked(SIGCHLD, true);
        process_init();
    }
    ~ProcessTest() override {
        struct sigaction action {};
        action.sa_handler = SIG_DFL;
        sigaction(SIGCHLD, &action, nullptr);
        set_blocked(SIGCHLD, false);
    }
    ProcessTest(const ProcessTest &) = delete;
    ProcessTest &operator=(const ProcessTest &) = delete;

  private:
    HangGuard guard_;
};

TEST_F(ProcessTest, InstallsItsHandlerWithInformationAndWithoutStops) {
    struct sigaction action {};
    sigaction(SIGCHLD, nullptr, &action);
    EXPECT_EQ(action.sa_sigaction, sig_child_handler);
    EXPECT_EQ(action.sa_flags & (SA_SIGINFO | SA_NOCLDSTOP), SA_SIGINFO | SA_NOCLDSTOP);
    EXPECT_EQ(action.sa_flags & (SA_RESTART | SA_NOCLDWAIT | SA_NODEFER | static_cast<int>(SA_RESETHAND)), 0);
    for (int signo = 1; signo < NSIG; ++signo) {
        EXPECT_NE(sigismember(&action.sa_mask, signo), 1) << signo;
    }
}

TEST_F(ProcessTest, TracesTheResultOfItsStart) {
    CapturedTraces traces;
    EXPECT_EQ(process_init(), 0);
    EXPECT_EQ(traces.texts_of("process_init"), (Texts{" ", "DONE"}));
    EXPECT_EQ(traces.all().front().code_file, "CODE_FILE=process.c");

    system_calls().sigaction_fails_for = SIGCHLD;
    traces = CapturedTraces();
    EXPECT_EQ(process_init(), -1);
    EXPECT_EQ(traces.texts_of("process_init"), (Texts{" ", "FAILED"}));
    system_calls().sigaction_fails_for = 0;
}

TEST_F(ProcessTest, RegistersAndForgetsAChild) {
    Task task = owner("/usr/bin/load_logger -t 10");
    task.flags = TASK_RUNNABLE;
    const CapturedTraces traces;
    EXPECT_EQ(process_add(NOBODY, &task), 0);
    EXPECT_EQ(task.child_pid, NOBODY);
    EXPECT_EQ(task.flags, std::uint32_t{TASK_RUNNABLE});
    EXPECT_EQ(traces.texts_of("process_add"), (Texts{"pid: 2147483632, task: /usr/bin/load_logger -t 10"}));

    EXPECT_EQ(process_remove(NOBODY), 0);
    EXPECT_EQ(task.child_pid, 0);
    EXPECT_EQ(task.flags, std::uint32_t{TASK_RUNNABLE} | TASK_REINIT);
    const Texts texts = traces.texts_of("process_remove");
    ASSERT_EQ(texts.size(), 4U);
    EXPECT_EQ(texts[0], "pid: 2147483632");
    EXPECT_EQ(texts[1], "FOUND");
    EXPECT_TRUE(texts[2].starts_with("dp->prev: 0x")) << texts[2]; // the head
    EXPECT_TRUE(texts[2].ends_with(" dp->next: (nil)")) << texts[2];
    EXPECT_EQ(texts[3], "DONE");
    EXPECT_EQ(traces.texts_of("d_list_remove").size(), 1U);
    EXPECT_EQ(traces.texts_of("d_list_delete").size(), 1U); // the node is freed

    EXPECT_EQ(process_remove(NOBODY), -1); // forgotten
}

TEST_F(ProcessTest, LinksItsChildrenAfterAHeadWithIdMinusTwo) {
    Task task = owner("x");
    const CapturedTraces traces;
    process_add(NOBODY, &task);
    EXPECT_TRUE(traces.texts_of("d_list_add").front().ends_with(" P: -2 N: -1"))
        << traces.texts_of("d_list_add").front();
    process_remove(NOBODY);
}

TEST_F(ProcessTest, TracesThatAnUnknownChildIsMissing) {
    Task task = owner("x");
    EXPECT_EQ(process_remove(NOBODY), -1); // nothing registered
    process_add(NOBODY, &task);
    const CapturedTraces traces;
    EXPECT_EQ(process_remove(NOBODY - 1), -1);
    EXPECT_EQ(traces.texts_of("process_remove"), (Texts{"pid: 2147483631", "MISSING"}));
    EXPECT_EQ(task.child_pid, NOBODY);
    EXPECT_FALSE(task_has(&task, TASK_REINIT));
    process_remove(NOBODY);
}

TEST_F(ProcessTest, FindsTheNewestFirst) {
    std::array<Task, 3> tasks{owner("first"), owner("second"), owner("third")};
    for (int i = 0; i < 3; ++i) {
        process_add(NOBODY - i, &tasks[static_cast<std::size_t>(i)]);
    }
    const CapturedTraces traces;
    EXPECT_EQ(process_remove(NOBODY), 0); // the oldest: the search compares two others first
    EXPECT_EQ(traces.texts_of("process_cmp"),
              (Texts{"val: 2147483630 pid: 2147483632", "val: 2147483631 pid: 2147483632",
                     "val: 2147483632 pid: 2147483632"}));
    EXPECT_EQ(traces.texts_of("d_list_search").size(), 3U + 1U); // the head is skipped, the last is the match
    EXPECT_EQ(tasks[0].child_pid, 0);
    EXPECT_EQ(tasks[1].child_pid, NOBODY - 1);
    EXPECT_EQ(process_remove(NOBODY - 1), 0); // from the middle of the list
    EXPECT_EQ(process_remove(NOBODY - 2), 0);
    EXPECT_EQ(process_remove(NOBODY - 2), -1);
}

TEST_F(ProcessTest, ComparesTheTasksChildWithThePid) {
    Task task = owner("x");
    task.child_pid = 12;
    const CapturedTraces traces;
    const pid_t same = 12;
    const pid_t other = 13;
    EXPECT_EQ(process_cmp(&task, &same), 1);
    EXPECT_EQ(process_cmp(&task, &other), 0);
    EXPECT_EQ(traces.texts_of("process_cmp"), (Texts{"val: 12 pid: 12", "val: 12 pid: 13"}));
}

TEST_F(ProcessTest, LeavesTheTaskAloneWhenOutOfMemory) {
    Task task = owner("x");
    task.child_pid = 5;
    {
        const MemoryFault fault(1);
        EXPECT_EQ(process_add(NOBODY, &task), -1);
        EXPECT_TRUE(MemoryFault::happened());
    }
    EXPECT_EQ(task.child_pid, 5);
    EXPECT_EQ(process_remove(NOBODY), -1);
}

TEST_F(ProcessTest, TracesATaskWithoutParameter) {
    Task task = owner(nullptr);
    const CapturedTraces traces;
    process_add(NOBODY, &task);
    EXPECT_EQ(traces.texts_of("process_add"), (Texts{"pid: 2147483632, task: "}));
    process_remove(NOBODY);
}

TEST_F(ProcessTest, ReapsAllThatHaveEndedInOneCall) {
    std::array<Task, 2> tasks{owner("first"), owner("second")};
    std::array<pid_t, 2> children{};
    for (std::size_t i = 0; i < 2; ++i) {
        children[i] = ended_child();
        process_add(children[i], &tasks[i]);
    }
    const pid_t stranger = ended_child(); // is reaped too, though not registered
    const CapturedTraces traces;
    handle(SIGCHLD);
    for (const Task &task : tasks) {
        EXPECT_EQ(task.child_pid, 0);
        EXPECT_TRUE(task_has(&task, TASK_REINIT));
    }
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    const Texts removals = traces.texts_of("process_remove");
    EXPECT_TRUE(traces.has("process_remove", "pid: " + std::to_string(stranger)));
    EXPECT_EQ(std::count(removals.begin(), removals.end(), "MISSING"), 1);
    EXPECT_EQ(traces.texts_of("sig_child_handler"),
              (Texts{"signal: 17", "signo: 17 errno: 1 code: 1 pid: 77 uid: 88 status: 3", "signal: 17 DONE"}));
}

TEST_F(ProcessTest, LeavesRunningChildrenAlone) {
    std::array<int, 2> pipe_ends{};
    ASSERT_EQ(pipe(pipe_ends.data()), 0);
    const pid_t child = fork();
    if (child == 0) { // lives until the pipe closes
        close(pipe_ends[1]);
        char end = 0;
        _exit(static_cast<int>(read(pipe_ends[0], &end, 1)));
    }
    close(pipe_ends[0]);
    Task task = owner("x");
    process_add(child, &task);
    handle(SIGCHLD);
    EXPECT_EQ(task.child_pid, child);
    EXPECT_FALSE(task_has(&task, TASK_REINIT));
    close(pipe_ends[1]);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    process_remove(child);
}

TEST_F(ProcessTest, ReapsNothingOnAFalseEvent) {
    Task task = owner("x");
    const pid_t child = ended_child();
    process_add(child, &task);
    const CapturedTraces traces;
    handle(SIGUSR1); // its siginfo is not for SIGCHLD
    EXPECT_EQ(task.child_pid, child);
    EXPECT_EQ(traces.texts_of("sig_child_handler"),
              (Texts{"signal: 10", "signo: 17 errno: 1 code: 1 pid: 77 uid: 88 status: 3", "false event"}));
    handle(SIGCHLD);
    EXPECT_EQ(task.child_pid, 0);
}

TEST_F(ProcessTest, KeepsErrno) {
    Task task = owner("x");
    process_add(ended_child(), &task);
    errno = ENOENT;
    handle(SIGCHLD); // its last waitpid finds no child
    EXPECT_EQ(errno, ENOENT);
    handle(SIGUSR1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(ProcessTest, HandlesTheEndOfARealChildAtASafePoint) {
    Task task = owner("x");
    const pid_t child = ended_child();
    process_add(child, &task);
    const CapturedTraces traces;
    signals_wait(signals_handled()); // the kernel's SIGCHLD may come slightly after the end
    EXPECT_EQ(task.child_pid, 0);
    EXPECT_TRUE(traces.has("sig_child_handler", "signo: 17 errno: 0 code: 1 pid: " + std::to_string(child) +
                                                    " uid: " + std::to_string(getuid()) + " status: 3"));
}

TEST_F(ProcessTest, BlocksSigchldForAWhile) {
    for (const bool blocked_before : {false, true, false}) {
        set_blocked(SIGCHLD, blocked_before);
        const CapturedTraces traces;
        process_suspend_sig();
        EXPECT_TRUE(is_blocked(SIGCHLD));
        EXPECT_FALSE(is_blocked(SIGALRM));
        process_continue_sig();
        EXPECT_EQ(is_blocked(SIGCHLD), blocked_before);
        EXPECT_EQ(traces.texts_of("process_suspend_sig"), (Texts{" "}));
        EXPECT_EQ(traces.texts_of("process_continue_sig"), (Texts{" "}));
    }
}

} // namespace
