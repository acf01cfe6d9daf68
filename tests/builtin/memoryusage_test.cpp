#include "builtin.h"
#include "call_results.h"
#include "probe_test.h"
#include "scratch_folder.h"

#include <cerrno>
#include <climits>

namespace {

constexpr std::uint64_t ALL_ONES = UINT64_MAX; // -1, read as unsigned
constexpr std::uint64_t LARGEST = INT64_MAX;

struct Line {
    std::string text;
    MemoryFigures expected;
};

} // namespace

// Every line is read with total 7 and free 3 in place.
TEST(MemoryusageParseLine, ReadsTheSecondWordOfTheTwoLines) {
    const std::vector<Line> lines{
        {"MemTotal:        1024000 kB\n", {1024000, 3}},
        {"MemFree:          512000 kB\n", {7, 512000}},
        {"MemTotal: 5", {5, 3}},
        {"MemFree:\t6\r\n", {7, 6}},
        {"memtotal: 5 kB\n", {5, 3}},
        {"MEMFREE: 6 kB\n", {7, 6}},
        {"mEmFrEe: 6 kB\n", {7, 6}},
        {"MemTotal:5 6 kB\n", {6, 3}}, // only the start of the line is compared
        {"MemTotal: 0 kB\n", {0, 3}},
        {"MemFree: +6 kB\n", {7, 6}},
        {"MemFree: 6 a b c d e f g h i j\n", {7, 6}},
    };
    for (const Line &line : lines) {
        MemoryFigures figures{7, 3};
        std::string text = line.text;
        memoryusage_parse_line(text.data(), &figures);
        EXPECT_EQ(figures.total, line.expected.total) << line.text;
        EXPECT_EQ(figures.free, line.expected.free) << line.text;
    }
}

TEST(MemoryusageParseLine, SkipsEveryOtherLine) {
    for (std::string text : {"", "\n", " \t\r\n", "MemTotal:\n", "MemFree:", "MemTotal:5\n", " MemTotal: 5\n",
                             "MemTotal : 5\n", "MemTotals: 5\n", "MemAvailable: 900000 kB\n", "Mem\n",
                             "SwapFree: 5 kB\n", "HighTotal: 5 kB\n", "MemTotal 5\n", "5 MemFree: 6\n"}) {
        const std::string shown = text;
        MemoryFigures figures{7, 3};
        memoryusage_parse_line(text.data(), &figures);
        EXPECT_EQ(figures.total, 7U) << shown;
        EXPECT_EQ(figures.free, 3U) << shown;
    }
}

TEST(MemoryusageParseLine, ReadsASigned64BitDecimalNumber) {
    const std::vector<std::pair<std::string, std::uint64_t>> numbers{
        {"-1", ALL_ONES},
        {"9223372036854775807", LARGEST},
        {"9223372036854775808", LARGEST},
        {"-9223372036854775809", LARGEST + 1},
        {std::string(4000, '9'), LARGEST},
        {"12abc", 12},
        {"1.9", 1},
        {"1e300", 1},
        {"0x10", 0},
        {"010", 10},
        {"kB", 0},
        {"inf", 0},
        {"nan", 0},
        {"-", 0},
    };
    for (const auto &[number, expected] : numbers) {
        MemoryFigures figures{7, 3};
        std::string text = "MemTotal: " + number + " kB\n";
        memoryusage_parse_line(text.data(), &figures);
        EXPECT_EQ(figures.total, expected) << number.substr(0, 30);
    }
}

// (100 * free + total / 2 - 1) / total in unsigned 64 bits; the comments show the dividend.
TEST(MemoryusagePercent, RoundsAnExactHalfDown) {
    struct Case {
        std::uint64_t total;
        std::uint64_t free;
        std::int32_t percent;
    };
    const std::vector<Case> cases{
        {1024000, 512000, 50},
        {100, 50, 50},       // 5049
        {2, 1, 50},          // 100
        {100, 0, 0},         // 49
        {2, 0, 0},           // 0
        {100, 100, 100},     // 10049
        {1000, 505, 50},     // 50999: 50.5 % is an exact half
        {1000, 506, 51},     // 51099
        {1000, 504, 50},     // 50899
        {100000, 50500, 50}, // 5099999
        {100000, 50501, 51}, // 5100099
        {200, 1, 0},         // 199: 0.5 %
        {200, 3, 1},         // 399: 1.5 %
        {3, 1, 33},          // 100
        {3, 2, 66},          // 200: 3 / 2 - 1 = 0
        {100, 200, 200},     // 20049: more free than there is
        {1, 1, 99},          // 99
    };
    for (const Case &item : cases) {
        EXPECT_EQ(memoryusage_percent({item.total, item.free}), Reading::of(item.percent))
            << item.free << " of " << item.total;
    }
}

TEST(MemoryusagePercent, FailsWithoutATotal) {
    EXPECT_EQ(memoryusage_percent({0, 0}), Reading::failed(EINVAL));
    EXPECT_EQ(memoryusage_percent({0, 500}), Reading::failed(EINVAL));
}

TEST(MemoryusagePercent, WrapsIn64BitsAndKeepsTheLow32) {
    EXPECT_EQ(memoryusage_percent({1, 0}), Reading::of(-1));          // 2^64 - 1
    EXPECT_EQ(memoryusage_percent({1, 42949673}), Reading::of(3));    // 4294967300 - 1 = 2^32 + 3
    EXPECT_EQ(memoryusage_percent({1000, ALL_ONES}), Reading::of(0)); // -100 + 499 = 399
    EXPECT_EQ(memoryusage_percent({ALL_ONES, 0}), Reading::of(0));    // (2^63 - 2) / (2^64 - 1)
    // 100 * (2^63 - 1) is 2^64 - 100; with 2^62 - 2 more that is 2^62 - 102, less than the divisor.
    EXPECT_EQ(memoryusage_percent({LARGEST, LARGEST}), Reading::of(0));
}

namespace {

class Memoryusage : public testing::Test {
  protected:
    /// The probe finds this in /proc/meminfo.
    void meminfo(const std::string &content) { scratch.write("meminfo", content); }
    void SetUp() override { calls.redirect("/proc/meminfo", scratch / "meminfo"); }

    const Task task = probe_task(nullptr);
    ScratchFolder scratch;
    CallResults calls;
};

} // namespace

TEST_F(Memoryusage, MeasuresTheFreeShare) {
    meminfo("MemTotal:        1024000 kB\nMemFree:          256000 kB\nMemAvailable:     900000 kB\nBuffers: 1 kB\n");
    expect_measured(memoryusage_exec, task, 25);
    EXPECT_TRUE(calls.opened_close_on_exec());
}

TEST_F(Memoryusage, CountsMissingLinesAsZero) {
    meminfo("MemTotal: 150 kB\n"); // 1 kB free would be 1 %
    expect_measured(memoryusage_exec, task, 0);
    meminfo("MemTotal: 1000 kB\nMemAvailable: 900 kB\nMemFree:\n");
    expect_measured(memoryusage_exec, task, 0);
}

TEST_F(Memoryusage, FailsWithoutATotal) {
    for (const char *content : {"", "\n\n", "MemFree: 500 kB\n", "MemTotal:\nMemFree: 500 kB\n", "MemTotal: 0 kB\n",
                                "MemTotal: none\n", "garbage\x01\xff"}) {
        meminfo(content);
        expect_failed(memoryusage_exec, task, EINVAL);
    }
}

TEST_F(Memoryusage, LetsLaterLinesOverwriteEarlierOnes) {
    meminfo("MemFree: 900\nMemTotal: 5\nMEMTOTAL: 1000\nmemfree: 100\n");
    expect_measured(memoryusage_exec, task, 10); // (10000 + 499) / 1000
    meminfo("MemTotal: 1000\nMemFree: 900\nMemFree: kB\n");
    expect_measured(memoryusage_exec, task, 0);
    meminfo("MemTotal: 1000\nMemFree: 100\nMemFree:\n"); // no second word: nothing to take
    expect_measured(memoryusage_exec, task, 10);
}

TEST_F(Memoryusage, MeasuresATruncatedFile) {
    meminfo("MemTotal: 1000 kB\nMemFree: 25");
    expect_measured(memoryusage_exec, task, 2); // (2500 + 499) / 1000
}

TEST_F(Memoryusage, ReadsLinesOfAtMost1023Characters) {
    const std::string name = "MemTotal:"; // 9 characters, so 1010 blanks and 4 digits make 1023
    meminfo("MemFree: 50\n" + name + std::string(1010, ' ') + "1000\n");
    expect_measured(memoryusage_exec, task, 5); // (5000 + 499) / 1000
    meminfo("MemFree: 50\n" + name + std::string(1011, ' ') + "1000\n");
    expect_measured(memoryusage_exec, task, 50); // (5000 + 49) / 100
}

TEST_F(Memoryusage, TakesTheRestOfALongerLineAsALine) {
    meminfo("MemTotal: 1000\n" + std::string(1023, 'x') + "MemFree: 100\n");
    expect_measured(memoryusage_exec, task, 10);
    meminfo("MemTotal: 1000\n" + std::string(1022, 'x') + "MemFree: 100\n");
    expect_measured(memoryusage_exec, task, 0);
}

TEST_F(Memoryusage, FailsWithTheErrorOfTheOpen) {
    expect_failed(memoryusage_exec, task, ENOENT);
    calls.fail(Call::fopen, EMFILE);
    expect_failed(memoryusage_exec, task, EMFILE);
}

TEST_F(Memoryusage, CountsAFailedOpenWithoutErrorNumberAsZero) {
    meminfo("MemTotal: 1000 kB\nMemFree: 500 kB\n");
    calls.fail(Call::fopen, 0);
    expect_measured(memoryusage_exec, task, 0);
}

TEST_F(Memoryusage, TracesOnlyTheEntryOfAGoodRun) {
    meminfo("MemTotal: 1000 kB\nMemFree: 500 kB\n");
    const CapturedTraces traces;
    expect_measured(memoryusage_exec, task, 50); // (50000 + 499) / 1000
    expect_traces(traces, "memoryusage", {});
}

TEST_F(Memoryusage, TracesTheFailure) {
    const CapturedTraces traces;
    expect_failed(memoryusage_exec, task, ENOENT);
    expect_traces(traces, "memoryusage", {"FAILED!"});
}

TEST_F(Memoryusage, ReadsTheMachinesOwnFile) {
    calls.redirect({}, {});
    Task read = task;
    EXPECT_EQ(memoryusage_exec(&read), 0);
    EXPECT_GE(read.value, 0);
    EXPECT_LE(read.value, 100);
}

TEST_F(Memoryusage, LeaksNoDescriptor) {
    expect_no_descriptor_kept(memoryusage_exec, task, -1);
    meminfo("MemFree: 500 kB\n");
    expect_no_descriptor_kept(memoryusage_exec, task, -1);
    meminfo("MemTotal: 1000 kB\nMemFree: 500 kB\n");
    expect_no_descriptor_kept(memoryusage_exec, task, 0);
}

TEST(MemoryusageInit, MarksTheTask) { expect_init_marks(memoryusage_init, "memoryusage_init"); }
