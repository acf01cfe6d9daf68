#include "captured_traces.h"
#include "link_probe_test.h"
#include "probe_read.h"
#include "redirected_open.h"
#include "scratch_folder.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <string>

namespace {

using testing::ElementsAre;
using testing::StartsWith;

constexpr std::int32_t LAN = 10;
constexpr std::int32_t WIFI = 13;

constexpr std::uint64_t TWO_TO_31 = 2147483648;
constexpr std::uint64_t TWO_TO_32 = 4294967296;

const char *const HEADING = "Inter-|   Receive                                                |  Transmit\n"
                            " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs "
                            "drop fifo colls carrier compressed\n";
const char *const LOOPBACK = "    lo: 1 1000 0 0 0 0 0 0 1 1000 0 0 0 0 0 0\n";

/// A line of the kernel's table, all other counters 7.
std::string table_line(const std::string &name, const std::string &received, const std::string &sent,
                       const std::string &receive_errors = "0", const std::string &receive_drops = "0",
                       const std::string &send_errors = "0", const std::string &send_drops = "0") {
    return "  " + name + ": 7 " + received + " " + receive_errors + " " + receive_drops + " 7 7 7 7 7 " + sent + " " +
           send_errors + " " + send_drops + " 7 7 7 7\n";
}

struct Parsed {
    bool found;
    TrafficCounters counters;
};

Parsed parse(std::string line, const char *interface = "eth0") {
    Parsed parsed{false, {.packets = 1111, .lost = 2222}};
    parsed.found = internet_parse_line(line.data(), interface, &parsed.counters);
    return parsed;
}

// --- a line of the table

TEST(InternetParseLine, AddsPacketsAndLossesOfBothDirections) {
    const Parsed parsed = parse(table_line("eth0", "900", "100", "1", "20", "300", "4000"));
    EXPECT_TRUE(parsed.found);
    EXPECT_EQ(parsed.counters.packets, 1000U);
    EXPECT_EQ(parsed.counters.lost, 4321U);
}

TEST(InternetParseLine, SkipsWhatIsNotTheLineOfTheInterface) {
    for (const std::string &line :
         {std::string(HEADING), std::string(" face |bytes packets errs drop fifo frame\n"), std::string(LOOPBACK),
          table_line("eth1", "1", "1"), table_line("eth", "1", "1"), table_line("eth00", "1", "1"),
          table_line("xeth0", "1", "1"), table_line("eth0:1", "1", "1"), std::string(), std::string("\n"),
          std::string("eth0 7 1 2 3 4 5 6 7 8 9 10 11\n")}) {
        const Parsed parsed = parse(line);
        EXPECT_FALSE(parsed.found) << line;
        EXPECT_EQ(parsed.counters.packets, 1111U) << line;
        EXPECT_EQ(parsed.counters.lost, 2222U) << line;
    }
}

TEST(InternetParseLine, IgnoresTheCaseOfTheName) {
    EXPECT_TRUE(parse(table_line("eth0", "1", "1"), "ETH0").found);
    EXPECT_TRUE(parse(table_line("ETH0", "1", "1"), "eth0").found);
}

TEST(InternetParseLine, NeverMatchesACounterGluedToTheColon) {
    EXPECT_FALSE(parse("eth0:7 900 0 0 7 7 7 7 7 100 0 0 7 7 7 7\n").found);
    EXPECT_FALSE(parse("eth0:7 900 0 0 7 7 7 7 7 100 0 0 7 7 7 7\n", "eth0:7").found);
}

TEST(InternetParseLine, NeedsANameBeforeTheColon) {
    EXPECT_FALSE(parse(": 7 900 0 0 7 7 7 7 7 100 0 0\n", "").found);
    EXPECT_TRUE(parse("x: 7 900 0 0 7 7 7 7 7 100 0 0\n", "x").found);
}

TEST(InternetParseLine, NeedsElevenWordsAndTakesMissingCountersAsZero) {
    EXPECT_FALSE(parse("eth0: 7 900 1 20 7 7 7 7 7\n").found); // 10 words
    const Parsed eleven = parse("eth0: 7 900 1 20 7 7 7 7 7 100\n");
    EXPECT_TRUE(eleven.found);
    EXPECT_EQ(eleven.counters.packets, 1000U);
    EXPECT_EQ(eleven.counters.lost, 21U);
    const Parsed twelve = parse("eth0: 7 900 1 20 7 7 7 7 7 100 300\n");
    EXPECT_TRUE(twelve.found);
    EXPECT_EQ(twelve.counters.lost, 321U);
}

TEST(InternetParseLine, ReadsSixteenWordsOfALongerLine) {
    std::string line = "eth0: 7 900 1 20 7 7 7 7 7 100 300 4000 7 7 7 7 8 9 10\n";
    TrafficCounters counters{};
    EXPECT_TRUE(internet_parse_line(line.data(), "eth0", &counters));
    EXPECT_EQ(counters.packets, 1000U);
    EXPECT_EQ(counters.lost, 4321U);
    EXPECT_EQ(line.find(" 7 8 9 10\n"), std::string::npos);        // the 16th word was cut off
    EXPECT_NE(line.find("7 8 9 10\n"), std::string::npos) << line; // and nothing after it was
}

TEST(InternetParseLine, ReadsSigned64BitDecimalNumbers) {
    struct Case {
        const char *text;
        std::uint64_t number;
    };
    for (const Case &given :
         {Case{"4294967296", TWO_TO_32}, Case{"-1", UINT64_MAX}, Case{"9223372036854775807", INT64_MAX},
          Case{"99999999999999999999", INT64_MAX}, Case{"-99999999999999999999", static_cast<std::uint64_t>(INT64_MIN)},
          Case{"+5", 5}, Case{"12x", 12}, Case{"0x10", 0}, Case{"010", 10}, Case{"x", 0}}) {
        const Parsed parsed = parse(table_line("eth0", given.text, "0", "0", given.text));
        EXPECT_TRUE(parsed.found);
        EXPECT_EQ(parsed.counters.packets, given.number) << given.text;
        EXPECT_EQ(parsed.counters.lost, given.number) << given.text;
    }
}

// --- the share

struct ShareCase {
    std::uint64_t packets;
    std::uint64_t lost;
    std::int32_t value;
};

class InternetPercentTest : public testing::TestWithParam<ShareCase> {};

TEST_P(InternetPercentTest, FollowsTheFormula) {
    const Reading reading = internet_percent({.packets = GetParam().packets, .lost = GetParam().lost});
    EXPECT_EQ(reading.error, 0);
    EXPECT_EQ(reading.value, GetParam().value);
}

// 100 * (lost + packets / 50 - 1) / packets, every division truncated towards zero.
INSTANTIATE_TEST_SUITE_P(Plain, InternetPercentTest,
                         testing::Values(ShareCase{1000, 0, 1},    // 100 * 19 / 1000
                                         ShareCase{1000, 2, 2},    // 100 * 21 / 1000
                                         ShareCase{1000, 100, 11}, // 100 * 119 / 1000
                                         ShareCase{1000, 1000, 101}));

// Without loss it is negative for few packets, and 0 or 1 from 50 packets.
INSTANTIATE_TEST_SUITE_P(WithoutLoss, InternetPercentTest,
                         testing::Values(ShareCase{1, 0, -100}, // 100 * -1 / 1
                                         ShareCase{3, 0, -33}, ShareCase{49, 0, -2}, ShareCase{50, 0, 0},
                                         ShareCase{99, 0, 0}, // 100 * (1 - 1) / 99
                                         ShareCase{100, 0, 1}, ShareCase{101, 0, 0}, ShareCase{149, 0, 0},
                                         ShareCase{150, 0, 1}, // 100 * 2 / 150
                                         ShareCase{1, 1, 0}, ShareCase{1, 2, 100}));

// With 32-bit wrap-around.
INSTANTIATE_TEST_SUITE_P(
    Wrapped, InternetPercentTest,
    testing::Values(
        // 100 * (21474837 - 1) = 2147483600 still fits, / 1073741850 = 1
        ShareCase{1073741850, 0, 1},
        // 100 * (21474838 - 1) = 2147483700 wraps to -2147483596, / 1073741900 = -1
        ShareCase{1073741900, 0, -1},
        // 2^31 is -2147483648: / 50 = -42949672; 100 * -42949673 = -4294967300 wraps to -4, / -2^31 = 0
        ShareCase{TWO_TO_31, 0, 0},
        // 2^32 - 1 is -1: / 50 = 0; 100 * -1 / -1 = 100
        ShareCase{TWO_TO_32 - 1, 0, 100},
        // 2^32 + 1000 wraps to 1000
        ShareCase{TWO_TO_32 + 1000, 0, 1}, ShareCase{1000, TWO_TO_32, 1}, ShareCase{1000, UINT64_MAX, 1},
        // -1 packets; 100 * (1610612737 - 1) = 100 * 0x60000000 wraps to -2^31 (0x25 * 2^32 + 0x80000000),
        // divided by -1 it wraps to itself
        ShareCase{UINT64_MAX, 1610612737, INT32_MIN}));

TEST(InternetPercent, FailsWith2WithoutPackets) {
    for (const std::uint64_t packets : {std::uint64_t{0}, TWO_TO_32, 7 * TWO_TO_32}) { // 0 in 32 bits
        for (const std::uint64_t lost : {0U, 5U}) {
            EXPECT_EQ(internet_percent({.packets = packets, .lost = lost}).error, 2);
        }
    }
}

// --- the run

class InternetTest : public LinkProbeTest {
  protected:
    void show(const std::string &table) { open.redirect("/proc/net/dev", folder.write("dev", table)); }

    ScratchFolder folder;
    RedirectedOpen open;
};

TEST_F(InternetTest, InitMarksTheTask) { expect_init_marks(internet_init, "internet_init"); }

TEST_F(InternetTest, MeasuresTheInterfaceOfTheTask) {
    show(HEADING + std::string(LOOPBACK) + table_line("eth0", "900", "100", "1", "1") +
         table_line("wlan0sta", "900", "100", "25", "25", "25", "25"));
    expect_measured(internet_exec, link_task(LAN, "eth0"), 2);
    expect_measured(internet_exec, link_task(LAN, "ETH0"), 2);
    expect_measured(internet_exec, link_task(WIFI, "wlan0sta"), 11);
    expect_measured(internet_exec, link_task(99, "lo"), 1);
}

TEST_F(InternetTest, MeasuresTotalsAndNotTheChangeSinceTheLastRun) {
    show(table_line("eth0", "900", "100", "100"));
    expect_measured(internet_exec, link_task(LAN, "eth0"), 11);
    expect_measured(internet_exec, link_task(LAN, "eth0"), 11);
    show(table_line("eth0", "1900", "100", "100")); // 100 * (100 + 40 - 1) / 2000
    expect_measured(internet_exec, link_task(LAN, "eth0"), 6);
}

TEST_F(InternetTest, TakesTheFirstLineOfTheInterface) {
    show(table_line("eth0", "1000", "0", "100") + table_line("eth0", "1000", "0"));
    expect_measured(internet_exec, link_task(LAN, "eth0"), 11);
    show(table_line("eth0", "0", "0") + table_line("eth0", "1000", "0"));
    expect_failed(internet_exec, link_task(LAN, "eth0"), 2);
}

TEST_F(InternetTest, ReadsTheTableInPiecesOf1023Characters) {
    const std::string line = table_line("eth0", "1000", "0");
    show(std::string(1023, 'x') + line);
    expect_measured(internet_exec, link_task(LAN, "eth0"), 1); // the second piece is the line
    show(std::string(1022, 'x') + line);                       // its first blank ends the first piece
    expect_measured(internet_exec, link_task(LAN, "eth0"), 1);
}

TEST_F(InternetTest, FailsWith2WithoutALineOrPackets) {
    for (const std::string &table :
         {std::string(), std::string("\n\n"), std::string(HEADING), std::string(LOOPBACK), table_line("eth0", "0", "0"),
          table_line("eth0", "5", "-5"), std::string("eth0: 7 900 1 20 7 7 7 7 7\n"), std::string(5000, 'x')}) {
        show(table);
        expect_failed(internet_exec, link_task(LAN, "eth0"), 2);
    }
}

TEST_F(InternetTest, FailsWithTheErrorOfTheOpen) {
    for (const int error : {ENOENT, EACCES, EMFILE}) {
        open.fail(error);
        expect_failed(internet_exec, link_task(LAN, "eth0"), error);
    }
}

TEST_F(InternetTest, CountsAFailedOpenWithoutErrorNumberAsZero) {
    open.fail(0);
    expect_measured(internet_exec, link_task(LAN, "eth0"), 0);
}

TEST_F(InternetTest, TracesAFailureUnderTheIssue) {
    struct Case {
        std::int32_t id;
        const char *text;
    };
    show("");
    for (const Case &given : {Case{LAN, "CB10 FAILED!"}, Case{WIFI, "CB13 FAILED!"}, Case{99, "CB13 FAILED!"}}) {
        Task task = link_task(given.id, "eth0");
        const CapturedTraces traces;
        internet_exec(&task);
        EXPECT_THAT(traces.texts_of("internet_exec"), ElementsAre(" ", given.text));
        EXPECT_THAT(traces.all()[0].line, StartsWith("(2) "));
        EXPECT_THAT(traces.all()[1].line, StartsWith("(3) "));
        EXPECT_EQ(traces.all()[1].code_file, "CODE_FILE=builtin/internet.c");
    }
}

// --- the path switched off

/// Only the status log's mark changes: the error stays 0 and an earlier value stays valid.
void expect_skipped_run(Task task) {
    for (const std::uint32_t valid : {0U, static_cast<std::uint32_t>(TASK_VALUE_VALID)}) {
        task.flags = TASK_RUNNABLE | valid;
        task.do_logfile = 1;
        const CapturedTraces traces;
        EXPECT_EQ(internet_exec(&task), SWITCHED_OFF);
        EXPECT_EQ(task.error, 0);
        EXPECT_EQ(task.do_logfile, 0);
        EXPECT_EQ(task.value, STALE_VALUE);
        EXPECT_EQ(task.flags, TASK_RUNNABLE | valid);
        EXPECT_THAT(traces.texts_of("internet_exec"), ElementsAre(" "));
    }
}

TEST_F(InternetTest, SkipsItsRunWhileItsPathIsSwitchedOff) {
    show(table_line("eth0", "1000", "0"));
    for (const std::int32_t flag : {0, 2, -1}) {
        lan_available = flag;
        wifi_available = 1;
        expect_skipped_run(link_task(LAN, "eth0"));
        EXPECT_EQ(open.count(), 0);
        lan_available = 1;
        wifi_available = flag;
        expect_skipped_run(link_task(WIFI, "eth0"));
        EXPECT_EQ(open.count(), 0);
    }
}

TEST_F(InternetTest, ChecksOnlyItsOwnPath) {
    show(table_line("eth0", "1000", "0"));
    lan_available = 1;
    wifi_available = 0;
    expect_measured(internet_exec, link_task(LAN, "eth0"), 1);
    lan_available = 0;
    wifi_available = 1;
    expect_measured(internet_exec, link_task(WIFI, "eth0"), 1);
    wifi_available = 0;
    expect_measured(internet_exec, link_task(99, "eth0"), 1);
}

} // namespace
