#include "builtin.h"
#include "builtin/load.h"
#include "builtin/load/child.h"
#include "captured_syslog.h"
#include "captured_traces.h"
#include "handle.h"
#include "hang_guard.h"
#include "in_child.h"
#include "logger.h"
#include "memory_fault.h"
#include "process.h"
#include "process_state.h"
#include "sample_task.h"
#include "scratch_folder.h"
#include "signals.h"
#include "trace.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <linux/capability.h>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <utility>
#include <vector>

namespace {

/// Controls the next forks.
struct Forking {
    int error = 0;               ///< fork fails with this errno
    int hold = -1;               ///< the child continues when the other end of this pipe is closed
    int hold_other_end = -1;     ///< the child closes its copy
    int count = 0;               ///< forks so far
    bool child_was_held = false; ///< whether SIGCHLD was blocked at the last fork
};

Forking forking;

using Kill = std::pair<pid_t, int>;

/// All kills so far.
std::vector<Kill> kills;
bool kills_are_real = true;

bool is_blocked(int signo) {
    sigset_t mask;
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    return sigismember(&mask, signo) == 1;
}

} // namespace

extern "C" {
pid_t __real_fork();

pid_t __wrap_fork() {
    ++forking.count;
    forking.child_was_held = is_blocked(SIGCHLD);
    if (forking.error != 0) {
        errno = forking.error;
        return -1;
    }
    const pid_t pid = __real_fork();
    if (pid == 0 && forking.hold >= 0) {
        close(forking.hold_other_end);
        char end = 0;
        if (read(forking.hold, &end, 1) != 0) {
            _exit(99);
        }
    }
    return pid;
}

int __real_kill(pid_t pid, int signo) noexcept;

int __wrap_kill(pid_t pid, int signo) noexcept {
    kills.emplace_back(pid, signo);
    return kills_are_real ? __real_kill(pid, signo) : 0;
}
}

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::UnorderedElementsAreArray;

using Texts = std::vector<std::string>;

constexpr pid_t NOBODY = 0x7ffffff0; // above the kernel's largest pid
constexpr uid_t NOBODYS_UID = 65534;

/// Holds each child right after the fork, until released.
class HeldChildren {
  public:
    HeldChildren() {
        EXPECT_EQ(pipe2(ends_.data(), O_CLOEXEC), 0);
        forking.hold = ends_[0];
        forking.hold_other_end = ends_[1];
    }
    ~HeldChildren() {
        release();
        close(ends_[0]);
    }
    HeldChildren(const HeldChildren &) = delete;
    HeldChildren(HeldChildren &&) = delete;
    HeldChildren &operator=(const HeldChildren &) = delete;
    HeldChildren &operator=(HeldChildren &&) = delete;

    void release() {
        if (forking.hold >= 0) {
            close(ends_[1]);
            forking.hold = -1;
        }
    }

  private:
    std::array<int, 2> ends_{};
};

/// The wait status of a child that has ended.
int wait_status_of(pid_t pid) {
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return status;
}

void expect_exit(pid_t pid, int status) {
    const int wait_status = wait_status_of(pid);
    EXPECT_TRUE(WIFEXITED(wait_status)) << wait_status;
    EXPECT_EQ(WEXITSTATUS(wait_status), status);
}

void expect_terminated(pid_t pid) {
    const int wait_status = wait_status_of(pid);
    EXPECT_TRUE(WIFSIGNALED(wait_status)) << wait_status;
    EXPECT_EQ(WTERMSIG(wait_status), SIGTERM);
}

std::uint64_t bit_of(int signo) { return std::uint64_t{1} << (signo - 1); }

/// Each test body runs in its own process, with its own probe state, registry and children.
class LoadChildTest : public testing::Test {
  protected:
    void SetUp() override { logger_init(); }

    /// A marked task in state 1 whose child is the reporting program with `options`.
    Task load_task(const std::string &options = "") {
        parameter_ = CHILD_REPORT + (options.empty() ? "" : " " + options);
        Task task = sample_task();
        task.id = 31;
        task.index = 4;
        task.flags |= TASK_HAS_PARAMETER;
        task.parameter = parameter_.c_str();
        task.state = 1;
        task.do_log = 1;
        return task;
    }

    /// Puts the status log into the scratch folder.
    void set_logfile() const { EXPECT_EQ(gdata_set_logfile((folder / "log").c_str()), folder / "log"); }

    /// What the ended child reported under `name`.
    [[nodiscard]] Texts reported(const std::string &name, const std::string &file = "report") const {
        std::ifstream report(folder / file);
        Texts found;
        for (std::string line; std::getline(report, line);) {
            if (line.starts_with(name)) {
                found.push_back(line.substr(name.size() + 1));
            }
        }
        return found;
    }

    [[nodiscard]] std::uint64_t reported_mask(const std::string &name) const {
        const Texts lines = reported(name);
        EXPECT_THAT(lines, SizeIs(1));
        return lines.empty() ? 0 : std::stoull(lines[0], nullptr, 16);
    }

    /// Starts a child of `task` that keeps running; returns its process id.
    pid_t start_living(Task *task) const {
        set_logfile();
        const std::string pipe = folder / "alive";
        EXPECT_EQ(mkfifo(pipe.c_str(), 0600), 0);
        EXPECT_EQ(load_logger(task), 0);
        EXPECT_GE(Descriptor(open(pipe.c_str(), O_RDONLY | O_CLOEXEC)).get(), 0); // when it has reported
        return task->child_pid;
    }

    /// Starts the child of `task` and waits for its end.
    static void run_to_its_end(Task *task, int status = 0) {
        EXPECT_EQ(load_logger(task), 0);
        ASSERT_GT(task->child_pid, 0);
        expect_exit(task->child_pid, status);
    }
    /// The traces of a child that ends with status 1.
    std::string traces_of_failure(Task *task) const {
        const std::string traces = folder.write("traces", "");
        trace_mode = TRACE_TRACE;
        const RedirectedDescriptor errors(STDERR_FILENO, traces, O_WRONLY | O_APPEND);
        run_to_its_end(task, 1);
        return read_file(traces);
    }

    ScratchFolder folder;

  private:
    std::string parameter_;
};

// --- the command line

struct Command {
    std::string options; ///< "@" stands for the scratch folder
    std::string c;
    std::string t;
    std::string d; ///< likewise
};

class LoadCommandTest : public LoadChildTest, public testing::WithParamInterface<Command> {
  protected:
    [[nodiscard]] std::string in_place(std::string text) const {
        const std::size_t at = text.find('@');
        return at == std::string::npos ? text : text.replace(at, 1, folder.path());
    }
};

TEST_P(LoadCommandTest, HasAFixedOrderAndDefaults) {
    in_child([&] {
        const HangGuard guard;
        set_logfile();
        mkdir((folder / "other").c_str(), 0700);
        Task task = load_task(in_place(GetParam().options));
        run_to_its_end(&task);
        const std::string directory = in_place(GetParam().d);
        const std::string file = GetParam().d.starts_with("@/other") ? "other/report" : "report";
        EXPECT_THAT(reported("argument", file), ElementsAre("child_report", "-c", GetParam().c, "-t", GetParam().t,
                                                            "-d", directory, "-i", "CB31[4]"));
    });
}

INSTANTIATE_TEST_SUITE_P(Options, LoadCommandTest,
                         testing::Values(Command{"", "150", "6", "@"}, Command{"-t 10 -c 120 -d @/", "120", "10", "@/"},
                                         Command{"-d @/other -c 7", "7", "6", "@/other"},
                                         Command{"-c 7 -t 8", "7", "8", "@"}, Command{"-t8 -c7", "7", "8", "@"},
                                         Command{"-c 1 -c 2", "2", "6", "@"}));

INSTANTIATE_TEST_SUITE_P(Ignored, LoadCommandTest,
                         testing::Values(Command{"-x -c 7", "7", "6", "@"}, Command{"word -c 7 -t 8", "7", "8", "@"},
                                         Command{"-i other -t 8", "150", "8", "@"}, Command{"-t 8 -c", "150", "8", "@"},
                                         Command{"-- -c 7", "150", "6", "@"}));

INSTANTIATE_TEST_SUITE_P(EightWords, LoadCommandTest,
                         testing::Values(Command{"a b c d e -t 8", "150", "8", "@"},   // the eighth is "8"
                                         Command{"a b c d e f -t 8", "150", "6", "@"}, // is "-t", without a value
                                         Command{"a b c d e f g -t 8", "150", "6", "@"}));

TEST_F(LoadChildTest, ParsesTheOptionsAgainForEachChild) {
    in_child([&] {
        set_logfile();
        Task first = load_task("a -c 7 b");
        run_to_its_end(&first);
        load_init(&first); // allows another child
        Task second = load_task("-t 9");
        run_to_its_end(&second);
        EXPECT_THAT(reported("argument"),
                    ElementsAre("child_report", "-c", "150", "-t", "9", "-d", folder.path().string(), "-i", "CB31[4]"));
    });
}

TEST_F(LoadChildTest, KeepsTheTasksParameter) {
    in_child([&] {
        set_logfile();
        Task task = load_task("-c 7 -t 8");
        const std::string before = task.parameter;
        run_to_its_end(&task);
        EXPECT_EQ(task.parameter, before);
    });
}

TEST_F(LoadChildTest, GetsTheWholeIssueWhateverItsNumbers) {
    in_child([&] {
        set_logfile();
        Task task = load_task();
        task.id = -2147483647;
        task.index = -2147483647; // the longest issue text
        run_to_its_end(&task);
        EXPECT_EQ(reported("argument").back(), "CB-2147483647[-2147483647]");
    });
}

TEST_F(LoadChildTest, TheDirectoryIsTheCurrentOneForALogFileWithoutAFolder) {
    in_child([&] {
        const WorkingFolder current(folder.path());
        EXPECT_STREQ(gdata_set_logfile("log"), "log");
        Task task = load_task();
        run_to_its_end(&task);
        EXPECT_THAT(reported("argument"), testing::Contains(".").Times(1));
    });
}

TEST_F(LoadChildTest, TheDirectoryIsTheRootForALogFileInIt) {
    in_child([&] {
        const std::string traces = folder.write("traces", "");
        gdata_record().logfile = "/log"; // the setter would create the file
        trace_mode = TRACE_TRACE;
        const RedirectedDescriptor errors(STDERR_FILENO, traces, O_WRONLY | O_APPEND);
        Task task = load_task();
        task.parameter = "/missing/program";
        load_logger(&task);
        wait_status_of(task.child_pid);
        EXPECT_THAT(read_file(traces), HasSubstr("\"-d\", \"/\", \"-i\""));
    });
}

// --- what the program is given

TEST_F(LoadChildTest, TheEnvironmentHoldsThePathOnly) {
    in_child([&] {
        set_logfile();
        setenv("VIGMOND_TEST", "1", 1);
        Task task = load_task();
        run_to_its_end(&task);
        EXPECT_THAT(reported("environment"), ElementsAre("PATH=/usr/bin:/usr/sbin:/home/tovik/bin"));
    });
}

TEST_F(LoadChildTest, LeadsItsOwnSessionAndGroup) {
    in_child([&] {
        set_logfile();
        Task task = load_task();
        run_to_its_end(&task);
        EXPECT_THAT(reported("leads its group"), ElementsAre("1"));
        EXPECT_THAT(reported("leads its session"), ElementsAre("1"));
    });
}

TEST_F(LoadChildTest, InheritsNoDescriptorOfTheDaemon) {
    in_child([&] {
        set_logfile();
        Texts inheritable;
        for (const int fd : descriptors_open_over_exec()) {
            inheritable.push_back(std::to_string(fd));
        }
        const CapturedTraces traces;
        Task task = load_task();
        const auto before = open_descriptors();
        run_to_its_end(&task);
        EXPECT_EQ(open_descriptors(), before);
        EXPECT_THAT(reported("descriptor"), UnorderedElementsAreArray(inheritable));
    });
}

void ignore_handler(int /*signo*/) {}

TEST_F(LoadChildTest, GetsTheMaskOfTheStartAndTheDefaultOfEachHandledSignal) {
    in_child([&] {
        set_logfile();
        sigset_t at_start;
        sigemptyset(&at_start);
        for (const int signo : {SIGUSR2, SIGCHLD, SIGALRM}) {
            sigaddset(&at_start, signo);
        }
        sigprocmask(SIG_SETMASK, &at_start, nullptr);
        signals_block();
        process_init();
        for (const int signo : {SIGALRM, SIGUSR1, SIGTERM, SIGQUIT}) {
            std::signal(signo, ignore_handler);
        }
        for (const int signo : {SIGHUP, SIGINT}) {
            std::signal(signo, SIG_IGN);
        }
        Task task = load_task();
        run_to_its_end(&task);
        EXPECT_EQ(reported_mask("SigBlk:"), bit_of(SIGUSR2)); // not SIGCHLD, not the heartbeat
        for (const int signo : {SIGALRM, SIGCHLD, SIGUSR1, SIGTERM, SIGQUIT, SIGHUP, SIGINT}) {
            EXPECT_EQ(reported_mask("SigIgn:") & bit_of(signo), 0U) << signo;
        }
    });
}

TEST_F(LoadChildTest, IgnoresTheFailedWritesThatTheDaemonWasStartedToIgnore) {
    for (const int ignored : {SIGPIPE, SIGXFSZ}) {
        in_child([&] {
            set_logfile();
            std::signal(SIGPIPE, SIG_DFL);
            std::signal(SIGXFSZ, SIG_DFL);
            std::signal(ignored, SIG_IGN);
            signals_ignore_failed_writes();
            Task task = load_task();
            run_to_its_end(&task);
            EXPECT_EQ(reported_mask("SigIgn:") & (bit_of(SIGPIPE) | bit_of(SIGXFSZ)), bit_of(ignored));
        });
    }
}

/// Becomes a user like the daemon's: not root, with inheritable capabilities.
void become_user_with_capabilities() {
    __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    constexpr std::uint32_t some = CAP_TO_MASK(CAP_SYS_RAWIO) | CAP_TO_MASK(CAP_DAC_READ_SEARCH);
    const std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets{
        {{.effective = some, .permitted = some, .inheritable = some}, {}}};
    ASSERT_EQ(prctl(PR_SET_KEEPCAPS, 1), 0);
    ASSERT_EQ(setresuid(NOBODYS_UID, NOBODYS_UID, NOBODYS_UID), 0);
    ASSERT_EQ(syscall(SYS_capset, &header, sets.data()), 0);
    for (const int capability : {CAP_SYS_RAWIO, CAP_DAC_READ_SEARCH}) {
        ASSERT_EQ(prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_RAISE, capability, 0, 0), 0);
    }
}

TEST_F(LoadChildTest, HasNoCapabilityOfTheDaemon) {
    in_child([&] {
        ASSERT_EQ(chown(folder.path().c_str(), NOBODYS_UID, NOBODYS_UID), 0);
        become_user_with_capabilities();
        set_logfile();
        Task task = load_task();
        run_to_its_end(&task);
        for (const char *set : {"CapInh:", "CapPrm:", "CapEff:", "CapAmb:"}) {
            EXPECT_EQ(reported_mask(set), 0U) << set;
        }
    });
}

TEST_F(LoadChildTest, IsNotSearchedForOnThePath) {
    in_child([&] {
        const WorkingFolder current(folder.path());
        set_logfile();
        Task task = load_task();
        task.parameter = "true"; // on every PATH
        run_to_its_end(&task, 1);
        std::filesystem::create_symlink(CHILD_REPORT, folder / "report_child");
        load_init(&task);
        task.child_pid = 0;
        task.do_log = 1;
        task.parameter = "report_child";
        run_to_its_end(&task);
        EXPECT_EQ(reported("argument").at(0), "report_child");
    });
}

// --- a program that cannot be started

TEST_F(LoadChildTest, AMissingProgramEndsTheChildWithStatus1) {
    in_child([&] {
        set_logfile();
        Task task = load_task();
        task.parameter = "/missing/program -c 7";
        const std::string text = traces_of_failure(&task);
        const std::string execve =
            "execve(\"/missing/program\", [\"program\", \"-c\", \"7\", \"-t\", \"6\", \"-d\", \"" +
            folder.path().string() + "\", \"-i\", \"CB31[4]\"])";
        const std::string child = std::to_string(task.child_pid);
        const std::size_t started = text.find("fork: child: pid: " + child + " param: \"/missing/program -c 7\"");
        const std::size_t first = text.find(execve, started);
        const std::size_t failed = text.find("child: exec failed: No such file or directory", first);
        EXPECT_NE(started, std::string::npos) << text;
        EXPECT_NE(first, std::string::npos) << text;
        EXPECT_NE(failed, std::string::npos) << text;
        EXPECT_NE(text.find(execve, failed), std::string::npos) << text; // once more
    });
}

TEST_F(LoadChildTest, AMissingProgramWithoutOptionsIsTracedAsWell) {
    in_child([&] {
        set_logfile();
        Task task = load_task();
        task.parameter = "/missing/program";
        const std::string text = traces_of_failure(&task);
        const std::size_t failed = text.find("child: exec failed: No such file or directory");
        EXPECT_NE(failed, std::string::npos) << text;
        EXPECT_NE(text.find("execve(\"/missing/program\", [\"program\", \"-c\", \"150\",", failed), std::string::npos)
            << text;
    });
}

TEST_F(LoadChildTest, AnUnknownOptionIsIgnored) {
    in_child([&] {
        set_logfile();
        Task task = load_task();
        task.parameter = "/missing/program -x -c 7";
        const std::string text = traces_of_failure(&task);
        EXPECT_THAT(text, HasSubstr("[\"program\", \"-c\", \"7\", \"-t\", \"6\","));
        EXPECT_THAT(text, Not(HasSubstr("invalid option")));
    });
}

TEST_F(LoadChildTest, AProgramThatMayNotBeRunIsTracedWithTheReason) {
    in_child([&] {
        set_logfile();
        const std::string program = folder.write("program", "");
        Task task = load_task();
        task.parameter = program.c_str();
        EXPECT_THAT(traces_of_failure(&task), HasSubstr("child: exec failed: Permission denied"));
    });
}

TEST_F(LoadChildTest, AParameterWithoutAProgramEndsTheChildWithStatus1) {
    in_child([&] {
        for (const char *parameter : {"", "  \t "}) {
            Task task = load_task();
            task.parameter = parameter;
            load_init(&task);
            run_to_its_end(&task, 1);
        }
    });
}

TEST_F(LoadChildTest, BufferedOutputOfTheDaemonIsWrittenOnce) {
    in_child([&] {
        const std::string path = folder.write("records", "");
        std::FILE *file = std::fopen(path.c_str(), "ae");
        ASSERT_NE(file, nullptr);
        std::fputs("record\n", file);
        Task task = load_task();
        task.parameter = "/missing/program";
        run_to_its_end(&task, 1);
        EXPECT_EQ(read_file(path), "");
        std::fclose(file);
        EXPECT_EQ(read_file(path), "record\n");
    });
}

// --- the parent

TEST_F(LoadChildTest, RegistersTheChildAndTracesItsOwnPid) {
    in_child([&] {
        set_logfile();
        Task task = load_task();
        task.value = 80;
        const std::uint32_t flags = task.flags;
        const CapturedTraces traces;
        const CapturedSyslog syslog;
        run_to_its_end(&task);
        EXPECT_EQ(task.flags, flags | TASK_HAS_CLEANUP);
        EXPECT_EQ(task.cleanup, load_cleanup);
        EXPECT_EQ(task.do_log, 0);
        EXPECT_THAT(syslog.messages(), SizeIs(1)); // the line of every threshold
        EXPECT_THAT(syslog.messages().at(0).text, HasSubstr("ID: CB31[4]: value: 80 "));
        EXPECT_THAT(traces.texts_of("load_logger"), ElementsAre(" ", "fork: parent: pid: " + std::to_string(getpid())));
        EXPECT_THAT(traces.texts_of("process_add"),
                    ElementsAre("pid: " + std::to_string(task.child_pid) + ", task: " + task.parameter));
        EXPECT_EQ(process_remove(task.child_pid), 0); // it was registered
    });
}

TEST_F(LoadChildTest, BlocksTheEndOfChildrenUntilTheChildIsRegistered) {
    in_child([&] {
        const HangGuard guard;
        set_logfile();
        process_init();
        const HeldChildren held;
        Task task = load_task();
        EXPECT_EQ(load_logger(&task), 0);
        EXPECT_TRUE(forking.child_was_held);
        EXPECT_FALSE(is_blocked(SIGCHLD));
        std::signal(SIGCHLD, SIG_DFL);
        load_cleanup(&task);
    });
}

TEST_F(LoadChildTest, RegistersTheChildBeforeItsEndCanBeSeen) {
    in_child([&] {
        set_logfile();
        Task task = load_task();
        const CapturedTraces traces;
        run_to_its_end(&task);
        Texts functions;
        for (const CapturedTrace &trace : traces.all()) {
            if (trace.function.starts_with("process_")) {
                functions.push_back(trace.function);
            }
        }
        EXPECT_THAT(functions, ElementsAre("process_suspend_sig", "process_add", "process_continue_sig"));
    });
}

TEST_F(LoadChildTest, NoticesTheEndOfTheChildAndMayStartAnother) {
    in_child([&] {
        const HangGuard guard;
        set_logfile();
        signals_block();
        process_init();
        forking.count = 0;
        Task task = load_task();
        EXPECT_EQ(load_logger(&task), 0);
        EXPECT_GT(task.child_pid, 0);
        sigset_t end_of_child;
        sigemptyset(&end_of_child);
        sigaddset(&end_of_child, SIGCHLD);
        signals_wait(end_of_child);
        EXPECT_EQ(task.child_pid, 0);
        EXPECT_TRUE(task_has(&task, TASK_REINIT));
        task.do_log = 1;
        EXPECT_EQ(load_logger(&task), 0); // not before the next run sees the mark
        EXPECT_EQ(forking.count, 1);
        load_exec(&task);
        EXPECT_FALSE(task_has(&task, TASK_REINIT));
        task.do_log = 1;
        EXPECT_EQ(load_logger(&task), 0);
        EXPECT_EQ(forking.count, 2);
        signals_wait(end_of_child);
    });
}

// --- when a child is started

TEST_F(LoadChildTest, StartsInEveryStateButGood) {
    for (const int state : {-2, -1, 0, 1, 2}) {
        in_child([&] {
            set_logfile();
            forking.count = 0;
            Task task = load_task();
            task.state = static_cast<std::int8_t>(state);
            EXPECT_EQ(load_logger(&task), 0);
            EXPECT_EQ(forking.count, state == 0 ? 0 : 1) << state;
            if (forking.count == 1) {
                expect_exit(task.child_pid, 0);
            }
        });
    }
}

void expect_no_child(Task task) {
    forking.count = 0;
    const auto pid = task.child_pid;
    EXPECT_EQ(load_logger(&task), 0);
    EXPECT_EQ(forking.count, 0);
    EXPECT_EQ(task.do_log, 0);
    EXPECT_EQ(task.child_pid, pid);
    EXPECT_EQ(task.cleanup, nullptr);
    EXPECT_FALSE(task_has(&task, TASK_HAS_CLEANUP));
}

TEST_F(LoadChildTest, StartsNothingWithoutAMarkAParameterOrWithAChild) {
    in_child([&] {
        Task unmarked = load_task();
        unmarked.do_log = 0;
        const CapturedSyslog syslog;
        expect_no_child(unmarked);
        EXPECT_THAT(syslog.messages(), IsEmpty());
        Task without_flag = load_task();
        without_flag.flags &= ~std::uint32_t{TASK_HAS_PARAMETER};
        expect_no_child(without_flag);
        Task without_text = load_task();
        without_text.parameter = nullptr;
        expect_no_child(without_text);
        Task with_child = load_task();
        with_child.child_pid = NOBODY;
        expect_no_child(with_child);
        EXPECT_THAT(syslog.messages(), SizeIs(3)); // the line is still written
    });
}

TEST_F(LoadChildTest, StartsOneChildForBothTasksUntilEitherIsMarkedForRestart) {
    for (const bool first_is_marked : {false, true}) {
        in_child([&] {
            set_logfile();
            Task first = load_task();
            run_to_its_end(&first);
            Task second = load_task();
            second.id = 32;
            expect_no_child(second);
            load_exec(&second);
            expect_no_child(second); // a run alone starts no child
            Task &marked = first_is_marked ? first : second;
            marked.flags |= TASK_REINIT;
            load_exec(&marked);
            EXPECT_NE(first.child_pid, 0); // still registered
            run_to_its_end(&second);
        });
    }
}

TEST_F(LoadChildTest, AReturnToGoodDoesNotStopTheChild) {
    in_child([&] {
        const HangGuard guard;
        Task task = load_task();
        const pid_t child = start_living(&task);
        task.state = 0;
        task.do_log = 1;
        EXPECT_EQ(load_logger(&task), 0);
        EXPECT_EQ(task.child_pid, child);
        EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0);
        kill(child, SIGKILL); // no other signal was sent
        EXPECT_EQ(WTERMSIG(wait_status_of(child)), SIGKILL);
    });
}

// --- what fails in the parent

TEST_F(LoadChildTest, AFailedForkIsTracedAndTriedAgainAtTheNextLine) {
    in_child([&] {
        set_logfile();
        process_init();
        std::signal(SIGCHLD, SIG_DFL);
        forking.count = 0;
        forking.error = EAGAIN;
        Task task = load_task();
        const std::uint32_t flags = task.flags;
        const CapturedTraces traces;
        EXPECT_EQ(load_logger(&task), -1);
        EXPECT_THAT(traces.texts_of("load_logger"), ElementsAre(" ", "fork failed: Resource temporarily unavailable"));
        EXPECT_EQ(task.child_pid, 0);
        EXPECT_EQ(task.flags, flags);
        EXPECT_EQ(task.cleanup, nullptr);
        EXPECT_THAT(traces.texts_of("process_add"), IsEmpty());
        EXPECT_FALSE(is_blocked(SIGCHLD));
        forking.error = 0;
        task.do_log = 1;
        run_to_its_end(&task);
        EXPECT_EQ(forking.count, 2);
    });
}

TEST_F(LoadChildTest, AUserWithTooManyProcessesGetsNoChild) {
    in_child([&] {
        if (geteuid() == 0) { // no limit holds root
            EXPECT_EQ(setresuid(NOBODYS_UID, NOBODYS_UID, NOBODYS_UID), 0);
        }
        rlimit limit{};
        getrlimit(RLIMIT_NPROC, &limit);
        const rlimit none{.rlim_cur = 0, .rlim_max = limit.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_NPROC, &none), 0);
        Task task = load_task();
        task.parameter = "/missing/program";
        {
            const CapturedTraces traces;
            EXPECT_EQ(load_logger(&task), -1);
            EXPECT_EQ(traces.texts_of("load_logger").back(), "fork failed: Resource temporarily unavailable");
        }
        EXPECT_EQ(task.child_pid, 0);
        ASSERT_EQ(setrlimit(RLIMIT_NPROC, &limit), 0);
        task.do_log = 1;
        run_to_its_end(&task, 1);
    });
}

TEST_F(LoadChildTest, DoesNotForkWhenOutOfMemory) {
    in_child([&] {
        set_logfile();
        forking.count = 0;
        for (const int allocation : {1, 2}) {
            Task task = load_task();
            const CapturedTraces traces;
            {
                const MemoryFault fault(allocation);
                EXPECT_EQ(load_logger(&task), -1);
                EXPECT_TRUE(MemoryFault::happened());
            }
            EXPECT_EQ(traces.texts_of("load_logger").back(), "fork failed: Cannot allocate memory");
            EXPECT_EQ(task.child_pid, 0);
            EXPECT_EQ(task.cleanup, nullptr);
        }
        EXPECT_EQ(forking.count, 0);
    });
}

TEST_F(LoadChildTest, EndsAChildThatCannotBeRegisteredAndForgetsItsPid) {
    in_child([&] {
        const HangGuard guard;
        set_logfile();
        const HeldChildren held;
        Task task = load_task();
        {
            const MemoryFault fault(3); // parameter, directory, list node
            EXPECT_EQ(load_logger(&task), 0);
            EXPECT_TRUE(MemoryFault::happened());
        }
        EXPECT_EQ(task.child_pid, 0);
        EXPECT_FALSE(task_has(&task, TASK_HAS_CLEANUP));
        EXPECT_EQ(task.cleanup, nullptr);
        int status = 0;
        EXPECT_GT(waitpid(-1, &status, 0), 0);
        EXPECT_TRUE(WIFSIGNALED(status));
        EXPECT_EQ(WTERMSIG(status), SIGTERM);
        const int before = forking.count;
        task.do_log = 1;
        load_logger(&task); // the task has no child yet
        EXPECT_EQ(forking.count, before + 1);
        load_cleanup(&task);
    });
}

// --- the cleanup

TEST_F(LoadChildTest, CleanupEndsTheWholeGroup) {
    in_child([&] {
        const HangGuard guard;
        Task task = load_task();
        const pid_t child = start_living(&task);
        const CapturedTraces traces;
        errno = ESRCH; // left by an earlier call
        EXPECT_EQ(load_cleanup(&task), 0);
        EXPECT_EQ(task.child_pid, 0);
        EXPECT_THAT(traces.texts_of("load_cleanup"), ElementsAre("pid: " + std::to_string(child)));
        EXPECT_THAT(kills, ElementsAre(Kill(-child, SIGTERM)));
        expect_terminated(child);
    });
}

TEST_F(LoadChildTest, CleanupEndsAChildThatHasNoGroupYet) {
    in_child([&] {
        const HangGuard guard;
        set_logfile();
        const HeldChildren held; // before its setsid
        Task task = load_task();
        load_logger(&task);
        const pid_t child = task.child_pid;
        EXPECT_EQ(load_cleanup(&task), 0);
        EXPECT_EQ(task.child_pid, 0);
        EXPECT_THAT(kills, ElementsAre(Kill(-child, SIGTERM), Kill(child, SIGTERM)));
        expect_terminated(child);
    });
}

int handled_in = -1;

void note_process(int /*signo*/) { EXPECT_EQ(write(handled_in, "x", 1), 1); }

TEST_F(LoadChildTest, AHeldChildDiesOfSigtermWithoutTheDaemonsHandler) {
    in_child([&] {
        const HangGuard guard;
        set_logfile();
        signals_block();
        const Descriptor notes(open((folder / "notes").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
        handled_in = notes.get();
        std::signal(SIGTERM, note_process);
        HeldChildren held;
        Task task = load_task();
        load_logger(&task);
        const pid_t child = task.child_pid;
        load_cleanup(&task);
        held.release();
        expect_terminated(child);
        EXPECT_EQ(read_file(folder / "notes"), "");
        EXPECT_THAT(reported("argument"), IsEmpty()); // never reached execve
    });
}

// kill(0) would hit the daemon's own group, kill(-1) every process, kill(1) init.
TEST_F(LoadChildTest, CleanupSignalsNothingWithoutAChildOfItsOwn) {
    in_child([&] {
        kills_are_real = false;
        for (const pid_t pid : {0, 1, -1, -2}) {
            Task task = load_task();
            task.child_pid = pid;
            const CapturedTraces traces;
            EXPECT_EQ(load_cleanup(&task), 0);
            EXPECT_EQ(task.child_pid, 0);
            EXPECT_THAT(kills, IsEmpty()) << pid;
            EXPECT_THAT(traces.texts_of("load_cleanup"), ElementsAre("pid: " + std::to_string(pid)));
        }
    });
}

TEST_F(LoadChildTest, CleanupOfAChildThatHasEndedDoesNoHarm) {
    in_child([&] {
        set_logfile();
        Task task = load_task();
        load_logger(&task);
        siginfo_t info{};
        waitid(P_PID, static_cast<id_t>(task.child_pid), &info, WEXITED | WNOWAIT); // ended, not reaped
        const pid_t child = task.child_pid;
        EXPECT_EQ(load_cleanup(&task), 0);
        expect_exit(child, 0);
        task.child_pid = NOBODY;
        EXPECT_EQ(load_cleanup(&task), 0);
        EXPECT_EQ(task.child_pid, 0);
    });
}

} // namespace
