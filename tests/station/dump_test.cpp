// -d against the golden file.

#include "station.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace {

const std::string GOLDEN_FILE = STATION_GOLDEN "/dump.txt";

std::string golden() { return read_file(GOLDEN_FILE); }

std::string with(std::string text, const std::string &line, const std::string &instead) {
    const std::size_t at = text.find(line);
    EXPECT_NE(at, std::string::npos) << line;
    return text.replace(at, line.size(), instead);
}

} // namespace

TEST(Dump, ShowsTheBuiltInSettingsAndTasks) {
    ASSERT_FALSE(golden().empty()) << GOLDEN_FILE;
    Station station;
    for (const char *option : {"-d", "--dump"}) {
        const Outcome dump = station.run({option});
        EXPECT_EQ(dump.out, golden());
        EXPECT_EQ(dump.err, "");
        EXPECT_EQ(dump.status, 0);
    }
}

TEST(Dump, ShowsTheSettingsGivenBeforeAndAfterIt) {
    Station station;
    std::string expected = with(golden(), "\"/var/lib/evse/vigmond/logfile\"", "\"/tmp/status\"");
    expected = with(expected, "logcount:       20\n", "logcount:       0\n");
    expected = with(expected, "logsize:        8192K\n", "logsize:        200K\n");
    expected = with(expected, "loglevel:       OK\n", "loglevel:       fail\n");
    expected = with(expected, "severitylevel:  OK\n", "severitylevel:  failed\n");
    const Outcome dump = station.run({"-S", "200", "-L", "/tmp/status", "-C", "0", "-d", "-l", "fail", "-s", "failed"});
    EXPECT_EQ(dump.out, expected);
    EXPECT_EQ(dump.err, "");
}

TEST(Dump, NamesEachLevel) {
    Station station;
    EXPECT_EQ(station.run({"-d", "-l", "warning", "-s", "warning"}).out,
              with(with(golden(), "loglevel:       OK\n", "loglevel:       warning\n"), "severitylevel:  OK\n",
                   "severitylevel:  warning\n"));
    EXPECT_EQ(station.run({"-d", "-s", "critical"}).out,
              with(golden(), "severitylevel:  OK\n", "severitylevel:  critical\n"));
}

TEST(Dump, ShowsTheDefaultPathWhenTheLogFileCannotBeOpened) {
    Station station;
    EXPECT_EQ(station.run({"-L", "/missing/status", "-d"}).out, golden());
}

TEST(Dump, WritesAPathWithQuotesUnchanged) {
    Station station;
    EXPECT_EQ(station.run({"-L", "/tmp/a\"b\\c", "-d"}).out,
              with(golden(), "\"/var/lib/evse/vigmond/logfile\"", "\"/tmp/a\"b\\c\""));
}

TEST(Dump, TakesAndNeedsNoLock) {
    Station station;
    station.start();
    EXPECT_EQ(station.run({"-d"}).status, 0);
    EXPECT_EQ(station.read(std::string(STATUS_FOLDER) + "/.lock"), std::to_string(station.pid()) + "\n");

    Station fresh;
    EXPECT_EQ(fresh.run({"-d", "-L", "/tmp/x"}).status, 0);
    EXPECT_FALSE(std::filesystem::exists(fresh.files().host_path("/tmp/.lock")));
    EXPECT_FALSE(std::filesystem::exists(fresh.files().host_path(STATUS_FOLDER) + "/.lock"));
}
