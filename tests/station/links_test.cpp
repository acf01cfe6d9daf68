// The checks of links and of their traffic: number of samples, sentences, and files that the kernel would not
// write.

#include "issue_records.h"
#include "network_paths.h"
#include "station_life.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

std::vector<LinkCheck> all_checks() {
    std::vector<LinkCheck> checks = lan_checks();
    for (const LinkCheck &check : wifi_checks()) {
        checks.push_back(check);
    }
    checks.push_back(bluetooth_check());
    return checks;
}

std::vector<std::string> times(int count, const std::string &text) {
    std::vector<std::string> texts(static_cast<std::size_t>(count), text);
    return texts;
}

std::vector<std::string> joined(const std::vector<std::vector<std::string>> &parts) {
    std::vector<std::string> all;
    for (const std::vector<std::string> &part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

} // namespace

// --- number of samples

class Link : public testing::TestWithParam<LinkCheck> {
  protected:
    Link() {
        station.environment = {"TZ=UTC0"};
        station.start(); // the first sample is a good one
    }

    void live(const Content &content, int count) {
        put(station, check.file, content);
        samples(&station, count, check.period);
    }

    const LinkCheck &check = GetParam();
    Station station{connected_board()};
};

TEST_P(Link, RaisesNothingOneSampleBeforeTheDelay) {
    for (int round = 0; round < 3; ++round) {
        live(check.bad, check.delay - 1);
        live(check.good, 1);
    }
    EXPECT_THAT(sentences_of(station), IsEmpty());
    const std::vector<std::string> round =
        joined({times(check.delay - 1, "OK " + check.bad_value), {"OK " + check.good_value}});
    EXPECT_THAT(records_of(station, check.issue),
                ElementsAreArray(joined({{"OK " + check.good_value}, round, round, round})));
}

TEST_P(Link, IsRaisedOnceAndClearedOnce) {
    live(check.bad, check.delay - 1);
    EXPECT_THAT(sentences_of(station), IsEmpty());
    live(check.bad, 1);
    EXPECT_THAT(sentences_of(station), ElementsAre(check.raised));
    live(check.bad, 20);
    live(check.good, check.delay - 1);
    EXPECT_THAT(sentences_of(station), ElementsAre(check.raised));
    live(check.good, 1);
    EXPECT_THAT(sentences_of(station), ElementsAre(check.raised, check.cleared));
    live(check.good, 20);
    EXPECT_THAT(sentences_of(station), ElementsAre(check.raised, check.cleared));
    EXPECT_THAT(records_of(station, check.issue),
                ElementsAreArray(joined({{"OK " + check.good_value},
                                         times(check.delay - 1, "OK " + check.bad_value),
                                         times(1 + 20, "FAIL " + check.bad_value),
                                         times(check.delay - 1, "FAIL " + check.good_value),
                                         times(1 + 20, "OK " + check.good_value)})));
}

INSTANTIATE_TEST_SUITE_P(Checks, Link, testing::ValuesIn(all_checks()),
                         [](const testing::TestParamInfo<LinkCheck> &given) { return given.param.issue; });

// --- contents of the files

namespace {

struct FileCase {
    Content content;
    std::vector<std::string> records; ///< of the issues, in the order of the test's arguments
};

struct LinkFiles : testing::Test {
    LinkFiles() {
        station.environment = {"TZ=UTC0"};
        station.start();
    }

    [[nodiscard]] std::vector<std::string> last_records(const std::vector<std::string> &issues) const {
        std::vector<std::string> records;
        records.reserve(issues.size());
        for (const std::string &issue : issues) {
            records.push_back(last_record_of(station, issue));
        }
        return records;
    }

    void expect_records(const std::string &file, const std::vector<std::string> &issues,
                        const std::vector<FileCase> &cases) {
        for (const FileCase &given : cases) {
            put(station, file, given.content);
            samples(&station, 1, 60);
            EXPECT_EQ(last_records(issues), given.records)
                << testing::PrintToString(given.content ? given.content->substr(0, 80) : "no file");
        }
    }

    /// Puts a folder in place of a file: it opens, but cannot be read.
    void put_folder(const std::string &file) {
        put(station, file, std::nullopt);
        std::filesystem::create_directory(station.files().host_path(file));
        samples(&station, 1, 60);
    }

    Station station{connected_board()};
};

const std::string MEGABYTES(8'000'000, 'u');

} // namespace

TEST_F(LinkFiles, OfTheEthernetStateAreParsedByTheirBeginning) {
    using namespace std::string_literals;
    expect_records(ETHERNET_FILE, {"CB11", "CB12"},
                   {{"UP\n", {"OK 0", "OK 0"}},
                    {"upside down", {"OK 0", "OK 0"}},
                    {"unknown\n", {"OK 0", "OK 1"}},
                    {"dormant\n", {"OK 0", "OK 1"}},
                    {"up\n", {"OK 0", "OK 0"}},
                    {"", {"OK 0", "OK 1"}}, // without a line the link counts as down, ...
                    {"u", {"OK 0", "OK 1"}},
                    {" up\n", {"OK 0", "OK 1"}},
                    {"\0up\n"s, {"OK 0", "OK 1"}},
                    {"\xff\xfe\x80", {"OK 0", "OK 1"}},
                    {MEGABYTES, {"OK 0", "OK 1"}},
                    {"up" + MEGABYTES, {"OK 0", "OK 0"}},
                    {std::nullopt, {"OK 1", "WARN NaN"}}}); // ... without a file its state is unknown
    put_folder(ETHERNET_FILE);
    EXPECT_THAT(last_records({"CB11", "CB12"}), ElementsAre("OK 0", "WARN NaN"));
}

TEST_F(LinkFiles, OfTheWirelessStateAreParsedByTheirBeginning) {
    expect_records(WIRELESS_FILE, {"CB01", "CB02"},
                   {{"Up\n", {"OK 0", "OK 0"}},
                    {"down\n", {"OK 0", "OK 1"}},
                    {"unknown\n", {"OK 0", "OK 1"}},
                    {"", {"OK 0", "WARN NaN"}}, // unlike Ethernet
                    {"\xff\xfe\x80", {"OK 0", "OK 1"}},
                    {MEGABYTES, {"OK 0", "OK 1"}},
                    {"up" + MEGABYTES, {"OK 0", "OK 0"}},
                    {std::nullopt, {"OK 1", "WARN NaN"}}});
    put_folder(WIRELESS_FILE);
    EXPECT_THAT(last_records({"CB01", "CB02"}), ElementsAre("OK 0", "WARN NaN"));
}

TEST_F(LinkFiles, OfBluetoothNeedOnlyExist) {
    expect_records(BLUETOOTH_FILE, {"CB05"},
                   {{"suspended\n", {"OK 0"}},
                    {"", {"OK 0"}},
                    {"error", {"OK 0"}},
                    {"\xff", {"OK 0"}},
                    {MEGABYTES, {"OK 0"}},
                    {std::nullopt, {"OK 1"}}});
    std::filesystem::create_symlink("/nowhere", station.files().host_path(BLUETOOTH_FILE));
    samples(&station, 1, 60);
    EXPECT_EQ(last_record_of(station, "CB05"), "OK 1");
    std::filesystem::remove(station.files().host_path(BLUETOOTH_FILE));
    put_folder(BLUETOOTH_FILE);
    EXPECT_EQ(last_record_of(station, "CB05"), "OK 0");
}

TEST_F(LinkFiles, OfTheTrafficAreParsedLineByLine) {
    using namespace std::string_literals;
    const std::vector<std::string> unknown{"WARN NaN", "WARN NaN"};
    const std::string ethernet = "  eth0: 0 900 100 0 0 0 0 0 0 100 0 0 0 0 0 0\n";
    const std::string wifi = "wlan0sta: 0 900 0 0 0 0 0 0 0 100 0 0 0 0 0 0\n";
    expect_records(TRAFFIC_FILE, {"CB10", "CB13"},
                   {{ethernet + wifi, {"OK 11", "OK 1"}},
                    {"ETH0: 0 900 1 1 0 0 0 0 0 100 0 0 0\n" + wifi, {"OK 2", "OK 1"}},
                    {ethernet, {"OK 11", "WARN NaN"}}, // a missing interface
                    {std::nullopt, unknown},
                    {"", unknown},
                    {"\n\n\n", unknown},
                    {"  eth0: 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n"s, unknown},                // no packets
                    {"  eth0: 0 4294967296 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n"s, unknown},       // 0 in 32 bits
                    {"  eth0:0 900 100 0 0 0 0 0 0 100 0 0 0 0 0 0\n"s, unknown},           // no blank after the colon
                    {"  eth0: 0 900 100 0 0 0 0 0 0\n"s, unknown},                          // ten words
                    {"  eth0: 0 900 100 0 0 0 0 0 0 100\n"s, {"OK 11", "WARN NaN"}},        // eleven
                    {"  eth0: 0 900 100 0 0 0 0 0 0 100"s, {"OK 11", "WARN NaN"}},          // no line end
                    {"  eth0: 0 49 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n"s, {"OK -2", "WARN NaN"}}, // 100 * -1 / 49
                    {"  eth0: 0 x y z 0 0 0 0 0 1 -1 0\n"s, {"OK -200", "WARN NaN"}},       // 100 * (-1 - 1) / 1
                    {"\xff\xfe\0 garbage\n"s + ethernet + wifi, {"OK 11", "OK 1"}},         //
                    {MEGABYTES + "\n" + ethernet + wifi, {"OK 11", "OK 1"}},                //
                    {MEGABYTES, unknown},                                                   //
                    {std::string(20'000, '\n') + wifi + ethernet + wifi, {"OK 11", "OK 1"}}}); //
    put_folder(TRAFFIC_FILE);
    EXPECT_THAT(last_records({"CB10", "CB13"}), ElementsAreArray(unknown));
}

TEST_F(LinkFiles, OfTheSignalAreParsedLineByLine) {
    using namespace std::string_literals;
    const std::vector<std::string> unknown{"WARN NaN", "WARN NaN"};
    const std::string good = "wlan0sta: 0000 70. -20. -256 0 0 0 0 45 0\n";
    expect_records(SIGNAL_FILE, {"CB04", "CB09"},
                   {{good, {"OK 70", "OK -20"}},
                    {"WLAN0STA: 0 69.9 -20.5 0\n", {"OK 69", "OK -21"}},
                    {"wlan0sta: 0 70 x 0\n", {"OK 70", "WARN NaN"}},
                    {"wlan0sta: 0 nan -20 0\n", {"WARN NaN", "OK -20"}},
                    {"wlan0sta: 0 1e300 inf 0\n" + good, {"OK 70", "OK -20"}}, // the next line is used
                    {std::nullopt, unknown},
                    {"", unknown},
                    {"wlan0sta: 0 70 -20\n", unknown}, // four words
                    {"wlan0sta:0 70 -20 0 0\n", unknown},
                    {"wlan1: 0 70 -20 0 0\n", unknown},
                    {"wlan0sta: 0 70 -20 0", {"OK 70", "OK -20"}},
                    {"\xff\xfe\0 garbage\n"s + good, {"OK 70", "OK -20"}},
                    {MEGABYTES + "\n" + good, {"OK 70", "OK -20"}},
                    {MEGABYTES, unknown}});
    put_folder(SIGNAL_FILE);
    EXPECT_THAT(last_records({"CB04", "CB09"}), ElementsAreArray(unknown));
}

// --- unknown values change nothing

TEST_F(LinkFiles, ThatCannotBeReadNeitherRaiseNorClear) {
    put(station, ETHERNET_FILE, "down\n");
    put(station, SIGNAL_FILE, signal_table("30.", "-70."));
    samples(&station, 5, 60);
    put(station, ETHERNET_FILE, std::nullopt); // the hardware is gone too, but not for long enough
    put(station, SIGNAL_FILE, "");
    samples(&station, 9, 60);
    const std::string level = "3 [failed] ID: CB09[0]: value: -70 wlan0sta: ";
    EXPECT_THAT(sentences_of(station), ElementsAre(level)); // its delay is four
    put(station, ETHERNET_FILE, "down\n");
    put(station, SIGNAL_FILE, signal_table("30.", "-70."));
    samples(&station, 4, 60);
    EXPECT_THAT(sentences_of(station), ElementsAre(level));
    samples(&station, 1, 60);
    EXPECT_THAT(sentences_of(station),
                ElementsAre(level, "3 [failed] ID: CB12[0]: value: 1 Ethernet connection could not be established.",
                            "3 [failed] ID: CB04[0]: value: 30 wlan0sta: "));
}

// --- a warning of the signal is a failure in syslog and a warning in the status log

TEST_F(LinkFiles, OfAWeakSignalAreReportedAsAFailure) {
    put(station, SIGNAL_FILE, signal_table("50.", "-30."));
    samples(&station, 10, 60);
    EXPECT_EQ(last_record_of(station, "CB04"), "WARN 50");
    EXPECT_EQ(last_record_of(station, "CB09"), "WARN -30");
    EXPECT_THAT(sentences_of(station), ElementsAre("3 [failed] ID: CB09[0]: value: -30 wlan0sta: ",
                                                   "3 [failed] ID: CB04[0]: value: 50 wlan0sta: "));
}
