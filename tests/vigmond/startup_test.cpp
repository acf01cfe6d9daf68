#include "vigmond/startup.h"

#include "captured_traces.h"
#include "cleanup.h"
#include "gdata.h"
#include "handle.h"
#include "in_child.h"
#include "memory_fault.h"
#include "process_state.h"
#include "sample_task.h"
#include "scratch_folder.h"
#include "signals.h"
#include "trace.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

int failing_sigaction = 0; ///< number of the call to fail, from 1; 0: none
int sigaction_calls = 0;   ///< counted while one must fail

} // namespace

extern "C" {
int __real_sigaction(int signo, const struct sigaction *action, struct sigaction *previous);

int __wrap_sigaction(int signo, const struct sigaction *action, struct sigaction *previous) {
    if (failing_sigaction > 0 && ++sigaction_calls == failing_sigaction) {
        errno = EINVAL;
        return -1;
    }
    return __real_sigaction(signo, action, previous);
}
}

TEST(StandardStreams, AreOpenedWhereTheyAreClosed) {
    in_child([] {
        const int errors = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 10);
        for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            close(fd);
        }
        standard_streams_init();
        const int next = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        dup2(errors, STDERR_FILENO); // for the expectations
        EXPECT_GT(next, STDERR_FILENO);
        EXPECT_EQ(write(STDOUT_FILENO, "", 1), 1);
        char nothing = 0;
        EXPECT_EQ(read(STDIN_FILENO, &nothing, 1), 0);
    });
}

TEST(StandardStreams, AreLeftAloneWhereTheyAreOpen) {
    in_child([] {
        const int lowest = dup(STDIN_FILENO);
        close(lowest);
        standard_streams_init();
        const int next = dup(STDIN_FILENO);
        EXPECT_EQ(next, lowest);
        EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFD), 0);
    });
}

TEST(StandardStreams, NoOtherDescriptorIsOpened) {
    in_child([] {
        const int lowest = dup(STDERR_FILENO);
        close(lowest);
        close(STDIN_FILENO);
        standard_streams_init();
        EXPECT_EQ(dup(STDERR_FILENO), lowest);
    });
}

namespace {

namespace fs = std::filesystem;

/// The number of descriptors open on `path`; `flags` gets those of the last one.
int descriptors_of(const std::string &path, int *flags) {
    int found = 0;
    for (const fs::directory_entry &entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (fs::read_symlink(entry, gone) == path) {
            ++found;
            *flags = fcntl(std::stoi(entry.path().filename()), F_GETFD);
        }
    }
    return found;
}

/// Another daemon: a process that holds the lock of `folder` until it ends.
class OtherDaemon {
  public:
    explicit OtherDaemon(const ScratchFolder &folder) {
        std::array<int, 2> ready{};
        std::array<int, 2> end{};
        EXPECT_EQ(pipe2(ready.data(), O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(end.data(), O_CLOEXEC), 0);
        pid_ = fork();
        if (pid_ == 0) {
            close(end[1]);
            gdata_set_logfile((folder / "log").c_str());
            const char answer = is_single_proc() ? 'y' : 'n';
            char nothing = 0;
            const bool waited = write(ready[1], &answer, 1) == 1 && read(end[0], &nothing, 1) == 0;
            _exit(waited ? 0 : 1);
        }
        close(ready[1]);
        close(end[0]);
        end_ = end[1];
        char answer = 0;
        EXPECT_EQ(read(ready[0], &answer, 1), 1);
        EXPECT_EQ(answer, 'y');
        close(ready[0]);
    }
    ~OtherDaemon() { stop(); }
    OtherDaemon(const OtherDaemon &) = delete;
    OtherDaemon &operator=(const OtherDaemon &) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    void stop() {
        if (pid_ > 0) {
            close(end_);
            EXPECT_EQ(waitpid(pid_, nullptr, 0), pid_);
            pid_ = -1;
        }
    }

  private:
    pid_t pid_ = -1;
    int end_ = -1;
};

/// Runs `body` in a child whose log file is "log" in `folder`.
void in_daemon(const ScratchFolder &folder, const std::function<void()> &body) {
    in_child([&] {
        ASSERT_EQ(gdata_set_logfile((folder / "log").c_str()), folder / "log");
        body();
    });
}

/// The one attempt fails with these texts and leaves nothing open.
void expect_refused(const std::vector<std::string> &texts, const std::string &lock_file) {
    const CapturedTraces traces;
    EXPECT_FALSE(is_single_proc());
    EXPECT_EQ(traces.texts_of("is_single_proc"), texts);
    int flags = 0;
    EXPECT_EQ(descriptors_of(lock_file, &flags), 0);
    EXPECT_EQ(traces.all().front().line.substr(0, 4), "(3) ");
    EXPECT_EQ(traces.all().back().line.substr(0, 4), "(2) ");
}

TEST(SingleProcess, LeavesItsPidInALockFileNextToTheLogFile) {
    const ScratchFolder folder;
    in_daemon(folder, [&] {
        const CapturedTraces traces;
        EXPECT_TRUE(is_single_proc());
        EXPECT_EQ(traces.texts_of("is_single_proc"), std::vector<std::string>{" "});
        EXPECT_EQ(traces.all().front().code_file, "CODE_FILE=vigmond.c");
        EXPECT_EQ(traces.all().front().line.substr(0, 4), "(3) ");
        EXPECT_EQ(read_file(folder / ".lock"), std::to_string(getpid()) + "\n");
    });
}

TEST(SingleProcess, LockFileIsReadableByAllWritableByItsOwnerAndClosedOnExec) {
    const ScratchFolder folder;
    in_daemon(folder, [&] {
        umask(0);
        EXPECT_TRUE(is_single_proc());
        struct stat status {};
        EXPECT_EQ(stat((folder / ".lock").c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777U, 0644U);
        int flags = 0;
        EXPECT_EQ(descriptors_of(folder / ".lock", &flags), 1) << "stays open";
        EXPECT_EQ(flags & FD_CLOEXEC, FD_CLOEXEC);
    });
}

TEST(SingleProcess, LocksTheWholeFileForWriting) {
    const ScratchFolder folder;
    const OtherDaemon other(folder);
    const int file = open((folder / ".lock").c_str(), O_RDWR | O_CLOEXEC);
    struct flock lock {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = 1000000; // far after the pid
    lock.l_len = 1;
    EXPECT_EQ(fcntl(file, F_GETLK, &lock), 0);
    EXPECT_EQ(lock.l_type, F_WRLCK);
    EXPECT_EQ(lock.l_start, 0);
    EXPECT_EQ(lock.l_len, 0);
    EXPECT_EQ(lock.l_pid, other.pid());
    close(file);
}

TEST(SingleProcess, SecondCallSucceedsAtOnce) {
    const ScratchFolder folder;
    in_daemon(folder, [&] {
        EXPECT_TRUE(is_single_proc());
        fs::remove(folder / ".lock");
        EXPECT_TRUE(is_single_proc());
        EXPECT_FALSE(fs::exists(folder / ".lock"));
    });
}

// The file is opened, and emptied, before the lock is requested; kept.
TEST(SingleProcess, SecondInstanceFailsAndEmptiesTheFileOfTheFirst) {
    const ScratchFolder folder;
    const OtherDaemon other(folder);
    EXPECT_EQ(read_file(folder / ".lock"), std::to_string(other.pid()) + "\n");
    in_daemon(folder, [&] {
        expect_refused({" ", "Resource temporarily unavailable"}, folder / ".lock");
        EXPECT_FALSE(is_single_proc()) << "and tries again";
    });
    EXPECT_EQ(read_file(folder / ".lock"), "");
}

namespace {

/// What a failing start writes to stderr when that is a terminal.
std::string said_on_a_terminal() {
    const Descriptor terminal(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    EXPECT_EQ(grantpt(terminal.get()), 0);
    EXPECT_EQ(unlockpt(terminal.get()), 0);
    const Descriptor line(open(ptsname(terminal.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
    const Descriptor errors(dup(STDERR_FILENO));
    dup2(line.get(), STDERR_FILENO);
    EXPECT_FALSE(is_single_proc());
    dup2(errors.get(), STDERR_FILENO);
    const std::string end = "END";
    EXPECT_EQ(write(line.get(), end.c_str(), end.size()), 3);
    std::string text;
    for (char character = 0; !text.ends_with(end) && read(terminal.get(), &character, 1) == 1;) {
        text += character;
    }
    return text.substr(0, text.size() - end.size());
}

/// The same when stderr is not a terminal.
std::string said_elsewhere() {
    testing::internal::CaptureStderr();
    EXPECT_FALSE(is_single_proc());
    return testing::internal::GetCapturedStderr();
}

} // namespace

TEST(SingleProcess, SecondInstanceTellsATerminalWhoHoldsTheLock) {
    const ScratchFolder folder;
    const OtherDaemon other(folder);
    in_daemon(folder, [&] {
        const std::string line =
            "another vigmond holds " + folder / ".lock" + " (pid " + std::to_string(other.pid()) + ")";
        EXPECT_EQ(said_on_a_terminal(), line + "\r\n");
        EXPECT_EQ(said_elsewhere(), "");
    });
}

TEST(SingleProcess, TellsATerminalThatTheLockFileCannotBeOpened) {
    const ScratchFolder folder;
    in_daemon(folder, [&] {
        gdata_record().logfile = "/dev/null/log";
        EXPECT_EQ(said_on_a_terminal(), "cannot open /dev/null/.lock: Not a directory\r\n");
        EXPECT_EQ(said_elsewhere(), "");
    });
}

TEST(SingleProcess, TwoLogFilesInOneFolderShareTheLock) {
    const ScratchFolder folder;
    const OtherDaemon other(folder);
    in_child([&] {
        gdata_set_logfile((folder / "another").c_str());
        EXPECT_FALSE(is_single_proc());
    });
}

TEST(SingleProcess, AnotherFolderHasItsOwnLock) {
    const ScratchFolder folder;
    const ScratchFolder elsewhere;
    const OtherDaemon other(folder);
    in_daemon(elsewhere, [] { EXPECT_TRUE(is_single_proc()); });
    EXPECT_EQ(read_file(folder / ".lock"), std::to_string(other.pid()) + "\n");
}

TEST(SingleProcess, LockEndsWithItsProcess) {
    const ScratchFolder folder;
    OtherDaemon other(folder);
    other.stop();
    in_daemon(folder, [] { EXPECT_TRUE(is_single_proc()); });
}

TEST(SingleProcess, EmptiesAStaleLockFile) {
    const ScratchFolder folder;
    folder.write(".lock", "1234567890\nstale\n");
    in_daemon(folder, [&] {
        EXPECT_TRUE(is_single_proc());
        EXPECT_EQ(read_file(folder / ".lock"), std::to_string(getpid()) + "\n");
    });
}

TEST(SingleProcess, DoesNotFollowALinkInPlaceOfItsFile) {
    const ScratchFolder folder;
    const std::string foreign = folder.write("foreign", "what stood there");
    for (const std::string &target : {foreign, folder / "missing"}) {
        fs::create_symlink(target, folder / ".lock");
        in_daemon(folder, [&] { expect_refused({" ", "Too many levels of symbolic links"}, folder / ".lock"); });
        fs::remove(folder / ".lock");
    }
    EXPECT_EQ(read_file(foreign), "what stood there");
    EXPECT_FALSE(fs::exists(folder / "missing"));
}

// Only the lock matters: a pid that cannot be written is not an error.
TEST(SingleProcess, SucceedsWithoutRoomForItsPid) {
    const ScratchFolder folder;
    in_daemon(folder, [&] {
        const CapturedTraces traces;
        bool single = false;
        {
            const FileSizeLimit full(0);
            single = is_single_proc();
        }
        EXPECT_TRUE(single);
        EXPECT_EQ(traces.texts_of("is_single_proc"), std::vector<std::string>{" "});
        EXPECT_EQ(read_file(folder / ".lock"), "");
        int flags = 0;
        EXPECT_EQ(descriptors_of(folder / ".lock", &flags), 1) << "stays locked";
    });
}

TEST(SingleProcess, RelativeNameOfOneLetterHasItsLockInTheWorkingFolder) {
    const ScratchFolder folder;
    in_child([&] {
        ASSERT_EQ(chdir(folder.path().c_str()), 0);
        gdata_set_logfile("x");
        EXPECT_TRUE(is_single_proc());
        EXPECT_EQ(read_file(folder / ".lock"), std::to_string(getpid()) + "\n");
    });
}

TEST(SingleProcess, FailsWithoutTheFolder) {
    const ScratchFolder folder;
    const std::string logfile = folder / "missing/log";
    in_child([&] {
        gdata_record().logfile = logfile.c_str();
        expect_refused({" ", "No such file or directory"}, folder / "missing/.lock");
    });
}

TEST(SingleProcess, FailsWhenTheLockFileCannotBeOpened) {
    const ScratchFolder folder;
    fs::create_directory(folder / ".lock");
    in_daemon(folder, [&] { expect_refused({" ", "Is a directory"}, folder / ".lock"); });
}

TEST(SingleProcess, FailsWithoutMemoryAndRecovers) {
    const ScratchFolder folder;
    for (const int nth : {1, 2}) {
        fs::remove(folder / ".lock");
        in_daemon(folder, [&] {
            const CapturedTraces traces;
            bool single = true;
            {
                const MemoryFault fault(nth);
                single = is_single_proc();
                EXPECT_TRUE(MemoryFault::happened()) << nth;
            }
            EXPECT_FALSE(single);
            EXPECT_EQ(traces.texts_of("is_single_proc"), (std::vector<std::string>{" ", "out of memory"}));
            EXPECT_EQ(traces.all().back().line.substr(0, 4), "(2) ");
            EXPECT_FALSE(fs::exists(folder / ".lock"));
            EXPECT_TRUE(is_single_proc());
        });
    }
}

struct sigaction installed(int signo) {
    struct sigaction action {};
    EXPECT_EQ(sigaction(signo, nullptr, &action), 0);
    return action;
}

std::vector<int> members(const sigset_t &set) {
    std::vector<int> found;
    for (int signo = 1; signo <= SIGRTMAX; ++signo) {
        if (sigismember(&set, signo) == 1) {
            found.push_back(signo);
        }
    }
    return found;
}

std::vector<int> blocked() {
    sigset_t set;
    pthread_sigmask(SIG_BLOCK, nullptr, &set);
    return members(set);
}

/// Runs `body` in a child in which no signal is blocked, ignored or handled, whatever the shell left.
void in_fresh_child(const std::function<void()> &body) {
    in_child([&] {
        for (const int signo : {SIGTERM, SIGQUIT, SIGHUP, SIGINT, SIGUSR1}) {
            std::signal(signo, SIG_DFL);
        }
        sigset_t none;
        sigemptyset(&none);
        pthread_sigmask(SIG_SETMASK, &none, nullptr);
        body();
    });
}

// The flags set by the caller; the C library adds its own.
constexpr unsigned OWN_FLAGS = SA_RESTART | SA_SIGINFO | SA_NODEFER | SA_RESETHAND | SA_NOCLDSTOP | SA_ONSTACK;

TEST(SignalInit, InstallsTheExitHandlerForFourSignals) {
    in_fresh_child([] {
        signal_init();
        for (const int signo : {SIGTERM, SIGQUIT, SIGHUP, SIGINT}) {
            const struct sigaction action = installed(signo);
            EXPECT_EQ(action.sa_handler, sig_exit_handler) << signo;
            EXPECT_EQ(static_cast<unsigned>(action.sa_flags) & OWN_FLAGS, 0U) << signo;
            EXPECT_EQ(members(action.sa_mask), (std::vector<int>{SIGHUP, SIGINT, SIGQUIT, SIGTERM})) << signo;
        }
    });
}

TEST(SignalInit, InstallsTheReinitHandlerForSigusr1) {
    in_fresh_child([] {
        signal_init();
        const struct sigaction action = installed(SIGUSR1);
        EXPECT_EQ(action.sa_handler, sig_reinit_handler);
        EXPECT_EQ(static_cast<unsigned>(action.sa_flags) & OWN_FLAGS, 0U);
        EXPECT_EQ(members(action.sa_mask), std::vector<int>{SIGALRM});
    });
}

TEST(SignalInit, LeavesOtherSignalsAlone) {
    in_fresh_child([] {
        const std::array others{SIGUSR2, SIGALRM, SIGCHLD, SIGPIPE, SIGSEGV, SIGTSTP};
        std::array<sighandler_t, others.size()> before{};
        std::array<sighandler_t, others.size()> after{};
        const auto handler = [](int signo) { return installed(signo).sa_handler; };
        std::transform(others.begin(), others.end(), before.begin(), handler);
        signal_init();
        std::transform(others.begin(), others.end(), after.begin(), handler);
        EXPECT_EQ(after, before);
    });
}

TEST(SignalInit, BlocksTheDaemonsSignals) {
    in_fresh_child([] {
        signal_init();
        EXPECT_EQ(blocked(), (std::vector<int>{SIGHUP, SIGINT, SIGQUIT, SIGUSR1, SIGTERM, SIGCHLD}));
        const sigset_t original = signals_original_mask();
        EXPECT_EQ(members(original), std::vector<int>{});
    });
}

TEST(SignalInit, TracesItsEntry) {
    in_fresh_child([] {
        const CapturedTraces traces;
        signal_init();
        ASSERT_EQ(traces.all().size(), 1U);
        EXPECT_EQ(traces.all()[0].function, "signal_init");
        EXPECT_EQ(traces.all()[0].text, " ");
        EXPECT_EQ(traces.all()[0].line.substr(0, 4), "(1) ");
        EXPECT_EQ(traces.all()[0].code_file, "CODE_FILE=vigmond.c");
    });
}

TEST(SignalInit, FirstFailureIsTracedAndInstallsNothingFurther) {
    const std::vector<int> order{SIGTERM, SIGQUIT, SIGHUP, SIGINT, SIGUSR1};
    const std::vector<std::string> texts{"SIGTERM FAILED", "SIGQUIT FAILED", "SIGHUP  FAILED", "SIGINT  FAILED",
                                         "SIGUSR1 FAILED"};
    for (std::size_t failing = 0; failing < order.size(); ++failing) {
        in_fresh_child([&] {
            const CapturedTraces traces;
            failing_sigaction = static_cast<int>(failing) + 1;
            signal_init();
            EXPECT_EQ(sigaction_calls, failing_sigaction) << "nothing is tried after it";
            failing_sigaction = 0;
            EXPECT_EQ(traces.texts_of("signal_init"), (std::vector<std::string>{" ", texts[failing]}));
            EXPECT_EQ(traces.all().back().line.substr(0, 4), "(3) ");
            for (std::size_t i = 0; i < order.size(); ++i) {
                EXPECT_EQ(installed(order[i]).sa_handler != SIG_DFL, i < failing) << texts[i];
            }
        });
    }
}

/// The traces on stderr of a child that a signal killed.
std::string traces_of_exit(int signo) {
    testing::internal::CaptureStderr();
    const int status = run_child([signo] {
        trace_mode = TRACE_TRACE;
        signal_init();
        raise(signo);
        signals_safe_point();
        dprintf(STDERR_FILENO, "went on\n");
    });
    std::string printed = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 1);
    return printed;
}

TEST(ExitHandler, CleansUpAndEndsTheProcessWithStatus1) {
    for (const int signo : {SIGTERM, SIGQUIT, SIGHUP, SIGINT}) {
        SCOPED_TRACE(signo);
        const std::string printed = traces_of_exit(signo);
        const std::size_t entry = printed.find("vigmond.c: sig_exit_handler(");
        const std::size_t start = printed.find("cleanup.c: cleanup(");
        const std::size_t end = printed.find(") DONE\n", start);
        EXPECT_EQ(printed.substr(printed.rfind('\n', entry) + 1, 4), "(3) ");
        EXPECT_LT(entry, start);
        EXPECT_LT(start, end);
        EXPECT_NE(end, std::string::npos);
        EXPECT_EQ(printed.find("went on"), std::string::npos);
    }
}

TEST(ExitHandler, RunsTheRegisteredHandlersAndFlushesStreams) {
    const ScratchFolder folder;
    static std::FILE *file = nullptr;
    const int status = run_child([&] {
        file = std::fopen((folder / "out").c_str(), "we");
        cleanup_add([](void *) { return std::fputs("cleaned up", file); }, nullptr);
        sig_exit_handler(SIGTERM);
    });
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_EQ(read_file(folder / "out"), "cleaned up");
}

TEST(ReinitHandler, MarksEveryTaskAndChangesNothingElse) {
    in_fresh_child([] {
        std::array<Task, 3> tasks{sample_task(), sample_task(), sample_task()};
        tasks[0].next = &tasks[1];
        tasks[1].next = &tasks[2];
        tasks[0].flags = 0; // not runnable
        tasks[1].flags = 0x155555;
        tasks[2].flags = 0xaaaaa; // marked already
        gdata_set_tasks({.first = tasks.data(), .last = &tasks.back(), .count = 3});
        const GlobalData before = gdata_record();
        const CapturedTraces traces;
        sig_reinit_handler(SIGUSR1);
        EXPECT_EQ(tasks[0].flags, 0x2U);
        EXPECT_EQ(tasks[1].flags, 0x155557U);
        EXPECT_EQ(tasks[2].flags, 0xaaaaaU);
        EXPECT_EQ(tasks[0].next_run, 0);
        EXPECT_EQ(gdata_record().logfile, before.logfile);
        EXPECT_EQ(gdata_record().logsize, before.logsize);
        EXPECT_EQ(traces.texts_of("sig_reinit_handler"), std::vector<std::string>{" "});
        EXPECT_EQ(traces.all().front().line.substr(0, 4), "(3) ");
    });
}

TEST(ReinitHandler, RunsAtTheNextSafePoint) {
    in_fresh_child([] {
        Task task = sample_task();
        gdata_set_tasks({.first = &task, .last = &task, .count = 1});
        signal_init();
        raise(SIGUSR1);
        EXPECT_FALSE(task_has(&task, TASK_REINIT));
        signals_safe_point();
        EXPECT_TRUE(task_has(&task, TASK_REINIT));
    });
}

} // namespace
