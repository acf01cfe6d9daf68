// An hour and a day of a station on which everything changes, compared with records and sentences written by
// hand.

#include "station_life.h"
#include "status_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

constexpr int HOUR = 360; // heartbeats
constexpr int DAY = 24 * HOUR;
constexpr std::int64_t NOON = 1709294400; // of 2024-03-01

const std::string BLUETOOTH_FILE = "/sys/class/bluetooth/hci0/power/runtime_status";

void put_temperature(Station &station, const std::string &content) { station.files().write(TEMPERATURE_FILE, content); }

void put_memory(Station &station, const std::string &free) {
    station.files().write(MEMORY_FILE, meminfo(100, std::stoull(free)));
}

void put_disk(Station &station, const std::string &available) {
    const std::uint64_t blocks = std::stoull(available);
    station.disk("/tmp", {.blocks = 100, .free = blocks, .available = blocks});
}

void put_wear(Station &station, const std::string &tenths) {
    put_emmc(&station.emmc(), 7, static_cast<std::uint8_t>(std::stoi(tenths)), 0);
}

void put_bluetooth(Station &station, const std::string &presence) {
    if (presence == "present") {
        station.files().write(BLUETOOTH_FILE, "active\n");
    } else {
        station.files().remove(BLUETOOTH_FILE);
    }
}

// A state that is left for a milder one lasts a multiple of five samples, so that the fifth sample reaches the
// next state too.

// Limits -40, -30, 70 and 80, hysteresis 5. 240 samples, 40 minutes.
Check temperature_check() {
    return {
        .issue = "CB20\t0",
        .period = 10,
        .delay = 5,
        .put = put_temperature,
        .plateaus = {
            {60, "42000\n", "42", "OK", ""},
            {4, "99000\n", "99", "OK", ""}, // too short
            {16, "69000\n", "69", "OK", ""},
            {20, "72000\n", "72", "WARN", "4 [warning] ID: CB20[0]: value: 72 CPU temperature above 70 threshold."},
            {20, "80000\n", "80", "FAIL", "3 [failed] ID: CB20[0]: value: 80 CPU temperature above 80 threshold."},
            {10, "75000\n", "75", "FAIL", ""}, // 80 - 5
            {10, "74000\n", "74", "WARN", "4 [warning] ID: CB20[0]: value: 74 CPU temperature above 70 threshold."},
            {10, "65000\n", "65", "WARN", ""}, // 70 - 5
            {10, "64000\n", "64", "OK", "5 [notice] ID: CB20[0]: value: 64 CPU temperature at normal threshold."},
            {20, "-30500\n", "-30", "WARN", "4 [warning] ID: CB20[0]: value: -30 CPU temperature below -30 threshold."},
            {10, "-40500\n", "-40", "FAIL", "3 [failed] ID: CB20[0]: value: -40 CPU temperature below -40 threshold."},
            {20, "cold\n", "NaN", "FAIL", ""},
            {30, "20000\n", "20", "OK", "5 [notice] ID: CB20[0]: value: 20 CPU temperature at normal threshold."},
        }};
}

// Limits 10 and 25, hysteresis 10. 180 samples, half an hour.
Check memory_check() {
    return {.issue = "CB21\t0",
            .period = 10,
            .delay = 5,
            .put = put_memory,
            .plateaus = {
                {60, "50", "50", "OK", ""},
                {30, "25", "25", "WARN", "4 [warning] ID: CB21[0]: value: 25 free memory below 25 threshold."},
                {15, "35", "35", "WARN", ""}, // 25 + 10
                {15, "10", "10", "FAIL", "3 [failed] ID: CB21[0]: value: 10 free memory below 10 threshold."},
                {15, "20", "20", "FAIL", ""}, // 10 + 10
                {15, "21", "21", "WARN", "4 [warning] ID: CB21[0]: value: 21 free memory below 25 threshold."},
                {30, "36", "36", "OK", "5 [notice] ID: CB21[0]: value: 36 free memory at normal threshold."},
            }};
}

// 80 samples, 80 minutes.
Check bluetooth_check() {
    return {.issue = "CB05\t0",
            .period = 60,
            .delay = 10,
            .put = put_bluetooth,
            .plateaus = {
                {20, "present", "0", "OK", ""},
                {9, "missing", "1", "OK", ""}, // too short
                {11, "present", "0", "OK", ""},
                {20, "missing", "1", "FAIL", "3 [failed] ID: CB05[0]: value: 1 Bluetooth hardware is not available."},
                {20, "present", "0", "OK", "5 [notice] ID: CB05[0]: value: 0 Bluetooth hardware is available."},
            }};
}

// Limits 10 and 25, hysteresis 5. 50 samples, twelve and a half hours.
Check disk_check() {
    return {.issue = "CB22\t3",
            .period = 900,
            .delay = 5,
            .put = put_disk,
            .plateaus = {
                {10, "50", "50", "OK", ""},
                {10, "25", "25", "WARN", "4 [warning] ID: CB22[3]: value: 25 /tmp: free space below 25 threshold."},
                {10, "10", "10", "FAIL", "3 [failed] ID: CB22[3]: value: 10 /tmp: free space below 10 threshold."},
                {5, "15", "15", "FAIL", ""}, // 10 + 5
                {5, "16", "16", "WARN", "4 [warning] ID: CB22[3]: value: 16 /tmp: free space below 25 threshold."},
                {10, "31", "31", "OK", "5 [notice] ID: CB22[3]: value: 31 /tmp: free space at normal threshold."},
            }};
}

// Limits 50 and 90, changed by the first sample. 25 samples, a day.
Check wear_check() {
    return {
        .issue = "CB07\t0",
        .period = 3600,
        .delay = 1,
        .put = put_wear,
        .plateaus = {
            {8, "1", "10", "OK", ""},
            {4, "4", "40", "OK", ""},
            {8, "5", "50", "WARN", "4 [warning] ID: CB07[0]: value: 50 eMMC /dev/mmcblk1: wearout above 50 threshold."},
            {5, "9", "90", "FAIL", "3 [failed] ID: CB07[0]: value: 90 eMMC /dev/mmcblk1: wearout above 90 threshold."},
        }};
}

std::vector<Check> eventful_checks() {
    std::vector<Check> checks = even_checks();
    for (Check &check :
         std::vector{temperature_check(), memory_check(), bluetooth_check(), disk_check(), wear_check()}) {
        replace(&checks, std::move(check));
    }
    return checks;
}

/// Removes the journal's socket: nobody reads a day of traces.
void silence(Station *station) { station->files().remove("/run/systemd/journal/socket"); }

/// The first line in which two texts differ; a day's text is too long to print.
std::string first_difference(const std::string &actual, const std::string &expected) {
    std::istringstream actual_lines(actual);
    std::istringstream expected_lines(expected);
    std::string actual_line;
    for (std::string expected_line; std::getline(expected_lines, expected_line);) {
        if (!std::getline(actual_lines, actual_line) || actual_line != expected_line) {
            return "expected: " + expected_line.append("\nactual:   ").append(actual_line);
        }
    }
    return actual == expected ? "" : "more than expected";
}

struct Life : testing::Test {
    Life() { station.environment = {"TZ=UTC0"}; }

    void live(int beats) {
        silence(&station);
        life.start(&station, {"-S", "102400"});
        life.steps(&station, beats);
        const std::string header = header_text("2024-03-01 12:00:07", "START", "vigmond \"-S\" \"102400\"");
        EXPECT_EQ(first_difference(station.read(STATUS_LOG), header + text_of(life.records())), "");
        EXPECT_EQ(sentences_of(station), life.sentences());
    }

    Station station{even_board()};
    StationLife life{eventful_checks()};
};

} // namespace

// The temperature's curve runs one and a half times (7 and 2 sentences), the memory's twice (4 each); the
// Bluetooth file is missing long enough once.
TEST_F(Life, OfAnHourMatches) {
    live(HOUR);
    EXPECT_EQ(life.records().size(), records_between(NOON + 7, station.clock(), 10));
    EXPECT_EQ(life.sentences().size(), 9U + 2 * 4U + 1U);
}

// 36 rounds of the temperature, 48 of the memory, 18 of the Bluetooth file, two of the disk except its last
// samples, one of the wear.
TEST_F(Life, OfADayMatches) {
    live(DAY);
    EXPECT_EQ(life.records().size(), records_between(NOON + 7, station.clock(), 10));
    EXPECT_EQ(life.sentences().size(), 36U * 7 + 48U * 4 + 18U * 2 + 2U * 4 + 2U);
}
