// Hours of a station on which all links and paths change, compared with records and sentences written by hand.

#include "network_paths.h"
#include "station_life.h"
#include "status_log.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

/// The kernel's two tables; each line belongs to one check.
struct Air {
    int lost_on_ethernet = 0;
    int lost_on_wifi = 0;
    std::string quality = "70.";
    std::string level = "-20.";

    void put_traffic(const Station &station) const {
        station.files().write(TRAFFIC_FILE, traffic_table(lost_on_ethernet, lost_on_wifi));
    }
    void put_signal(const Station &station) const { station.files().write(SIGNAL_FILE, signal_table(quality, level)); }
};

// 100 * (lost + 20 - 1) / 1000: 5 for 40 and 11 for 100. Limits 5 and 10, hysteresis 2. A state that is left for
// a milder one lasts a multiple of ten samples, so that the tenth sample reaches the next state too.
Check ethernet_traffic_check(Air *air) {
    return {.issue = "CB10\t0",
            .period = 60,
            .delay = 10,
            .put =
                [air](Station &station, const std::string &lost) {
                    air->lost_on_ethernet = std::stoi(lost);
                    air->put_traffic(station);
                },
            .plateaus = {
                {15, "0", "1", "OK", ""},
                {9, "100", "11", "OK", ""}, // too short
                {1, "30", "4", "OK", ""},
                {20, "40", "5", "WARN",
                 "4 [warning] ID: CB10[0]: value: 5 internet connection via ethernet above 5 threshold."},
                {10, "100", "11", "FAIL",
                 "3 [failed] ID: CB10[0]: value: 11 internet connection via ethernet above 10 threshold."},
                {10, "61", "8", "FAIL", ""}, // 10 - 2
                {10, "60", "7", "WARN",
                 "4 [warning] ID: CB10[0]: value: 7 internet connection via ethernet above 5 threshold."},
                {10, "20", "3", "WARN", ""}, // 5 - 2
                {15, "10", "2", "OK",
                 "5 [notice] ID: CB10[0]: value: 2 internet connection via ethernet at normal threshold."},
            }};
}

Check wifi_traffic_check(Air *air) {
    return {.issue = "CB13\t0",
            .period = 60,
            .delay = 10,
            .put =
                [air](Station &station, const std::string &lost) {
                    air->lost_on_wifi = std::stoi(lost);
                    air->put_traffic(station);
                },
            .plateaus = {
                {11, "0", "1", "OK", ""},
                {20, "1000", "101", "FAIL",
                 "3 [failed] ID: CB13[0]: value: 101 An internet connection via WiFi above 10 threshold."},
                {12, "1", "2", "OK",
                 "5 [notice] ID: CB13[0]: value: 2 An internet connection via WiFi at normal threshold."},
            }};
}

void put_ethernet(Station &station, const std::string &state) { station.files().write(ETHERNET_FILE, state); }
void put_wireless(Station &station, const std::string &state) { station.files().write(WIRELESS_FILE, state); }

Check ethernet_link_check() {
    return {.issue = "CB12\t0",
            .period = 60,
            .delay = 10,
            .put = put_ethernet,
            .plateaus = {
                {7, "up\n", "0", "OK", ""},
                {9, "down\n", "1", "OK", ""}, // too short
                {1, "UP\n", "0", "OK", ""},
                {13, "lowerlayerdown\n", "1", "FAIL",
                 "3 [failed] ID: CB12[0]: value: 1 Ethernet connection could not be established."},
                {9, "up\n", "0", "FAIL", ""}, // too short
                {1, "", "1", "FAIL", ""},
                {12, "up\n", "0", "OK", "5 [notice] ID: CB12[0]: value: 0 Ethernet connection is established."},
            }};
}

Check wireless_link_check() {
    return {.issue = "CB02\t0",
            .period = 60,
            .delay = 10,
            .put = put_wireless,
            .plateaus = {
                {5, "up\n", "0", "OK", ""},
                {4, "", "NaN", "OK", ""},
                {14, "dormant\n", "1", "FAIL", "3 [failed] ID: CB02[0]: value: 1 wlan0sta: "},
                {4, "", "NaN", "FAIL", ""},
                {10, "up\n", "0", "OK", "5 [notice] ID: CB02[0]: value: 0 wlan0sta: "},
            }};
}

// Limits 30 and 50, hysteresis 5. Warnings are logged as failures too.
Check quality_check(Air *air) {
    return {.issue = "CB04\t0",
            .period = 60,
            .delay = 10,
            .put =
                [air](Station &station, const std::string &quality) {
                    air->quality = quality;
                    air->put_signal(station);
                },
            .plateaus = {
                {12, "51.", "51", "OK", ""},
                {10, "50.9", "50", "WARN", "3 [failed] ID: CB04[0]: value: 50 wlan0sta: "},
                {10, "30.", "30", "FAIL", "3 [failed] ID: CB04[0]: value: 30 wlan0sta: "},
                {10, "35.", "35", "FAIL", ""}, // 30 + 5
                {10, "36.", "36", "WARN", "3 [failed] ID: CB04[0]: value: 36 wlan0sta: "},
                {10, "55.", "55", "WARN", ""}, // 50 + 5
                {10, "56.", "56", "OK", "5 [notice] ID: CB04[0]: value: 56 wlan0sta: "},
            }};
}

// Limits -70 and -30, hysteresis 5; every ten seconds, confirmed by the fourth sample.
Check level_check(Air *air) {
    return {.issue = "CB09\t0",
            .period = 10,
            .delay = 4,
            .put =
                [air](Station &station, const std::string &level) {
                    air->level = level;
                    air->put_signal(station);
                },
            .plateaus = {
                {40, "-29.", "-29", "OK", ""},
                {3, "-90.", "-90", "OK", ""}, // too short
                {1, "-29.4", "-29", "OK", ""},
                {8, "-29.5", "-30", "WARN", "3 [failed] ID: CB09[0]: value: -30 wlan0sta: "},
                {8, "-70.", "-70", "FAIL", "3 [failed] ID: CB09[0]: value: -70 wlan0sta: "},
                {8, "-65.", "-65", "FAIL", ""}, // -70 + 5
                {8, "-64.", "-64", "WARN", "3 [failed] ID: CB09[0]: value: -64 wlan0sta: "},
                {8, "-25.", "-25", "WARN", ""}, // -30 + 5
                {8, "-24.", "-24", "OK", "5 [notice] ID: CB09[0]: value: -24 wlan0sta: "},
            }};
}

void insert_behind(std::vector<Check> *checks, const std::string &issue, std::vector<Check> more) {
    const auto place =
        std::find_if(checks->begin(), checks->end(), [&issue](const Check &each) { return each.issue == issue; });
    checks->insert(place + 1, more.begin(), more.end());
}

std::vector<Check> changing_checks(Air *air) {
    std::vector<Check> checks = even_checks();
    replace(&checks, ethernet_traffic_check(air));
    replace(&checks, ethernet_link_check());
    insert_behind(&checks, "CB10\t0", {wifi_traffic_check(air)});
    const Check present{.issue = "CB01\t0",
                        .period = 60,
                        .delay = 1,
                        .put = nullptr,
                        .plateaus = {{.samples = 1, .input = "", .value = "0"}}};
    insert_behind(&checks, "CB07\t0", {present, wireless_link_check(), quality_check(air), level_check(air)});
    return checks;
}

} // namespace

// The courses take 100, 43, 52, 37 and 72 minutes and 920 seconds: eight hours contain each in full.
TEST(PathsLife, OfEightHoursMatches) {
    Air air;
    Station station(connected_board());
    station.environment = {"TZ=UTC0"};
    station.files().remove("/run/systemd/journal/socket");
    StationLife life(changing_checks(&air));
    air.quality = "51.";
    air.level = "-29.";
    air.put_signal(station);
    life.start(&station, {"-S", "102400"});
    life.steps(&station, 8 * 360);
    EXPECT_THAT(records_in(station.read(STATUS_LOG)), testing::ContainerEq(life.records()));
    EXPECT_THAT(sentences_of(station), testing::ContainerEq(life.sentences()));
    EXPECT_GT(life.sentences().size(), 100U);
}
