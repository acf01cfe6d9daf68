#include "builtin.h"
#include "call_results.h"
#include "probe_test.h"
#include "scratch_folder.h"

#include <cerrno>
#include <climits>
#include <sys/stat.h>

namespace {

struct Line {
    std::string text;
    BlockCounts expected;
};

struct Share {
    BlockCounts counts;
    std::int32_t percent;
};

void expect_shares(const std::vector<Share> &shares) {
    for (const Share &share : shares) {
        EXPECT_EQ(diskusage_percent(share.counts), Reading::of(share.percent))
            << share.counts.total << ' ' << share.counts.free << ' ' << share.counts.available;
    }
}

} // namespace

TEST(DiskusageParseLine, ReadsTheThirdToFifthWord) {
    const std::vector<Line> lines{
        {"fs x 1000 500 250\n", {1000, 500, 250}},
        {"fs x 1000 500 250", {1000, 500, 250}},
        {"  fs\t\tx\r1000  500\t250 75% /mnt more words behind\n", {1000, 500, 250}},
        {"1 2 3 4 5 6\n", {3, 4, 5}},
        {"fs x +1000 0500 250abc\n", {1000, 500, 250}},
        {"fs x 0x3E8 1.9 1e3\n", {0, 1, 1}},
        {"fs x inf nan -\n", {0, 0, 0}},
        {"fs x 4294967295 4294967296 99999999999999999999\n", {UINT32_MAX, UINT32_MAX, UINT32_MAX}},
        {"fs x -1 -4294967297 -99999999999999999999\n", {0, 0, 0}},
        {"fs x " + std::string(4000, '9') + " 2 1\n", {UINT32_MAX, 2, 1}},
    };
    for (const Line &line : lines) {
        BlockCounts counts{9, 9, 9};
        std::string text = line.text;
        ASSERT_TRUE(diskusage_parse_line(text.data(), &counts)) << line.text;
        EXPECT_EQ(counts.total, line.expected.total) << line.text;
        EXPECT_EQ(counts.free, line.expected.free) << line.text;
        EXPECT_EQ(counts.available, line.expected.available) << line.text;
    }
}

TEST(DiskusageParseLine, NeedsFiveWords) {
    for (std::string text : {"", "\n", " \t\r\n", "fs", "fs x 1000 500", "fs x 1000 500 \n", "1000,500,250,fs,x\n"}) {
        BlockCounts counts{9, 8, 7};
        EXPECT_FALSE(diskusage_parse_line(text.data(), &counts)) << text;
        EXPECT_EQ(counts.total + counts.free + counts.available, 24U) << "touched";
    }
}

// (100 * available + divisor / 2) / divisor; the comments show the dividend. Counts are total, free,
// available.
TEST(DiskusagePercent, RoundsHalfUp) {
    expect_shares({
        {{1000, 500, 250}, 25}, // 25500
        {{1000, 500, 0}, 0},    // 500
        {{1000, 1000, 1000}, 100},
        {{1000, 500, 5}, 1},    // 1000: 0.5 %
        {{1000, 500, 4}, 0},    // 900
        {{1000, 500, 255}, 26}, // 26000: 25.5 %
        {{1000, 500, 254}, 25}, // 25900
        {{3, 2, 2}, 67},        // 201
        {{3, 1, 1}, 33},        // 101
        {{1, 0, 0}, 0},
        {{1, 1, 1}, 100},
    });
}

TEST(DiskusagePercent, DividesByTheLargestCount) {
    expect_shares({
        {{100, 50, 200}, 100}, // by available: 20100 / 200
        {{100, 400, 100}, 25}, // by free: 10200 / 400
        {{0, 400, 100}, 25},
        {{0, 0, 100}, 100},
    });
    EXPECT_EQ(diskusage_percent({0, 0, 0}), Reading::failed(EINVAL));
}

TEST(DiskusagePercent, WrapsAt32Bits) {
    expect_shares({
        // The product fits, the sum does not: 4294967200 + 21474836 - 4294967296 = 21474740
        {{42949672, 42949672, 42949672}, 0},
        // 256 GB, 90 % available: 5625000000 - 4294967296 + 31250000 = 1361282704
        {{62500000, 56250000, 56250000}, 21},
        // 512 GB, 90 % available: 11250000000 - 2 * 4294967296 + 62500000 = 2722565408
        {{125000000, 112500000, 112500000}, 21},
        // 1 TB, 90 % available: 21972656200 - 5 * 4294967296 + 122070312 = 619890032
        {{244140625, 219726562, 219726562}, 2},
        // The sum wraps alone: 4294967200 + 2147483647 - 4294967296 = 2147483551
        {{UINT32_MAX, UINT32_MAX, 42949672}, 0},
        {{UINT32_MAX, UINT32_MAX, UINT32_MAX}, 0}, // 4294967196 + 2147483647 - 4294967296
    });
}

namespace {

struct statvfs file_system(std::uint64_t total, std::uint64_t free, std::uint64_t available) {
    struct statvfs counts {};
    counts.f_blocks = total;
    counts.f_bfree = free;
    counts.f_bavail = available;
    return counts;
}

class Diskusage : public testing::Test {
  protected:
    [[nodiscard]] Task file_task(const std::string &content) {
        path = scratch.write("counts", content);
        return probe_task(path.c_str());
    }

    ScratchFolder scratch;
    std::string path;
    CallResults calls;
    const Task folder_task = probe_task(scratch.path().c_str());
};

} // namespace

TEST_F(Diskusage, ReadsARegularFileInPlaceOfItsFileSystem) {
    expect_measured(diskusage_exec, file_task("fs x 1000 500 250\n"), 25);
    expect_measured(diskusage_exec, file_task("fs x 1000 500 250 6 7 8"), 25);
    expect_measured(diskusage_exec, file_task("fs x 1000 500 250\nfs x 1000 500 900\n"), 25);
    EXPECT_EQ(calls.count(Call::statvfs), 0);
    EXPECT_TRUE(calls.opened_close_on_exec());
}

TEST_F(Diskusage, FollowsALinkToAFile) {
    scratch.write("counts", "fs x 1000 500 250\n");
    const std::string link = scratch / "link";
    std::filesystem::create_symlink("counts", link);
    expect_measured(diskusage_exec, probe_task(link.c_str()), 25);
}

TEST_F(Diskusage, AcceptsAFileWithoutATotal) {
    expect_measured(diskusage_exec, file_task("fs x 0 0 100\n"), 100);
    expect_measured(diskusage_exec, file_task("fs x 0 400 100\n"), 25);
}

TEST_F(Diskusage, FailsOnUnusableFiles) {
    for (const std::string &content :
         {std::string{}, std::string("\nfs x 1000 500 250\n"), std::string("fs x 1000 500\n250\n"),
          std::string("fs x 0 0 0\n"), std::string("a b c d e\n"), std::string("fs x inf nan -0\n"),
          std::string(4000, '9'), "fs x " + std::string(4000, '9') + " 2 1\n"}) {
        expect_failed(diskusage_exec, file_task(content), EINVAL);
    }
}

TEST_F(Diskusage, ReadsAtMost1022CharactersOfTheLine) {
    const std::string words = "fs x 1000 500 "; // 14 characters, so 1005 blanks and 3 digits make 1022
    expect_measured(diskusage_exec, file_task(words + std::string(1005, ' ') + "250\n"), 25);
    expect_measured(diskusage_exec, file_task(words + std::string(1006, ' ') + "250\n"), 3); // 25: 3000 / 1000
    expect_failed(diskusage_exec, file_task(words + std::string(1008, ' ') + "250\n"), EINVAL);
}

TEST_F(Diskusage, AsksTheFileSystemForAnythingElse) {
    calls.file_system(file_system(1000, 500, 250));
    expect_measured(diskusage_exec, folder_task, 25);
    expect_measured(diskusage_exec, probe_task("/dev/null"), 25);
    EXPECT_EQ(calls.count(Call::fopen), 0);
}

TEST_F(Diskusage, MeasuresNothingAvailableAsZero) {
    calls.file_system(file_system(1000, 500, 0));
    expect_measured(diskusage_exec, folder_task, 0);
}

TEST_F(Diskusage, FailsOnAFileSystemWithoutBlocks) {
    calls.file_system(file_system(0, 0, 0));
    expect_failed(diskusage_exec, folder_task, EINVAL);
    calls.file_system(file_system(0, 400, 100)); // the same counts in a file are 25 %
    expect_failed(diskusage_exec, folder_task, EINVAL);
}

TEST_F(Diskusage, Keeps32BitsOfTheBlockCounts) {
    constexpr std::uint64_t beyond = std::uint64_t{1} << 32;
    calls.file_system(file_system(beyond + 1000, beyond + 500, beyond + 250));
    expect_measured(diskusage_exec, folder_task, 25);
    calls.file_system(file_system(beyond, 400, 100));
    expect_failed(diskusage_exec, folder_task, EINVAL);
    calls.file_system(file_system(62500000, 56250000, 56250000));
    expect_measured(diskusage_exec, folder_task, 21); // 256 GB: the product wraps
}

TEST_F(Diskusage, FailsWithTheErrorOfTheStat) {
    const std::string missing = scratch / "missing";
    expect_failed(diskusage_exec, probe_task(missing.c_str()), ENOENT);
    calls.fail(Call::stat, ELOOP);
    expect_failed(diskusage_exec, folder_task, ELOOP);
}

TEST_F(Diskusage, FailsWithTheErrorOfTheOpen) {
    calls.fail(Call::fopen, EACCES);
    expect_failed(diskusage_exec, file_task("fs x 1000 500 250\n"), EACCES);
}

TEST_F(Diskusage, FailsWithTheErrorOfTheFileSystem) {
    calls.fail(Call::statvfs, ENOSYS);
    expect_failed(diskusage_exec, folder_task, ENOSYS);
}

TEST_F(Diskusage, CountsAFailureWithoutErrorNumberAsZero) {
    calls.fail(Call::statvfs, 0);
    expect_measured(diskusage_exec, folder_task, 0);
    calls.fail(Call::fopen, 0);
    expect_measured(diskusage_exec, file_task("fs x 1000 500 250\n"), 0);
    calls.fail(Call::stat, 0);
    expect_measured(diskusage_exec, probe_task("/nowhere"), 0);
}

TEST_F(Diskusage, TracesOnlyTheEntryOfAGoodRun) {
    const Task task = file_task("fs x 1000 500 250\n");
    const CapturedTraces traces;
    expect_measured(diskusage_exec, task, 25);
    expect_traces(traces, "diskusage", {});
}

TEST_F(Diskusage, TracesTheFailureWithItsPath) {
    const CapturedTraces traces;
    expect_failed(diskusage_exec, probe_task("/nowhere"), ENOENT);
    expect_traces(traces, "diskusage", {"/nowhere FAILED!"});
}

TEST_F(Diskusage, MeasuresARealFileSystem) {
    Task task = folder_task;
    EXPECT_EQ(diskusage_exec(&task), 0);
    EXPECT_GE(task.value, 0);
    EXPECT_LE(task.value, 100);
    expect_failed(diskusage_exec, probe_task("/proc"), EINVAL); // has no blocks
}

TEST_F(Diskusage, LeaksNoDescriptor) {
    expect_no_descriptor_kept(diskusage_exec, file_task("fs x 1000 500 250\n"), 0);
    expect_no_descriptor_kept(diskusage_exec, file_task(""), -1);
    expect_no_descriptor_kept(diskusage_exec, folder_task, 0);
    expect_no_descriptor_kept(diskusage_exec, probe_task("/nowhere"), -1);
}

TEST(DiskusageInit, MarksTheTask) { expect_init_marks(diskusage_init, "diskusage_init"); }
