// The sentences on the syslog socket.

#include "station_life.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

const std::string BLUETOOTH_FILE = "/sys/class/bluetooth/hci0/power/runtime_status";
const std::string OPERSTATE_FILE = "/sys/class/net/eth0/operstate";

void keep_step(Station &station, std::int64_t period) { station.step(period - station.clock() % period); }

void samples(Station &station, int count, std::int64_t period) {
    for (int i = 0; i < count; ++i) {
        keep_step(station, period);
    }
}

/// Matches a sentence on the socket, in the order of the fields.
testing::Matcher<const SyslogRecord &> is_record(int priority, const std::string &text) {
    return testing::AllOf(testing::Field(&SyslogRecord::priority, priority), testing::Field(&SyslogRecord::text, text));
}

} // namespace

TEST(Sentences, CarryTheDaemonsNameAndProcess) {
    Station station(even_board());
    station.start();
    station.temperature(72000);
    samples(station, 5, 10);
    ASSERT_THAT(station.syslog(), SizeIs(1));
    const SyslogRecord &record = station.syslog()[0];
    EXPECT_EQ(record.facility, LOG_DAEMON);
    EXPECT_EQ(record.priority, LOG_WARNING);
    EXPECT_EQ(record.identity, "vigmond");
    EXPECT_EQ(record.pid, station.pid());
    EXPECT_EQ(record.text, "[warning] ID: CB20[0]: value: 72 CPU temperature above 70 threshold.");
}

TEST(Sentences, KeepTheirIdentityUnderAnotherName) {
    Station station(even_board().emmc(7, 5, 5));
    station.argv0 = "/opt/another-name";
    station.start();
    ASSERT_THAT(station.syslog(), SizeIs(1));
    EXPECT_EQ(station.syslog()[0].identity, "vigmond");
}

TEST(Sentences, AreAbsentOnAHealthyStation) {
    Station station(even_board());
    station.start();
    samples(station, 100, 10);
    EXPECT_THAT(station.syslog(), IsEmpty());
}

TEST(Sentences, ComeWithTheFifthSampleAndOnce) {
    Station station(even_board());
    station.start();
    station.temperature(72000);
    samples(station, 4, 10);
    EXPECT_THAT(station.syslog(), IsEmpty());
    samples(station, 30, 10);
    EXPECT_THAT(station.syslog(), SizeIs(1));
}

TEST(Sentences, ReachTheConsoleWithoutASyslogDaemon) {
    Station station(even_board().file("/dev/console", ""));
    station.files().remove("/dev/log");
    station.start();
    station.temperature(72000);
    samples(station, 5, 10);
    EXPECT_THAT(station.read("/dev/console"),
                testing::EndsWith("vigmond[" + std::to_string(station.pid()) +
                                  "]: [warning] ID: CB20[0]: value: 72 CPU temperature above 70 threshold.\r\n"));
}

TEST(Sentences, DoNotStopAStationWithoutSyslogAndConsole) {
    Station station(even_board());
    station.files().remove("/dev/log");
    station.start();
    station.temperature(80000);
    samples(station, 7, 10);
    EXPECT_EQ(station.stop(), 1);
}

// --- the severity level

struct Severity {
    std::vector<std::string> options;
    std::vector<std::string> sentences;
};

class SentencesBySeverity : public testing::TestWithParam<Severity> {};

TEST_P(SentencesBySeverity, SelectsTheSentences) {
    Station station(even_board());
    station.start(GetParam().options);
    for (const int temperature : {72000, 80000, 42000}) {
        station.temperature(temperature);
        samples(station, 5, 10);
    }
    EXPECT_THAT(sentences_of(station), ElementsAreArray(GetParam().sentences));
}

const std::string HOT_WARNING = "4 [warning] ID: CB20[0]: value: 72 CPU temperature above 70 threshold.";
const std::string HOT_FAILURE = "3 [failed] ID: CB20[0]: value: 80 CPU temperature above 80 threshold.";
const std::string COOL_AGAIN = "5 [notice] ID: CB20[0]: value: 42 CPU temperature at normal threshold.";
INSTANTIATE_TEST_SUITE_P(Names, SentencesBySeverity,
                         testing::Values(Severity{{"-s", "critical"}, {}}, Severity{{"-s", "failed"}, {HOT_FAILURE}},
                                         Severity{{"-s", "warning"}, {HOT_WARNING, HOT_FAILURE}},
                                         Severity{{"-s", "OK"}, {HOT_WARNING, HOT_FAILURE, COOL_AGAIN}},
                                         Severity{{"-D"}, {HOT_WARNING, HOT_FAILURE, COOL_AGAIN}},
                                         Severity{{"-s", "none"}, {HOT_WARNING, HOT_FAILURE, COOL_AGAIN}}));

// --- the checks

TEST(TemperatureSentences, CoverBothLimits) {
    Station station(even_board());
    station.start();
    for (const int temperature : {-30500, -40500, -24000}) { // -30, -40 and -23, above -30 + 5
        station.temperature(temperature);
        samples(station, 5, 10);
    }
    EXPECT_THAT(sentences_of(station),
                ElementsAre("4 [warning] ID: CB20[0]: value: -30 CPU temperature below -30 threshold.",
                            "3 [failed] ID: CB20[0]: value: -40 CPU temperature below -40 threshold.",
                            "5 [notice] ID: CB20[0]: value: -23 CPU temperature at normal threshold."));
}

TEST(TemperatureSentences, AreAbsentWhileItCannotBeRead) {
    Station station(even_board().without(TEMPERATURE_FILE));
    station.start();
    samples(station, 30, 10);
    EXPECT_THAT(station.syslog(), IsEmpty());
}

TEST(MemorySentences, FollowTheFreeMemory) {
    Station station(even_board());
    station.start();
    for (const std::uint64_t free : {250U, 100U, 360U}) { // of 1000; 36 is above 25 + 10
        station.files().write(MEMORY_FILE, meminfo(1000, free));
        samples(station, 5, 10);
    }
    EXPECT_THAT(sentences_of(station),
                ElementsAre("4 [warning] ID: CB21[0]: value: 25 free memory below 25 threshold.",
                            "3 [failed] ID: CB21[0]: value: 10 free memory below 10 threshold.",
                            "5 [notice] ID: CB21[0]: value: 36 free memory at normal threshold."));
}

TEST(DiskSentences, NameTheMountPoint) {
    Station station(even_board());
    station.start();
    for (const std::uint64_t available : {20U, 5U, 31U}) { // 31 is above 25 + 5
        station.disk("/tmp", {.blocks = 100, .free = available, .available = available});
        samples(station, 5, 900);
    }
    EXPECT_THAT(sentences_of(station),
                ElementsAre("4 [warning] ID: CB22[3]: value: 20 /tmp: free space below 25 threshold.",
                            "3 [failed] ID: CB22[3]: value: 5 /tmp: free space below 10 threshold.",
                            "5 [notice] ID: CB22[3]: value: 31 /tmp: free space at normal threshold."));
}

TEST(DiskSentences, AreWrittenTwiceForADiskListedTwice) {
    Station station(even_board().disk("/rw-root", {.blocks = 100, .free = 20, .available = 20}));
    station.start();
    samples(station, 4, 900);
    EXPECT_THAT(sentences_of(station),
                ElementsAre("4 [warning] ID: CB22[0]: value: 20 /rw-root: free space below 25 threshold.",
                            "4 [warning] ID: CB22[2]: value: 20 /rw-root: free space below 25 threshold."));
}

TEST(WearoutSentences, ComeWithTheFirstSample) {
    Station station(even_board().emmc(7, 5, 1));
    station.start();
    EXPECT_THAT(sentences_of(station),
                ElementsAre("4 [warning] ID: CB07[0]: value: 50 eMMC /dev/mmcblk1: wearout above 50 threshold."));
    put_emmc(&station.emmc(), 7, 5, 9);
    samples(station, 2, 3600);
    ASSERT_THAT(station.syslog(), SizeIs(2));
    EXPECT_THAT(station.syslog()[1],
                is_record(LOG_ERR, "[failed] ID: CB07[0]: value: 90 eMMC /dev/mmcblk1: wearout above 90 threshold."));
}

TEST(BluetoothSentences, ComeAfterTenSamplesWithoutItsFile) {
    Station station(even_board().without(BLUETOOTH_FILE));
    station.start();
    samples(station, 8, 60);
    EXPECT_THAT(station.syslog(), IsEmpty());
    samples(station, 3, 60);
    station.files().write(BLUETOOTH_FILE, "");
    samples(station, 12, 60);
    EXPECT_THAT(sentences_of(station),
                ElementsAre("3 [failed] ID: CB05[0]: value: 1 Bluetooth hardware is not available.",
                            "5 [notice] ID: CB05[0]: value: 0 Bluetooth hardware is available."));
}

TEST(EthernetSentences, CoverTheLinkAndTheHardware) {
    Station station(even_board());
    station.start();
    station.files().write(OPERSTATE_FILE, "down\n");
    samples(station, 10, 60);
    station.files().remove(OPERSTATE_FILE);
    samples(station, 10, 60);
    station.files().write(OPERSTATE_FILE, "up\n");
    samples(station, 10, 60);
    EXPECT_THAT(sentences_of(station),
                ElementsAre("3 [failed] ID: CB12[0]: value: 1 Ethernet connection could not be established.",
                            "3 [failed] ID: CB11[0]: value: 1 Ethernet hardware not available or not usable.",
                            "5 [notice] ID: CB11[0]: value: 0 Ethernet hardware available and usable.",
                            "5 [notice] ID: CB12[0]: value: 0 Ethernet connection is established."));
}

// 100 * (lost + 20 - 1) / 1000: 5 for 40, 11 for 100; 2 is below the limit of 5 - 2.
TEST(InternetSentences, FollowTheLosses) {
    Station station(even_board());
    station.start();
    for (const char *lost : {"40", "100", "10"}) {
        station.files().write("/proc/net/dev",
                              std::string("  eth0: 90000 900 ") + lost + " 0 0 0 0 0 10000 100 0 0 0 0 0 0\n");
        samples(station, 10, 60);
    }
    EXPECT_THAT(sentences_of(station),
                ElementsAre("4 [warning] ID: CB10[0]: value: 5 internet connection via ethernet above 5 threshold.",
                            "3 [failed] ID: CB10[0]: value: 11 internet connection via ethernet above 10 threshold.",
                            "5 [notice] ID: CB10[0]: value: 2 internet connection via ethernet at normal threshold."));
}

// The interface's name takes the place of a sentence. Kept.
TEST(WirelessSentences, NameTheInterfaceOnly) {
    const auto wireless = [](const char *level) {
        return std::string(" wlan0sta: 0000 70. ") + level + " -256 0 0 0 0 0 0\n";
    };
    Station station(even_board()
                        .file("/var/lib/evse/portapi/wifi.conf", "on")
                        .file("/sys/class/net/wlan0sta/operstate", "up\n")
                        .file("/proc/net/wireless", wireless("-29.")));
    station.start();
    for (const char *level : {"-80.", "-29.", "-24."}) { // the hysteresis ends 5 above -70 and -30
        station.files().write("/proc/net/wireless", wireless(level));
        samples(station, 4, 10);
    }
    EXPECT_THAT(sentences_of(station), ElementsAre("3 [failed] ID: CB09[0]: value: -80 wlan0sta: ",
                                                   "3 [failed] ID: CB09[0]: value: -29 wlan0sta: ",
                                                   "5 [notice] ID: CB09[0]: value: -24 wlan0sta: "));
}

// 80 of every 100 further ticks are busy. Without a template the limit is named in words.
TEST(LoadSentences, NameTheLimit) {
    Station station(even_board());
    station.start();
    for (int sample = 1; sample <= 5; ++sample) {
        station.files().write("/proc/stat", "cpu  " + std::to_string(1000 + 80 * sample) + " 0 1000 " +
                                                std::to_string(8000 + 20 * sample) + " 0 0 0 0 0 0\n");
        samples(station, 1, 180);
    }
    EXPECT_THAT(sentences_of(station),
                ElementsAre("4 [warning] ID: CB31[0]: value: 80 is above maximum warning threshold 75"));
}

// A value beyond both limits causes the failure's sentence only.
TEST(Sentences, OfOneHeartbeatComeInTheOrderOfTheChecks) {
    Station station(even_board());
    station.start();
    station.temperature(99000);
    station.files().write(MEMORY_FILE, meminfo(1000, 0));
    samples(station, 5, 10);
    EXPECT_THAT(sentences_of(station),
                ElementsAre("3 [failed] ID: CB20[0]: value: 99 CPU temperature above 80 threshold.",
                            "3 [failed] ID: CB21[0]: value: 0 free memory below 10 threshold."));
}
