#include "logfile.h"

#include "logfile_rig.h"
#include "process_state.h"
#include "signals.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::int64_t clock_step_seconds = 0; ///< by which each call of the clock advances it
std::int64_t monotonic_now = 0;
bool stat_fails = false;

int answer_stat(const char *path, struct stat *status) {
    errno = EACCES;
    return stat_fails ? -1 : fstatat(AT_FDCWD, path, status, 0);
}

} // namespace

extern "C" {
int __wrap_stat(const char *path, struct stat *status);
int __wrap_stat(const char *path, struct stat *status) { return answer_stat(path, status); }
int __wrap_stat64(const char *path, struct stat *status);
int __wrap_stat64(const char *path, struct stat *status) { return answer_stat(path, status); }
int __wrap___stat64_time64(const char *path, struct stat *status);
int __wrap___stat64_time64(const char *path, struct stat *status) { return answer_stat(path, status); }
int __wrap_clock_gettime(clockid_t clock, std::timespec *now);
int __wrap_clock_gettime(clockid_t /*clock*/, std::timespec *now) {
    *now = {.tv_sec = static_cast<std::time_t>(monotonic_now), .tv_nsec = 0};
    monotonic_now += clock_step_seconds;
    return 0;
}
int __wrap___clock_gettime64(clockid_t clock, std::timespec *now);
int __wrap___clock_gettime64(clockid_t clock, std::timespec *now) { return __wrap_clock_gettime(clock, now); }
}

namespace {

using testing::IsEmpty;
using testing::SizeIs;

constexpr const char *COLUMNS = "##\tname        \t    ID\t    ID\tinter-\t   min\t   min\t   max\t   max\tparam\n"
                                "##\t            \t      \t index\t   val\t  fail\t  warn\t  warn\t  fail\t\n"
                                "## date    time    \tstate\tID\tindex\tvalue\n";
const std::string START_HEADER = std::string("##\n##\t<time>\tSTART\tvigmond\n##\n") + COLUMNS;
const std::string ROTATE_HEADER = std::string("##\n##\t<time>\tROTATE\tvigmond\n##\n") + COLUMNS;
constexpr const char *FINISHED = "##\n##\t<time>\tFINISHED\tvigmond\n##\n";

class LogRotationTest : public LogfileTest {
  protected:
    /// A log of `size` bytes with the limit `limit`, its first header already written.
    void full_file(std::size_t size, std::int32_t limit) const {
        folder.write("logfile", std::string(size, 'x'));
        use(path);
        logfile_state().logsize = limit;
        logfile_state().logfile_header_written = 1;
    }
};

// A record of state 0 and text "x" is 19 (stamp) + 1 + 2 ("OK") + 1 + 1 + 1 (line feed) = 25 bytes.
TEST_F(LogRotationTest, HappensAtTheLimitAndNotAByteBefore) {
    full_file(100, 126);
    lf_print(0, "x", 0);
    EXPECT_THAT(rotations().calls, IsEmpty());
    logfile_state() = {};
    full_file(100, 125);
    lf_print(0, "x", 0);
    EXPECT_THAT(rotations().calls, SizeIs(1));
}

TEST_F(LogRotationTest, GetsTheClosedFileItsNameAndTheCount) {
    full_file(100, 100);
    logfile_state().logcount = 7;
    lf_print(0, "x", 0);
    ASSERT_THAT(rotations().calls, SizeIs(1));
    const Rotation &rotation = rotations().calls.front();
    EXPECT_EQ(rotation.name, path);
    EXPECT_EQ(rotation.count, 7);
    EXPECT_EQ(mask_times(rotation.content), std::string(100, 'x') + "<time>\tOK\tx\n");
    EXPECT_TRUE(rotation.stream_closed);
}

TEST_F(LogRotationTest, IsFollowedByAHeaderAndANewStream) {
    full_file(100, 100);
    lf_print(0, "x", 0);
    EXPECT_EQ(log(), ROTATE_HEADER);
    EXPECT_FALSE(logfile_state().logfile_stream);
    logfile_state().logsize = 10240;
    lf_print(0, "y", 0);
    EXPECT_EQ(log(), ROTATE_HEADER + "<time>\tOK\ty\n");
    EXPECT_THAT(rotations().calls, SizeIs(1));
}

TEST_F(LogRotationTest, HappensAfterEveryLineAtALimitOfOne) {
    start(path.c_str());
    logfile_state().logsize = 1;
    lf_print(0, "x", 0);
    lf_print(0, "y", 0);
    lf_print(0, "z", 0);
    ASSERT_THAT(rotations().calls, SizeIs(3));
    EXPECT_EQ(mask_times(rotations().calls[0].content), START_HEADER + "<time>\tOK\tx\n");
    EXPECT_EQ(mask_times(rotations().calls[1].content), ROTATE_HEADER + "<time>\tOK\ty\n");
    EXPECT_EQ(mask_times(rotations().calls[2].content), ROTATE_HEADER + "<time>\tOK\tz\n");
    EXPECT_EQ(log(), ROTATE_HEADER);
}

TEST_F(LogRotationTest, HappensWithARecordThatWasFilteredOut) {
    full_file(100, 100);
    logfile_state().loglevel = 1;
    lf_print(0, "x", 0);
    ASSERT_THAT(rotations().calls, SizeIs(1));
    EXPECT_EQ(rotations().calls[0].content, std::string(100, 'x'));
    EXPECT_EQ(log(), ROTATE_HEADER);
}

TEST_F(LogRotationTest, HappensWithTheClosingBlockTooSoThatAHeaderEndsTheLog) {
    full_file(100, 100);
    logfile_cleanup();
    ASSERT_THAT(rotations().calls, SizeIs(1));
    EXPECT_EQ(mask_times(rotations().calls[0].content), std::string(100, 'x') + FINISHED);
    EXPECT_EQ(log(), ROTATE_HEADER);
}

TEST_F(LogRotationTest, OfAnOversizeFileHappensWithTheFirstRecordNotAtTheStart) {
    folder.write("logfile", std::string(20000, 'x'));
    gdata_record().logsize = 10240;
    start(path.c_str());
    EXPECT_EQ(log(), std::string(20000, 'x') + START_HEADER);
    EXPECT_THAT(rotations().calls, IsEmpty());
    lf_print(0, "x", 0);
    EXPECT_THAT(rotations().calls, SizeIs(1));
    EXPECT_EQ(log(), ROTATE_HEADER);
}

TEST_F(LogRotationTest, IsTriedAgainWithTheNextRecordIfTheFileRemains) {
    rotations().remove = false;
    full_file(100, 100);
    lf_print(0, "x", 0);
    EXPECT_EQ(log(), std::string(100, 'x') + "<time>\tOK\tx\n" + ROTATE_HEADER);
    lf_print(0, "y", 0);
    EXPECT_THAT(rotations().calls, SizeIs(2));
}

// An operator's "> logfile" truncates it under the open stream.
TEST_F(LogRotationTest, UsesTheNewSizeOfATruncatedFile) {
    full_file(100, 126);
    lf_print(0, "x", 0);
    std::filesystem::resize_file(path, 0);
    lf_print(0, "y", 0);
    EXPECT_EQ(log(), "<time>\tOK\ty\n");
    EXPECT_THAT(rotations().calls, IsEmpty());
}

// --- a rotation that a termination aborts

class AbortedRotationTest : public LogRotationTest {
  public:
    AbortedRotationTest() {
        rotations().is_long = true;
        sigset_t held = signals_handled();
        pthread_sigmask(SIG_BLOCK, &held, &mask_);
    }
    ~AbortedRotationTest() override {
        const sigset_t held = signals_handled();
        constexpr std::timespec at_once{};
        while (sigtimedwait(&held, nullptr, &at_once) > 0) {
        }
        pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
        clock_step_seconds = 0;
    }

  private:
    sigset_t mask_{};
};

TEST_F(AbortedRotationTest, LeavesTheFileToTheClosingBlockAndToTheNextStart) {
    for (const int signo : {SIGTERM, SIGQUIT, SIGHUP, SIGINT}) {
        rotations().calls.clear();
        logfile_state() = {};
        full_file(100, 100);
        raise(signo);
        lf_print(0, "x", 0);
        EXPECT_THAT(rotations().calls, SizeIs(1));
        EXPECT_EQ(log(), std::string(100, 'x') + "<time>\tOK\tx\n");
        const sigset_t held = signals_handled();
        int taken = 0;
        sigwait(&held, &taken);
        logfile_cleanup();
        EXPECT_THAT(rotations().calls, SizeIs(1));
        EXPECT_EQ(log(), std::string(100, 'x') + "<time>\tOK\tx\n" + FINISHED);
    }
}

TEST_F(AbortedRotationTest, IsTriedAgainWithTheNextRecord) {
    full_file(100, 100);
    raise(SIGTERM);
    lf_print(0, "x", 0);
    lf_print(0, "y", 0);
    ASSERT_THAT(rotations().calls, SizeIs(2));
    EXPECT_EQ(log(), std::string(100, 'x') + "<time>\tOK\tx\n<time>\tOK\ty\n");
}

TEST_F(AbortedRotationTest, IsNotCausedByOtherSignals) {
    full_file(100, 100);
    raise(SIGUSR1);
    raise(SIGCHLD);
    lf_print(0, "x", 0);
    EXPECT_EQ(log(), ROTATE_HEADER);
}

TEST_F(AbortedRotationTest, IsNotPossibleAfterTenSeconds) {
    clock_step_seconds = 10;
    full_file(100, 100);
    logfile_cleanup();
    EXPECT_EQ(log(), ROTATE_HEADER);
    clock_step_seconds = 11;
    full_file(100, 100);
    logfile_cleanup();
    EXPECT_EQ(log(), std::string(100, 'x') + FINISHED);
}

// --- a file that is removed

using LostFileTest = LogRotationTest;

TEST_F(LostFileTest, IsWrittenToUntilTheNextHeartbeat) {
    start(path.c_str());
    lf_print(0, "x", 0);
    std::filesystem::remove(path);
    lf_print(0, "lost with the file", 0);
    EXPECT_FALSE(std::filesystem::exists(path));
    logfile_follow_name();
    EXPECT_EQ(log(), ROTATE_HEADER);
    lf_print(0, "y", 0);
    EXPECT_EQ(log(), ROTATE_HEADER + "<time>\tOK\ty\n");
}

TEST_F(LostFileTest, IsFollowedByTheFileThatTookItsPlace) {
    start(path.c_str());
    lf_print(0, "x", 0);
    std::filesystem::rename(path, folder / "moved");
    folder.write("logfile", "another\n");
    logfile_follow_name();
    lf_print(0, "y", 0);
    EXPECT_EQ(log(), "another\n" + ROTATE_HEADER + "<time>\tOK\ty\n");
    EXPECT_EQ(mask_times(read_file(folder / "moved")), START_HEADER + "<time>\tOK\tx\n");
}

TEST_F(LostFileTest, IsKeptUntilItCanBeReplaced) {
    const std::string sub = folder / "sub";
    const std::string file = sub + "/logfile";
    std::filesystem::create_directory(sub);
    start(file.c_str());
    lf_print(0, "x", 0);
    std::filesystem::rename(sub, folder / "moved");
    logfile_follow_name();
    lf_print(0, "y", 0);
    std::filesystem::create_directories(file); // a folder in place of the file
    logfile_follow_name();
    lf_print(0, "z", 0);
    EXPECT_EQ(mask_times(read_file(folder / "moved/logfile")),
              START_HEADER + "<time>\tOK\tx\n<time>\tOK\ty\n<time>\tOK\tz\n");
    std::filesystem::remove(file);
    logfile_follow_name();
    EXPECT_EQ(mask_times(read_file(file)), ROTATE_HEADER);
}

TEST_F(LostFileTest, IsNotReopenedWhileItsNameLeadsToIt) {
    const std::string target = folder.write("target", "");
    std::filesystem::create_symlink(target, path);
    start(path.c_str());
    logfile_follow_name(); // nothing is open yet
    lf_print(0, "x", 0);
    logfile_follow_name();
    std::filesystem::remove(path);
    std::filesystem::create_hard_link(target, path);
    logfile_follow_name();
    stat_fails = true;
    logfile_follow_name();
    stat_fails = false;
    EXPECT_EQ(log(), START_HEADER + "<time>\tOK\tx\n");
    EXPECT_THAT(traces.texts_of("logfile_follow_name"), IsEmpty());
}

TEST_F(LostFileTest, IsNoStandardStream) {
    const WorkingFolder here(folder.path());
    start("stdout");
    lf_print(0, "x", 0);
    logfile_follow_name();
    EXPECT_FALSE(std::filesystem::exists("stdout"));
    EXPECT_THAT(traces.texts_of("logfile_follow_name"), IsEmpty());
}

TEST_F(LostFileTest, ComesBackWithItsFolder) {
    const std::string sub = folder / "sub";
    const std::string file = sub + "/logfile";
    std::filesystem::create_directory(sub);
    start(file.c_str());
    std::filesystem::remove_all(sub);
    lf_print(0, "lost", 0);
    EXPECT_FALSE(std::filesystem::exists(sub));
    EXPECT_FALSE(logfile_state().logfile_stream);
    EXPECT_TRUE(traces.has("lf_print", file + ": No such file or directory"));
    std::filesystem::create_directory(sub);
    lf_print(0, "x", 0);
    EXPECT_EQ(mask_times(read_file(file)), "<time>\tOK\tx\n");
}

TEST_F(LostFileTest, ComesBackWhenTheFolderInItsPlaceHasGone) {
    rotations().remove = false;
    start(path.c_str());
    lf_print(0, "x", 0);
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    logfile_state().logsize = 1;
    lf_print(0, "rotates into the folder", 0);
    lf_print(0, "lost", 0);
    EXPECT_TRUE(std::filesystem::is_empty(path));
    EXPECT_FALSE(logfile_state().logfile_stream);
    logfile_state().logsize = 10240;
    std::filesystem::remove(path);
    lf_print(0, "y", 0);
    EXPECT_EQ(log(), "<time>\tOK\ty\n");
}

TEST_F(LostFileTest, FeedsThePipeInItsPlaceWithoutRotation) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const Descriptor reader(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    use(path);
    logfile_state().logsize = 1;
    lf_print(0, "x", 0);
    std::array<char, 100> text{};
    ASSERT_GT(read(reader.get(), text.data(), text.size() - 1), 0);
    EXPECT_EQ(mask_times(text.data()), "<time>\tOK\tx\n");
    EXPECT_THAT(rotations().calls, IsEmpty());
}

TEST_F(LostFileTest, DoesNotWaitForRoomInThePipeInItsPlace) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    const Descriptor reader(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    ASSERT_GE(fcntl(reader.get(), F_SETPIPE_SZ, 4096), 4096);
    use(path);
    lf_print(0, std::string(100000, 'y').c_str(), 0); // more than the pipe holds
    lf_print(0, "x", 0);
    EXPECT_TRUE(traces.has("lf_print", path + ": No space left on device"));
    EXPECT_TRUE(traces.has("lf_print", path + ": Resource temporarily unavailable"));
}

TEST_F(LostFileTest, DoesNotWaitForTheReaderOfAPipeInItsPlace) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    use(path);
    lf_print(0, "x", 0);
    lf_header(path.c_str());
    EXPECT_FALSE(logfile_state().logfile_stream);
    EXPECT_EQ(logfile_state().logfile_header_written, 0);
}

} // namespace
