#include "logfile.h"

#include "chosen_time.h"
#include "hang_guard.h"
#include "in_child.h"
#include "logfile_rig.h"
#include "memory_fault.h"
#include "sample_task.h"

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

// Formats every time stamp; fails while this is set.
namespace {
bool no_time = false;
int interruptions = 0; // number of writes that a signal interrupts
int empty_writes = 0;  // number of writes that write nothing
} // namespace
extern "C" std::size_t __real_strftime(char *buffer, std::size_t size, const char *format, const std::tm *time);
extern "C" std::size_t __wrap_strftime(char *buffer, std::size_t size, const char *format, const std::tm *time);
extern "C" std::size_t __wrap_strftime(char *buffer, std::size_t size, const char *format, const std::tm *time) {
    return no_time ? 0 : __real_strftime(buffer, size, format, time);
}
extern "C" ssize_t __real_writev(int fd, const iovec *pieces, int count);
extern "C" ssize_t __wrap_writev(int fd, const iovec *pieces, int count);
extern "C" ssize_t __wrap_writev(int fd, const iovec *pieces, int count) {
    if (interruptions > 0) {
        --interruptions;
        errno = EINTR;
        return -1;
    }
    if (empty_writes > 0) {
        --empty_writes;
        return 0;
    }
    return __real_writev(fd, pieces, count);
}

namespace {

using testing::ElementsAre;

using RecordTest = LogfileTest;

Task task_of(std::int32_t id, std::int32_t index, std::int32_t value) {
    Task task = sample_task();
    task.id = id;
    task.index = index;
    task.value = value;
    return task;
}

TEST_F(RecordTest, HasStampStateIdIndexAndValue) {
    use(path);
    Task task = task_of(5, 0, 42);
    EXPECT_EQ(logfile_exec(&task), 0);
    EXPECT_EQ(log(), "<time>\tOK\tCB05\t0\t42\n");
}

TEST_F(RecordTest, HasTheTimeOfItsSecond) {
    in_child([this] {
        setenv("TZ", "UTC0", 1);
        use(path);
        chosen_time = 1700049600; // noon of 15 November 2023
        lf_print(0, "x", 0);
        lf_print(0, "y", 0);
        ++*chosen_time;
        lf_print(0, "z", 0);
        EXPECT_EQ(read_file(path),
                  "2023-11-15 12:00:00\tOK\tx\n2023-11-15 12:00:00\tOK\ty\n2023-11-15 12:00:01\tOK\tz\n");
    });
}

TEST_F(RecordTest, IsWrittenAgainAfterAnInterruption) {
    use(path);
    interruptions = 2;
    Task task = task_of(5, 0, 42);
    logfile_exec(&task);
    EXPECT_EQ(interruptions, 0);
    EXPECT_EQ(log(), "<time>\tOK\tCB05\t0\t42\n");
}

TEST_F(RecordTest, WithNothingWrittenRemovesNothing) {
    folder.write("logfile", "what stood there\n");
    use(path);
    empty_writes = 2;
    lf_print(0, "lost", 0);
    lf_header(path.c_str());
    EXPECT_EQ(log(), "what stood there\n");
    EXPECT_TRUE(traces.has("lf_print", path + ": No space left on device"));
    lf_print(0, "x", 0);
    EXPECT_EQ(log(), "what stood there\n<time>\tOK\tx\n");
}

TEST_F(RecordTest, ShowsNumbersOfAnySize) {
    use(path);
    struct Case {
        std::int32_t id, index, value;
    };
    for (const Case &each : {Case{0, -1, INT_MIN}, Case{100, INT_MAX, INT_MAX}, Case{-1, 7, 0}}) {
        Task task = task_of(each.id, each.index, each.value);
        logfile_exec(&task);
    }
    EXPECT_EQ(log(), "<time>\tOK\tCB00\t-1\t-2147483648\n"
                     "<time>\tOK\tCB100\t2147483647\t2147483647\n"
                     "<time>\tOK\tCB-1\t7\t0\n");
}

TEST_F(RecordTest, WithoutAnIdShowsCBnn) {
    use(path);
    Task task = task_of(99, 3, 1);
    logfile_exec(&task);
    EXPECT_EQ(log(), "<time>\tOK\tCBnn\t3\t1\n");
}

TEST_F(RecordTest, OfAnInvalidValueIsAWarningNaNWhateverTheState) {
    use(path);
    for (const int state : {-2, 0, 2, 7}) {
        Task task = task_of(21, 0, 42);
        task.flags &= ~std::uint32_t{TASK_VALUE_VALID};
        task.state = static_cast<std::int8_t>(state);
        logfile_exec(&task);
    }
    EXPECT_EQ(log(), "<time>\tWARN\tCB21\t0\tNaN\n"
                     "<time>\tWARN\tCB21\t0\tNaN\n"
                     "<time>\tWARN\tCB21\t0\tNaN\n"
                     "<time>\tWARN\tCB21\t0\tNaN\n");
}

/// The label in the log of a valid record of `state`; empty when it was filtered out.
std::string label_at(const std::string &path, std::int32_t state, std::int32_t loglevel) {
    std::remove(path.c_str());
    logfile_state().logfile_stream.reset();
    logfile_state().loglevel = loglevel;
    lf_print(state, "x", 0);
    std::string line = mask_times(read_file(path));
    const std::string start = "<time>\t";
    const std::string end = "\tx\n";
    if (!line.starts_with(start) || !line.ends_with(end)) {
        return line;
    }
    return line.substr(start.size(), line.size() - start.size() - end.size());
}

TEST_F(RecordTest, OfAStatePassesFromTheStatesOwnLevelOn) {
    struct Case {
        std::int32_t state;
        const char *level1, *level2, *level3;
    };
    use(path);
    for (const Case &each : {
             Case{-2, "FAIL", "FAIL", "FAIL"},
             Case{-1, "", "WARN", "WARN"},
             Case{0, "", "", "OK"},
             Case{1, "", "WARN", "WARN"},
             Case{2, "FAIL", "FAIL", "FAIL"},
             Case{3, "", "WARN", "WARN"},
             Case{4, "FAIL", "FAIL", "FAIL"},
             Case{7, "INV", "INV", "INV"},
             Case{-3, "INV", "INV", "INV"},
         }) {
        EXPECT_EQ(label_at(path, each.state, 1), each.level1) << each.state;
        EXPECT_EQ(label_at(path, each.state, 2), each.level2) << each.state;
        EXPECT_EQ(label_at(path, each.state, 3), each.level3) << each.state;
    }
}

TEST_F(RecordTest, OfAKnownStateDoesNotPassLevelZero) {
    use(path);
    for (const std::int32_t state : {-2, -1, 0, 1, 2, 3, 4}) {
        EXPECT_EQ(label_at(path, state, 0), "") << state;
    }
}

TEST_F(RecordTest, OfAnUnknownStatePassesFromLevelMinusOneOn) {
    use(path);
    EXPECT_EQ(label_at(path, 7, 0), "INV");
    EXPECT_EQ(label_at(path, 7, -1), "INV");
    EXPECT_EQ(label_at(path, 7, -2), "");
}

TEST_F(RecordTest, TableEndsInARowThatIsNeverFound) {
    ASSERT_EQ(logfile_state_table.size(), 8U);
    EXPECT_EQ(logfile_state_table.back().state, -1);
    EXPECT_EQ(logfile_state_table.back().level, 2);
    EXPECT_STREQ(logfile_state_table.back().label, "INV");
    use(path);
    EXPECT_EQ(label_at(path, -1, 3), "WARN");
}

TEST_F(RecordTest, IsWrittenOnlyWithTheMarkAtOneAndLeavesTheMark) {
    use(path);
    for (const int mark : {0, 2, 1}) {
        Task task = task_of(5, 0, mark);
        task.do_logfile = static_cast<std::uint8_t>(mark);
        EXPECT_EQ(logfile_run(&task), 0);
        EXPECT_EQ(task.do_logfile, mark);
    }
    EXPECT_EQ(log(), "<time>\tOK\tCB05\t0\t1\n");
}

/// The stamp of the log's first record, read as if it were UTC.
std::time_t first_stamp(const std::string &path) {
    std::tm time{};
    return strptime(read_file(path).c_str(), "%Y-%m-%d %H:%M:%S\t", &time) == nullptr ? -1 : timegm(&time);
}

TEST_F(RecordTest, IsStampedInTheLocalTimeOfTheMoment) {
    use(path);
    struct Case {
        const char *zone;
        std::time_t seconds_ahead;
    };
    // POSIX zones: the hours to add to local time to get UTC. 5:45 h = 20700 s, 9 h = 32400 s.
    for (const Case &each : {Case{"AHEAD-5:45", 20700}, Case{"BEHIND9", -32400}}) {
        setenv("TZ", each.zone, 1);
        std::remove(path.c_str());
        logfile_state().logfile_stream.reset();
        logfile_state().stamp_time = -1; // otherwise the stamp cached in the previous zone is used for this second
        const std::time_t before = std::time(nullptr);
        lf_print(0, "x", 0);
        const std::time_t after = std::time(nullptr);
        EXPECT_GE(first_stamp(path), before + each.seconds_ahead) << each.zone;
        EXPECT_LE(first_stamp(path), after + each.seconds_ahead) << each.zone;
    }
    unsetenv("TZ");
}

TEST_F(RecordTest, GetsAStampOfZeroesWhenThereIsNoTime) {
    use(path);
    no_time = true;
    lf_print(0, "x", 0);
    no_time = false;
    EXPECT_EQ(read_file(path), "0000-00-00 00:00:00\tOK\tx\n");
}

TEST_F(RecordTest, OpensTheStreamEvenWhenItIsFilteredOut) {
    start(path.c_str());
    logfile_state().loglevel = 1;
    EXPECT_FALSE(logfile_state().logfile_stream);
    lf_print(0, "x", 0);
    EXPECT_TRUE(logfile_state().logfile_stream);
    EXPECT_EQ(logfile_state().logfile_is_file, 1);
}

TEST_F(RecordTest, OfAnyLengthIsWrittenWhole) {
    use(path);
    const std::string text(100000, 'y');
    lf_print(0, text.c_str(), 0);
    EXPECT_EQ(log(), "<time>\tOK\t" + text + "\n");
}

TEST_F(RecordTest, WithoutATextIsEmpty) {
    use(path);
    lf_print(0, nullptr, 0);
    EXPECT_EQ(log(), "<time>\tOK\t\n");
}

TEST_F(RecordTest, AllocatesNothing) {
    use(path);
    Task task = task_of(5, 0, 1);
    logfile_run(&task);
    const MemoryFault fault(1);
    for (int i = 0; i < 100; ++i) {
        logfile_run(&task);
    }
    EXPECT_FALSE(MemoryFault::happened());
}

TEST_F(RecordTest, IsTracedByEachOperationThatItPasses) {
    use(path);
    Task task = task_of(5, 0, 1);
    logfile_run(&task);
    for (const char *function : {"logfile_run", "logfile_exec", "lf_print"}) {
        EXPECT_THAT(traces.texts_of(function), ElementsAre(" ")) << function;
    }
    EXPECT_EQ(traces.all().back().function, "lf_print");
    EXPECT_EQ(traces.all().back().code_file, "CODE_FILE=logfile.c");
}

// Nothing is closed or flushed here: the record must have left the process.
TEST_F(RecordTest, SurvivesTheKillThatFollowsIt) {
    use(path);
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        Task task = task_of(5, 0, 42);
        logfile_run(&task);
        std::raise(SIGKILL);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(log(), "<time>\tOK\tCB05\t0\t42\n");
}

TEST_F(RecordTest, IsNotInheritedByProgramsThatTheDaemonStarts) {
    for (const char *name : {path.c_str(), "stderr", "stdout"}) {
        logfile_state() = {};
        use(name);
        logfile_state().loglevel = 1;
        lf_print(0, "filtered", 0);
        EXPECT_NE(fcntl(logfile_state().logfile_stream.get(), F_GETFD) & FD_CLOEXEC, 0) << name;
    }
}

// --- before logfile_init

TEST_F(RecordTest, BeforeInitIsWrittenNowhere) {
    gdata_record().logfile = path.c_str();
    Task task = task_of(5, 0, 1);
    EXPECT_EQ(logfile_run(&task), 0);
    EXPECT_EQ(logfile_cleanup(), 0); // as in a second daemon that is refused at start
    EXPECT_FALSE(std::filesystem::exists(path));
}

// --- markers

using MarkerTest = LogfileTest;

TEST_F(MarkerTest, IsWrittenAtTheEndWithTheCommandLine) {
    use(path);
    set_commandline({"/usr/bin/vigmond", "-S", "200"});
    EXPECT_EQ(logfile_cleanup(), 0);
    EXPECT_EQ(log(), "##\n##\t<time>\tFINISHED\t/usr/bin/vigmond \"-S\" \"200\"\n##\n");
    EXPECT_TRUE(logfile_state().logfile_stream);
}

TEST_F(MarkerTest, PassesEveryLevel) {
    use(path);
    logfile_state().loglevel = -5;
    lf_print(0, "NOTE", 1);
    EXPECT_EQ(log(), "##\n##\t<time>\tNOTE\tvigmond\n##\n");
}

TEST_F(MarkerTest, IsARecordWithAnyOtherMark) {
    use(path);
    lf_print(0, "NOTE", 2);
    EXPECT_EQ(log(), "<time>\tOK\tNOTE\n");
}

// --- names that are not files

using StandardStreamTest = LogfileTest;

/// Starts with the log `name`, then writes a record and the closing block with a limit that any file would exceed.
std::pair<std::string, std::string> outputs_of(const char *name) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    gdata_record().logfile = name;
    EXPECT_EQ(logfile_init(), 0);
    logfile_state().logsize = 1;
    lf_print(0, "x", 0);
    logfile_cleanup();
    return {mask_times(testing::internal::GetCapturedStdout()), mask_times(testing::internal::GetCapturedStderr())};
}

constexpr const char *BARE_LOG = "<time>\tOK\tx\n##\n##\t<time>\tFINISHED\tvigmond\n##\n";

TEST_F(StandardStreamTest, StderrTakesRecordsWithoutHeaderOrRotation) {
    for (const char *name : {"stderr", "STDERR", "StdErr"}) {
        logfile_state() = {};
        EXPECT_THAT(outputs_of(name), testing::Pair("", BARE_LOG)) << name;
        EXPECT_EQ(logfile_state().logfile_is_file, 0);
        EXPECT_EQ(logfile_state().logfile_header_written, 0);
    }
    EXPECT_THAT(rotations().calls, testing::IsEmpty());
}

TEST_F(StandardStreamTest, StdoutTakesRecordsWithoutHeaderOrRotation) {
    for (const char *name : {"stdout", "STDOUT", "StdOut"}) {
        logfile_state() = {};
        EXPECT_THAT(outputs_of(name), testing::Pair(BARE_LOG, "")) << name;
        EXPECT_EQ(logfile_state().logfile_is_file, 0);
        EXPECT_EQ(logfile_state().logfile_header_written, 0);
    }
    EXPECT_THAT(rotations().calls, testing::IsEmpty());
}

TEST_F(StandardStreamTest, TheNullDeviceTakesNothing) {
    for (const char *name : {"/dev/null", "/DEV/NULL", "/Dev/Null"}) {
        logfile_state() = {};
        EXPECT_THAT(outputs_of(name), testing::Pair("", "")) << name;
        EXPECT_STREQ(logfile_state().logfile_name.get(), name);
        EXPECT_EQ(logfile_state().logfile_header_written, 0);
        EXPECT_FALSE(logfile_state().logfile_stream) << name;
    }
}

TEST_F(StandardStreamTest, KeepsItsOrderWithBufferedStdio) {
    use("stdout");
    testing::internal::CaptureStdout();
    std::printf("before\n");
    lf_print(0, "x", 0);
    std::printf("after\n");
    EXPECT_EQ(mask_times(testing::internal::GetCapturedStdout()), "before\n<time>\tOK\tx\nafter\n");
}

TEST_F(StandardStreamTest, UsesNoNumberOfAClosedStandardStream) {
    in_child([] {
        use("stdout");
        close(STDERR_FILENO);
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC); // gets the number of stderr
        dup2(null, STDOUT_FILENO);
        close(null);
        lf_print(0, "x", 0);
        EXPECT_GT(logfile_state().logfile_stream.get(), STDERR_FILENO);
    });
}

TEST_F(StandardStreamTest, DoesNotBlockOnAPipeThatNobodyReads) {
    const HangGuard guard;
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
    const Descriptor ours(ends[0]);
    const Descriptor theirs(ends[1]);
    const std::string page(4096, 'x');
    while (write(theirs.get(), page.data(), page.size()) > 0) {
    }
    ASSERT_EQ(fcntl(theirs.get(), F_SETFL, 0), 0); // writes block from here on
    std::fflush(stdout);
    const Descriptor saved(dup(STDOUT_FILENO));
    ASSERT_EQ(dup2(theirs.get(), STDOUT_FILENO), STDOUT_FILENO);
    use("stdout");
    lf_print(0, "lost", 0);
    logfile_cleanup();
    EXPECT_EQ(traces.texts_of("lf_print"), (std::vector<std::string>{" ", "stdout: Resource temporarily unavailable",
                                                                     " ", "stdout: Resource temporarily unavailable"}));
    std::array<char, 4096> text{};
    while (read(ours.get(), text.data(), text.size()) > 0) {
    }
    lf_print(0, "x", 0);
    dup2(saved.get(), STDOUT_FILENO);
    text = {};
    ASSERT_GT(read(ours.get(), text.data(), text.size() - 1), 0);
    EXPECT_EQ(mask_times(text.data()), "<time>\tOK\tx\n");
}

TEST_F(StandardStreamTest, GetsEachEntryInOneWrite) {
    std::array<int, 2> ends{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends.data()), 0); // keeps write boundaries
    const Descriptor ours(ends[0]);
    const Descriptor theirs(ends[1]);
    std::fflush(stdout);
    const Descriptor saved(dup(STDOUT_FILENO));
    ASSERT_EQ(dup2(theirs.get(), STDOUT_FILENO), STDOUT_FILENO);
    use("stdout");
    lf_print(0, "x", 0);
    logfile_cleanup();
    dup2(saved.get(), STDOUT_FILENO);
    std::array<char, 200> packet{};
    ASSERT_GT(recv(ours.get(), packet.data(), packet.size(), MSG_DONTWAIT), 0);
    EXPECT_EQ(mask_times(packet.data()), "<time>\tOK\tx\n");
    packet = {};
    ASSERT_GT(recv(ours.get(), packet.data(), packet.size(), MSG_DONTWAIT), 0);
    EXPECT_EQ(mask_times(packet.data()), "##\n##\t<time>\tFINISHED\tvigmond\n##\n");
}

} // namespace
