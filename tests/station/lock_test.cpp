// One daemon per folder of the log file.

#include "station.h"

#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

using testing::EndsWith;
using testing::HasSubstr;

namespace {

const std::string LOCK_FILE = std::string(STATUS_FOLDER) + "/.lock";
constexpr const char *RUNNING = "vigmond is already running --> terminating\n";

std::string own_line(const Station &station) { return std::to_string(station.pid()) + "\n"; }

/// The flags of the process's descriptor for `path`; 0 when there is none.
int open_flags(pid_t pid, const std::string &path) {
    const std::string folder = "/proc/" + std::to_string(pid);
    for (const auto &entry : std::filesystem::directory_iterator(folder + "/fd")) {
        std::error_code error;
        if (std::filesystem::equivalent(entry.path(), path, error)) {
            const std::string info = read_file(folder + "/fdinfo/" + entry.path().filename().string());
            return std::stoi(info.substr(info.find("flags:") + 6), nullptr, 8);
        }
    }
    return 0;
}

/// The holder of a write lock on the whole file; 0 when there is none.
pid_t owner_of_lock(const std::string &path) {
    const Descriptor file(open(path.c_str(), O_RDWR | O_CLOEXEC));
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    EXPECT_EQ(fcntl(file.get(), F_GETLK, &lock), 0);
    const bool is_whole_write_lock =
        lock.l_type == F_WRLCK && lock.l_whence == SEEK_SET && lock.l_start == 0 && lock.l_len == 0;
    return is_whole_write_lock ? lock.l_pid : 0;
}

} // namespace

TEST(LockFile, HoldsTheProcessIdUnderAWriteLock) {
    Station station;
    station.start();
    const std::string path = station.files().host_path(LOCK_FILE);
    EXPECT_EQ(read_file(path), own_line(station));
    EXPECT_EQ(owner_of_lock(path), station.pid());
    EXPECT_NE(open_flags(station.pid(), path) & O_CLOEXEC, 0);
    EXPECT_EQ(open_flags(station.pid(), path) & O_ACCMODE, O_RDWR);
}

TEST(LockFile, IsCreatedReadableForAllAndWritableForItsOwner) {
    Station station;
    station.umask = 0;
    station.start();
    struct stat status {};
    ASSERT_EQ(stat(station.files().host_path(LOCK_FILE).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644U);
}

// The second daemon truncates the file before it finds it locked. Kept.
TEST(SecondDaemon, TruncatesTheLockFileOfTheFirstAndExits) {
    Station station;
    station.start();
    const std::string status_log = station.read(std::string(STATUS_FOLDER) + "/logfile");
    const Outcome second = station.run({"-D"});
    EXPECT_EQ(second.status, 255);
    EXPECT_THAT(second.err, EndsWith(RUNNING));
    EXPECT_EQ(station.read(LOCK_FILE), "");
    EXPECT_EQ(station.read(std::string(STATUS_FOLDER) + "/logfile"), status_log) << "its cleanup writes nothing";
    EXPECT_EQ(owner_of_lock(station.files().host_path(LOCK_FILE)), station.pid());

    station.step();
    EXPECT_EQ(station.run({"-D"}).status, 255) << "the first still holds its lock";
    EXPECT_EQ(station.stop(), 1);
}

TEST(SecondDaemon, IsReportedAtTheHighestLevelAfterItsCleanup) {
    Station station;
    station.start();
    TraceLog traces;
    traces.append(station.run({"-D"}).err);
    ASSERT_GE(traces.lines().size(), 3U);
    const TraceLine &last = traces.lines().back();
    EXPECT_EQ(last.level, 0);
    EXPECT_EQ(last.file, "vigmond.c");
    EXPECT_EQ(last.function, "main");
    EXPECT_EQ(traces.lines()[traces.lines().size() - 2].function, "cleanup");
    EXPECT_EQ(traces.lines()[traces.lines().size() - 2].message, "DONE");
    EXPECT_THAT(traces.messages_of("is_single_proc"), testing::ElementsAre(" ", "Resource temporarily unavailable"));
    EXPECT_TRUE(traces.messages_of("signal_init").empty());
}

TEST(SecondDaemon, RunsOnlyWithALogFileInAnotherFolder) {
    Station station(Board().folder("/tmp/other"));
    station.start();
    const std::string next_to_the_first = std::string(STATUS_FOLDER) + "/another";
    EXPECT_EQ(station.run({"-D", "-L", next_to_the_first}).status, 255);
    const Outcome second = station.run_one_pass({"-D", "-L", "/tmp/other/log"});
    EXPECT_EQ(second.status, 1) << "terminated";
    EXPECT_THAT(second.err, HasSubstr("runrun_wait"));
}

TEST(Lock, IsReleasedWhenItsOwnerEnds) {
    Station station;
    for (const int signo : {SIGTERM, SIGKILL}) {
        station.start();
        EXPECT_EQ(station.read(LOCK_FILE), own_line(station));
        station.send(signo);
        station.await_exit();
    }
    station.start();
    EXPECT_EQ(station.read(LOCK_FILE), own_line(station));
}

TEST(Lock, InAMissingFolderIsReportedAsRunning) {
    Station station;
    std::filesystem::remove_all(station.files().host_path(STATUS_FOLDER));
    const Outcome outcome = station.run({"-D"});
    EXPECT_EQ(outcome.status, 255);
    EXPECT_THAT(outcome.err, HasSubstr(") No such file or directory\n"));
    EXPECT_THAT(outcome.err, EndsWith(RUNNING));
}

TEST(Lock, InAReadOnlyFolderIsReportedAsRunning) {
    Station station(Board().read_only_folder(STATUS_FOLDER));
    const Outcome outcome = station.run({"-D"});
    EXPECT_EQ(outcome.status, 255);
    EXPECT_THAT(outcome.err, HasSubstr(") Read-only file system\n"));
    EXPECT_THAT(outcome.err, EndsWith(RUNNING));
}

TEST(Lock, IsNextToTheLogFileHoweverShortItsName) {
    Station station;
    station.start({"-D", "-L", "x"});
    EXPECT_EQ(read_file(station.files().scratch() + "/work/.lock"), own_line(station));
    EXPECT_FALSE(std::filesystem::exists(station.files().host_path(LOCK_FILE)));
}

// The lock takes the names of streams as paths.
TEST(Lock, IsNextToAStreamNameToo) {
    Station to_stream;
    to_stream.start({"-L", "stderr"});
    const std::string folder = to_stream.files().scratch() + "/work";
    EXPECT_EQ(read_file(folder + "/.lock"), own_line(to_stream));
    EXPECT_TRUE(std::filesystem::is_regular_file(folder + "/stderr"));

    Station to_nothing;
    to_nothing.start({"-L", "/dev/null"});
    EXPECT_EQ(to_nothing.read("/dev/.lock"), own_line(to_nothing));
}

TEST(Lock, IsInTheRootForALogFileInTheRoot) {
    Station station;
    station.start({"-D", "-L", "/x"});
    EXPECT_EQ(station.read("/.lock"), own_line(station));
}
