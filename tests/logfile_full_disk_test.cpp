#include "logfile.h"

#include "logfile_rig.h"
#include "process_state.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {

using testing::IsEmpty;

constexpr const char *X_RECORD = "<time>\tOK\tx\n"; // 25 bytes with its 19-byte stamp

using FullDiskTest = LogfileTest;

TEST_F(FullDiskTest, LosesARecordThatDoesNotFitAtAll) {
    use(path);
    lf_print(0, "x", 0);
    {
        const FileSizeLimit full(25);
        lf_print(0, "lost", 0);
    }
    EXPECT_EQ(log(), X_RECORD);
    EXPECT_TRUE(traces.has("lf_print", path + ": File too large"));
    lf_print(0, "y", 0);
    EXPECT_EQ(log(), std::string(X_RECORD) + "<time>\tOK\ty\n");
}

TEST_F(FullDiskTest, RemovesAPartlyWrittenRecord) {
    use(path);
    lf_print(0, "x", 0);
    for (rlim_t room = 1; room < 25; ++room) {
        const FileSizeLimit full(25 + room);
        lf_print(0, "y", 0);
        EXPECT_EQ(log(), X_RECORD) << room;
        EXPECT_EQ(std::filesystem::file_size(path), 25U) << room;
    }
    const FileSizeLimit just_enough(50);
    lf_print(0, "y", 0);
    EXPECT_EQ(log(), std::string(X_RECORD) + "<time>\tOK\ty\n");
}

TEST_F(FullDiskTest, TracesThatTheRecordIsLost) {
    use(path);
    const FileSizeLimit full(10);
    lf_print(0, "x", 0);
    EXPECT_TRUE(traces.has("lf_print", path + ": No space left on device"));
    EXPECT_THAT(traces.texts_of("cut_back"), IsEmpty());
}

TEST_F(FullDiskTest, ReportsThatAPassHasLostARecord) {
    use(path);
    EXPECT_EQ(logfile_pass_error(), 0);
    lf_print(0, "x", 0);
    EXPECT_EQ(logfile_pass_error(), 0);
    {
        const FileSizeLimit full(30);
        lf_print(0, "lost", 0);
    }
    lf_print(0, "written", 0);
    EXPECT_EQ(logfile_pass_error(), ENOSPC);
    EXPECT_EQ(logfile_pass_error(), ENOSPC) << "a pass without records is as the one before";
    logfile_state().loglevel = LOGLEVEL_FAIL;
    lf_print(0, "left out", 0);
    EXPECT_EQ(logfile_pass_error(), ENOSPC) << "and so is one whose records are of no interest";
    lf_print(2, "written", 0);
    EXPECT_EQ(logfile_pass_error(), 0);
}

TEST_F(FullDiskTest, ReportsThatAPassHasLostAHeader) {
    use(path);
    {
        const FileSizeLimit full(10);
        lf_header(path.c_str());
    }
    EXPECT_EQ(logfile_pass_error(), ENOSPC);
}

TEST_F(FullDiskTest, ReportsThatTheFileCannotBeOpened) {
    use(folder / "missing/logfile");
    lf_print(0, "x", 0);
    EXPECT_EQ(logfile_pass_error(), ENOENT);
}

TEST_F(FullDiskTest, KeepsReportingThatTheFileCouldNotBeOpenedAtStart) {
    start((folder / "missing/logfile").c_str());
    lf_print(0, "x", 0);
    EXPECT_EQ(logfile_pass_error(), ENOENT);
    lf_print(0, "x", 0);
    EXPECT_EQ(logfile_pass_error(), ENOENT);
}

TEST_F(FullDiskTest, ReportsNothingForALogThatIsSwitchedOff) {
    start("/dev/null");
    lf_print(0, "x", 0);
    EXPECT_EQ(logfile_pass_error(), 0);
}

TEST_F(FullDiskTest, RemovesAPartlyWrittenClosingBlock) {
    use(path);
    lf_print(0, "x", 0);
    {
        const FileSizeLimit full(40);
        logfile_cleanup();
    }
    EXPECT_EQ(log(), X_RECORD);
}

TEST_F(FullDiskTest, RemovesAPartlyWrittenHeaderWhichThenIsNotTheFirst) {
    folder.write("logfile", "what stood there\n"); // 17 bytes
    for (const rlim_t room : {rlim_t{0}, rlim_t{1}, rlim_t{100}}) {
        const FileSizeLimit full(17 + room);
        lf_header(path.c_str());
        EXPECT_EQ(log(), "what stood there\n") << room;
        EXPECT_EQ(logfile_state().logfile_header_written, 0);
    }
    lf_header(path.c_str());
    EXPECT_THAT(log(), testing::StartsWith("what stood there\n##\n##\t<time>\tSTART\tvigmond\n##\n"));
}

TEST_F(FullDiskTest, StaysBelowItsLimitWithoutRotation) {
    use(path);
    logfile_state().logsize = 26;
    lf_print(0, "x", 0);
    const FileSizeLimit full(40);
    lf_print(0, "y", 0);
    EXPECT_THAT(rotations().calls, IsEmpty());
}

TEST_F(FullDiskTest, RotatesTheFullFileAndMayLackTheHeader) {
    use(path);
    logfile_state().logsize = 25;
    {
        const FileSizeLimit full(25);
        lf_print(0, "x", 0);
    }
    ASSERT_EQ(rotations().calls.size(), 1U);
    EXPECT_EQ(mask_times(rotations().calls[0].content), X_RECORD);
    EXPECT_EQ(log(), "");
    logfile_state().logsize = 10240;
    lf_print(0, "y", 0);
    EXPECT_EQ(log(), "<time>\tOK\ty\n");
}

TEST_F(FullDiskTest, LosesWhatAFullDeviceRefuses) {
    use("/dev/full");
    lf_print(0, "x", 0);
    lf_header("/dev/full");
    EXPECT_TRUE(traces.has("lf_print", "/dev/full: No space left on device"));
    EXPECT_TRUE(traces.has("lf_header", "/dev/full: No space left on device"));
    EXPECT_EQ(logfile_state().logfile_header_written, 0);
}

/// Standard output to a file that the test prepares.
class StandardOutputTest : public LogfileTest {
  protected:
    StandardOutputTest() { use("stdout"); }

    /// Prints "x" to `stdout_file`, whose size is limited, and then "y" without the limit.
    static void print_in_limit(int stdout_file, rlim_t limit) {
        const Descriptor saved(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0));
        std::fflush(stdout);
        dup2(stdout_file, STDOUT_FILENO);
        {
            const FileSizeLimit full(limit);
            lf_print(0, "x", 0);
        }
        lf_print(0, "y", 0);
        dup2(saved.get(), STDOUT_FILENO);
    }

    const std::string file = folder.write("stdout", "what stood there\n"); // 17 bytes
};

TEST_F(StandardOutputTest, RemovesAPartlyWrittenRecord) {
    for (const int flags : {O_APPEND, 0}) {
        const Descriptor out(open(file.c_str(), O_WRONLY | O_CLOEXEC | flags));
        lseek(out.get(), 0, SEEK_END);
        logfile_state().logfile_stream.reset();
        const std::string before = read_file(file);
        print_in_limit(out.get(), before.size() + 10);
        EXPECT_EQ(mask_times(read_file(file)), mask_times(before) + "<time>\tOK\ty\n");
    }
}

// A piece in the middle of a file cannot be removed without what others wrote after it.
TEST_F(StandardOutputTest, KeepsAPieceInTheMiddleOnItsOwnLine) {
    const Descriptor out(open(file.c_str(), O_WRONLY | O_CLOEXEC));
    print_in_limit(out.get(), 10);
    EXPECT_EQ(mask_times(read_file(file).substr(10)), "\n<time>\tOK\ty\n");
}

TEST_F(FullDiskTest, KeepsAPieceOnItsOwnLineIfTheFileCannotBeTruncated) {
    const Descriptor uncuttable(memfd_create("log", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    ASSERT_EQ(fcntl(uncuttable.get(), F_ADD_SEALS, F_SEAL_SHRINK), 0);
    const std::string name = "/proc/self/fd/" + std::to_string(uncuttable.get());
    use(name);
    {
        const FileSizeLimit full(22);
        lf_print(0, "x", 0);
        EXPECT_EQ(mask_times(read_file(name)), "<time>\tOK");
        lf_print(0, "lost", 0);
    }
    EXPECT_TRUE(traces.has("cut_back", "Operation not permitted"));
    EXPECT_TRUE(traces.has("lf_print", name + ": No space left on device"));
    lf_print(0, "y", 0);
    lf_print(0, "z", 0);
    EXPECT_EQ(mask_times(read_file(name)), "<time>\tOK\n<time>\tOK\ty\n<time>\tOK\tz\n");
}

/// A disk of 64 KiB in a mount namespace that ends with the test program.
class SmallDiskTest : public LogfileTest {
  protected:
    void SetUp() override {
        ASSERT_EQ(unshare(CLONE_NEWNS), 0);
        ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        std::filesystem::create_directory(disk);
        ASSERT_EQ(mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=64k"), 0);
        use(disk + "/logfile");
    }
    void TearDown() override { umount2(disk.c_str(), MNT_DETACH); }

    std::string disk = folder / "disk";
};

TEST_F(SmallDiskTest, EndsInAWholeRecordAndContinuesWhenThereIsRoom) {
    logfile_state().logsize = LOGSIZE_MAX;
    std::ofstream(disk + "/ballast") << std::string(4096, 'x');
    // 60 KiB are left: room for 2457 records of 25 bytes and 15 bytes of another.
    for (int i = 0; i < 3000; ++i) {
        lf_print(0, "x", 0);
    }
    const std::string full = read_file(disk + "/logfile");
    EXPECT_EQ(full.size(), 2457U * 25U);
    EXPECT_TRUE(full.ends_with("\tOK\tx\n"));
    lf_header((disk + "/logfile").c_str());
    EXPECT_EQ(read_file(disk + "/logfile"), full);
    std::filesystem::remove(disk + "/ballast");
    lf_print(0, "x", 0);
    const std::string after = read_file(disk + "/logfile");
    ASSERT_EQ(after.size(), full.size() + 25);
    EXPECT_EQ(mask_times(after.substr(full.size())), X_RECORD);
}

} // namespace
