// Values and states on the faked board, as the analyzers trace them.

#include "station.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;

namespace {

const std::string TEMPERATURE_ISSUE = "CB20[0]";
const std::string MEMORY_ISSUE = "CB21[0]";
const std::string EMMC_ISSUE = "CB07[0]";
constexpr const char *UNCHANGED = "do_log: N, do_notify: N";
constexpr const char *CHANGED = "do_log: Y, do_notify: Y";

/// The value and marks of the last evaluation of an issue: "43 (VALID) -- do_log: N, do_notify: N".
std::string last_of(Station &station, const std::string &issue) {
    const std::string start = "analyze ID: " + issue + " -- value: ";
    std::string last;
    for (const std::string &message : station.trace().messages_with("do_notify")) {
        if (message.starts_with(start)) {
            last = message.substr(start.size());
        }
    }
    return last;
}

std::string valid(int value, const char *marks = UNCHANGED) { return std::to_string(value) + " (VALID) -- " + marks; }
std::string invalid(int value) { return std::to_string(value) + " (INVALID) -- " + UNCHANGED; }

/// The marks of `count` heartbeats' evaluations of an issue, "Y" for a change of state.
std::string changes_in(Station &station, const std::string &issue, int count) {
    std::string changes;
    for (int i = 0; i < count; ++i) {
        station.forget();
        station.step();
        const std::string last = last_of(station, issue);
        changes += last.ends_with(CHANGED) ? "Y" : last.ends_with(UNCHANGED) ? "N" : "?";
    }
    return changes;
}

} // namespace

struct Sample {
    const char *content;
    std::string evaluation;
};

class Temperature : public testing::TestWithParam<Sample> {};

TEST_P(Temperature, IsRead) {
    Station station(Board().file(TEMPERATURE_FILE, GetParam().content));
    station.start();
    EXPECT_EQ(last_of(station, TEMPERATURE_ISSUE), GetParam().evaluation);
}

// (millidegrees + 499) / 1000, cut towards zero.
INSTANTIATE_TEST_SUITE_P(Good, Temperature,
                         testing::Values(Sample{"42999\n", valid(43)}, Sample{"42500\n", valid(42)},
                                         Sample{"42501\n", valid(43)}, Sample{"500\n", valid(0)},
                                         Sample{"1500\n", valid(1)}, Sample{"1501\n", valid(2)},
                                         Sample{"-1500\n", valid(-1)}, Sample{"  42000 and more", valid(42)},
                                         Sample{"4.2e4\n", valid(42)}, Sample{"42000\n99000\n", valid(42)}));
const std::string LONG_NUMBER(4000, '9');
INSTANTIATE_TEST_SUITE_P(Bad, Temperature,
                         testing::Values(Sample{"", invalid(0)}, Sample{"\n", invalid(0)}, Sample{"warm\n", invalid(0)},
                                         Sample{"inf\n", invalid(0)}, Sample{"nan\n", invalid(0)},
                                         Sample{"1e300\n", invalid(0)}, Sample{LONG_NUMBER.c_str(), invalid(0)}));

TEST(TemperatureFile, ThatIsMissingMakesTheValueInvalid) {
    Station station(Board().without(TEMPERATURE_FILE));
    station.start();
    EXPECT_EQ(last_of(station, TEMPERATURE_ISSUE), invalid(0));
    EXPECT_THAT(station.trace().messages_of("temperature_exec"), ElementsAre(" ", "FAILED!"));
}

TEST(TemperatureFile, IsTracedWhenRead) {
    Station station(Board().temperature(42999));
    station.start();
    EXPECT_THAT(station.trace().messages_of("temperature_exec"), ElementsAre(" ", "CPU temp: 43 Celsius"));
}

// Warning from 70 on, failure from 80 on, each after five samples; 5 degrees of hysteresis.
TEST(TemperatureState, ChangesWithTheFifthSample) {
    Station station;
    station.start();
    station.temperature(72000);
    EXPECT_EQ(changes_in(station, TEMPERATURE_ISSUE, 8), "NNNNYNNN");
}

TEST(TemperatureState, HoldsDownTo65AndLeavesAt64) {
    Station station;
    station.start();
    station.temperature(70000);
    EXPECT_EQ(changes_in(station, TEMPERATURE_ISSUE, 5), "NNNNY");
    station.temperature(65000);
    EXPECT_EQ(changes_in(station, TEMPERATURE_ISSUE, 7), "NNNNNNN");
    station.temperature(64000);
    EXPECT_EQ(changes_in(station, TEMPERATURE_ISSUE, 6), "NNNNYN");
    station.temperature(69000);
    EXPECT_EQ(changes_in(station, TEMPERATURE_ISSUE, 6), "NNNNNN") << "OK again: the limit is 70 again";
}

TEST(TemperatureState, ChangesFromWarningToFailureAndBack) {
    Station station;
    station.start();
    station.temperature(79000);
    EXPECT_EQ(changes_in(station, TEMPERATURE_ISSUE, 5), "NNNNY");
    station.temperature(80000);
    EXPECT_EQ(changes_in(station, TEMPERATURE_ISSUE, 5), "NNNNY");
    station.temperature(75000); // 80 - 5 is still a failure
    EXPECT_EQ(changes_in(station, TEMPERATURE_ISSUE, 6), "NNNNNN");
    station.temperature(74000);
    EXPECT_EQ(changes_in(station, TEMPERATURE_ISSUE, 4), "NNNY") << "the sixth failure also counts for the warning";
}

TEST(TemperatureState, IgnoresFlutter) {
    Station station;
    station.start();
    for (int i = 0; i < 6; ++i) {
        station.temperature(72000);
        EXPECT_EQ(changes_in(station, TEMPERATURE_ISSUE, 4), "NNNN");
        station.temperature(42000);
        EXPECT_EQ(changes_in(station, TEMPERATURE_ISSUE, 1), "N");
    }
}

TEST(TemperatureState, KeepsCountingAfterAFailedRead) {
    Station station;
    station.start();
    station.temperature(72000);
    EXPECT_EQ(changes_in(station, TEMPERATURE_ISSUE, 4), "NNNN");
    station.files().write(TEMPERATURE_FILE, "no number\n");
    EXPECT_EQ(changes_in(station, TEMPERATURE_ISSUE, 3), "NNN");
    EXPECT_EQ(last_of(station, TEMPERATURE_ISSUE), invalid(72)) << "the stale value is shown";
    station.temperature(72000);
    EXPECT_EQ(changes_in(station, TEMPERATURE_ISSUE, 1), "Y") << "four before the gap and one after it";
}

TEST(TemperatureState, BelowFreezingWarnsAndFails) {
    Station station;
    station.start();
    station.temperature(-30500); // -30001 / 1000
    EXPECT_EQ(changes_in(station, TEMPERATURE_ISSUE, 5), "NNNNY");
    station.temperature(-40500);
    EXPECT_EQ(changes_in(station, TEMPERATURE_ISSUE, 5), "NNNNY");
    station.temperature(-24000); // -23 is above -30 + 5
    EXPECT_EQ(changes_in(station, TEMPERATURE_ISSUE, 5), "NNNNY");
}

struct MemoryContent {
    std::string content;
    std::string evaluation;
};

class MemoryShare : public testing::TestWithParam<MemoryContent> {};

TEST_P(MemoryShare, IsRead) {
    Station station(Board().file(MEMORY_FILE, GetParam().content));
    station.start();
    EXPECT_EQ(last_of(station, MEMORY_ISSUE), GetParam().evaluation);
}

// (100 * free + total / 2 - 1) / total, truncated.
INSTANTIATE_TEST_SUITE_P(
    Content, MemoryShare,
    testing::Values(MemoryContent{meminfo(1000, 500), valid(50)},   // 50499 / 1000
                    MemoryContent{meminfo(1000, 505), valid(50)},   // 50999: an exact half rounds down
                    MemoryContent{meminfo(1000, 506), valid(51)},   // 51099
                    MemoryContent{meminfo(1000, 0), valid(0)},      // 499
                    MemoryContent{meminfo(1000, 1000), valid(100)}, // 100499
                    MemoryContent{"memtotal: 1000 kB\nMEMFREE:\t250 kB\n", valid(25)},
                    MemoryContent{"MemTotal: 1000 kB\nMemFree: 10 kB\nMemFree: 300 kB\n", valid(30)},
                    MemoryContent{"MemTotal: 1000 kB\n", valid(0)}, MemoryContent{"", invalid(0)},
                    MemoryContent{"MemTotal: 0 kB\nMemFree: 0 kB\n", invalid(0)},
                    MemoryContent{"MemFree: 10 kB\n", invalid(0)}));

TEST(MemoryState, FollowsTheFileWhileTheDaemonRuns) {
    Station station(Board().memory(1000, 500));
    station.start();
    station.files().write(MEMORY_FILE, meminfo(1000, 250)); // 25 % is a warning
    EXPECT_EQ(changes_in(station, MEMORY_ISSUE, 5), "NNNNY");
    station.files().write(MEMORY_FILE, meminfo(1000, 350)); // 25 + 10
    EXPECT_EQ(changes_in(station, MEMORY_ISSUE, 6), "NNNNNN");
    station.files().write(MEMORY_FILE, meminfo(1000, 360));
    EXPECT_EQ(changes_in(station, MEMORY_ISSUE, 5), "NNNNY");
}

struct Emmc {
    std::uint8_t revision;
    std::uint8_t type_a;
    std::uint8_t type_b;
    std::string evaluation;
};

class EmmcWear : public testing::TestWithParam<Emmc> {};

TEST_P(EmmcWear, IsRead) {
    const Emmc &emmc = GetParam();
    Station station(Board().emmc(emmc.revision, emmc.type_a, emmc.type_b));
    station.start();
    EXPECT_EQ(last_of(station, EMMC_ISSUE), emmc.evaluation);
}

// Warning from 50 on, failure from 90 on, with the first sample.
INSTANTIATE_TEST_SUITE_P(Registers, EmmcWear,
                         testing::Values(Emmc{7, 0x01, 0x03, valid(30)}, Emmc{7, 0x03, 0x01, valid(30)},
                                         Emmc{8, 0xF2, 0x00, valid(20)}, Emmc{7, 0x00, 0x00, valid(0)},
                                         Emmc{7, 0x04, 0x05, valid(50, CHANGED)},
                                         Emmc{7, 0x0A, 0x00, valid(100, CHANGED)}, Emmc{7, 0x0B, 0x00, invalid(0)},
                                         Emmc{7, 0x01, 0x0F, invalid(0)}, Emmc{6, 0x01, 0x03, invalid(0)},
                                         Emmc{0, 0, 0, invalid(0)}));

TEST(Emmc, ReadsTheExtendedRegisterOnce) {
    Station station(Board().emmc(7, 1, 3));
    station.start();
    station.heartbeats(3);
    const StationMmc &emmc = station.emmc();
    EXPECT_EQ(emmc.commands, 1U) << "once an hour";
    EXPECT_EQ(emmc.opcode, 8U);
    EXPECT_EQ(emmc.argument, 0U);
    EXPECT_EQ(emmc.flags, 0xB5U);
    EXPECT_EQ(emmc.blksz, 512U);
    EXPECT_EQ(emmc.blocks, 1U);
    EXPECT_EQ(emmc.write_flag, 0);
    EXPECT_EQ(emmc.is_acmd, 0);
    EXPECT_THAT(station.trace().messages_of("wearout_exec"), ElementsAre(" ", "/dev/mmcblk1: 30%"));
}

TEST(Emmc, FailureMakesTheValueInvalid) {
    Station failing(Board().emmc_fails(EIO));
    failing.start();
    EXPECT_EQ(last_of(failing, EMMC_ISSUE), invalid(0));
    EXPECT_THAT(failing.trace().messages_of("wearout_exec"), ElementsAre(" ", "reading wearout FAILED!"));

    Station missing(Board().without(EMMC_DEVICE));
    missing.start();
    EXPECT_EQ(last_of(missing, EMMC_ISSUE), invalid(0));
    EXPECT_EQ(missing.emmc().commands, 0U);
}

// A failure without an error number counts as a measurement. Kept.
TEST(Emmc, FailureWithoutAnErrorNumberReadsAsUnworn) {
    Station station(Board().emmc_fails(0));
    station.start();
    EXPECT_EQ(last_of(station, EMMC_ISSUE), valid(0));
}

TEST(Disks, AreReadByTheirMountPoint) {
    Station station(Board()
                        .disk("/rw-root", {.blocks = 1000, .free = 1000, .available = 905})
                        .disk("/", {.blocks = 1000, .free = 400, .available = 304})
                        .disk("/tmp", {.blocks = 0})
                        .disk("/run", {.fails = true, .error = EACCES})
                        .disk("/var/lib/evse", {.fails = true, .error = 0})
                        .disk("/var/lib/persistent", {.blocks = 100, .free = 500, .available = 250})
                        .disk("/var/lib/parameter", {.blocks = 1000, .free = 10, .available = 0}));
    station.start();
    EXPECT_EQ(last_of(station, "CB22[0]"), valid(91)); // (90500 + 500) / 1000
    EXPECT_EQ(last_of(station, "CB22[1]"), valid(30)); // 30900 / 1000
    EXPECT_EQ(last_of(station, "CB22[2]"), valid(91)) << "the first one again; kept";
    EXPECT_EQ(last_of(station, "CB22[3]"), invalid(0)) << "no blocks";
    EXPECT_EQ(last_of(station, "CB22[4]"), invalid(0));
    EXPECT_EQ(last_of(station, "CB22[5]"), valid(0)) << "a failure without an error number counts as a measurement";
    EXPECT_EQ(last_of(station, "CB22[6]"), valid(50)) << "500 of the largest count";
    EXPECT_EQ(last_of(station, "CB22[7]"), valid(0));
    EXPECT_THAT(station.trace().messages_with("FAILED!"), testing::IsSupersetOf({"/tmp FAILED!", "/run FAILED!"}));
}

// In 32 bits 100 * 42949673 is 2^32 + 4, and (4 + 25000000) / 50000000 is 0.
TEST(Disks, WrapWhenTooLargeFor32Bits) {
    Station station(Board().disk("/", {.blocks = 50000000, .free = 42949673, .available = 42949673}));
    station.start();
    EXPECT_EQ(last_of(station, "CB22[1]"), valid(0));
}

TEST(Disks, TakeTheCountsFromAFileInPlaceOfTheMountPoint) {
    Station station(Board().file("/var/lib/persistent", "fs x 1000 500 250\n"));
    station.start();
    EXPECT_EQ(last_of(station, "CB22[6]"), valid(25));
}

TEST(Disks, ThatAreNotMountedAreInvalid) {
    Station station;
    station.files().remove("/rw-root");
    station.start();
    EXPECT_EQ(last_of(station, "CB22[0]"), invalid(0));
    EXPECT_EQ(last_of(station, "CB22[1]"), valid(50));
}

// Five samples of the fifteen-minute task, from 12:15 to 13:15.
TEST(DiskState, ChangesWithinTheHourAsTheDiskFills) {
    Station station;
    station.start();
    station.disk("/", {.blocks = 1000, .free = 250, .available = 250});
    station.set_clock(station.clock() - 7);
    int changes = 0;
    std::int64_t changed_at = 0;
    for (int beat = 1; beat <= 540; ++beat) { // an hour and a half
        station.forget();
        station.step();
        if (last_of(station, "CB22[1]") == valid(25, CHANGED)) {
            ++changes;
            changed_at = beat;
        }
    }
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(changed_at, 450); // at 13:15:00
}
