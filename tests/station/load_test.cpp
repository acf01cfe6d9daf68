// The CPU load from the board's counters: sequences of readings and the percentages recorded for them.

#include "station.h"
#include "station_life.h"
#include "status_log.h"

#include <gtest/gtest.h>

namespace {

using Texts = std::vector<std::string>;

struct Reading {
    std::string line;  ///< the first of /proc/stat
    const char *value; ///< as recorded
};

constexpr const char *STAT = "/proc/stat";

/// The recorded values of one load task.
Texts values_of(const Station &station, const std::string &issue) {
    const std::string mark = "\t" + issue + "\t0\t";
    Texts values;
    for (const std::string &record : records_in(station.read(STATUS_LOG))) {
        if (const std::size_t at = record.find(mark); at != std::string::npos) {
            values.push_back(record.substr(at + mark.size()));
        }
    }
    return values;
}

/// The first reading is present at the start, the others follow every three minutes.
void expect_values(const std::vector<Reading> &readings) {
    Station station(even_board().file(STAT, readings.front().line + "\ncpu0 1 1 1 1\n"));
    station.start();
    Texts expected{readings.front().value};
    for (auto reading = readings.begin() + 1; reading != readings.end(); ++reading) {
        station.files().write(STAT, reading->line + "\ncpu0 1 1 1 1\n");
        station.step(180 - station.clock() % 180);
        expected.emplace_back(reading->value);
    }
    EXPECT_EQ(values_of(station, "CB31"), expected);
    EXPECT_EQ(values_of(station, "CB32"), expected) << "the second task of the pass repeats the first's";
}

} // namespace

// Columns: user, nice, system, idle, iowait. The load is 100 less the truncated idle share of user + system + idle.
TEST(Load, IsWhatWasNotIdle) {
    expect_values({
        {"cpu  1000 0 1000 8000 0 0 0 0 0 0", "0"},     // nothing yet
        {"cpu  1020 0 1010 8070 0 0 0 0 0 0", "30"},    // 20, 10 and 70 of 100
        {"cpu  1220 0 1010 8070 0 0 0 0 0 0", "100"},   // 200 of 200
        {"cpu  1220 0 1010 9070 0 0 0 0 0 0", "0"},     // 1000 of 1000
        {"cpu  1229 0 1010 10061 0 0 0 0 0 0", "1"},    // 9 and 991: 99.1 is 99
        {"cpu  1329 0 1110 10161 0 0 0 0 0 0", "67"},   // a third of 300: 33
        {"cpu  1339 9000 1120 10241 7000 9 9 9", "20"}, // nice, iowait and later columns are ignored
        {"cpu  1340 0 1121 10242", "20"},               // 3 ticks
        {"cpu  1340 0 1121 10338", "20"},               // 99 since the last reading used
        {"cpu  1340 0 1121 10339", "2"},                // 1, 1 and 98 of 100
    });
}

TEST(Load, ContinuesWhenTheCountersPass31And32Bits) {
    expect_values({
        {"cpu  2147483600 0 0 2147483600", "0"},
        {"cpu  2147483610 0 0 2147483690", "10"},   // over 2^31: 10 and 90
        {"cpu  3000000000 0 0 2147483690", "100"},  // 852516390 ticks of work
        {"cpu  3000000000 0 0 4294967250", "0"},    // 2147483560 idle ticks, less than 2^31
        {"cpu  3000000025 0 0 4294967325", "25"},   // over 2^32: 25 and 75
        {"cpu  4294967325 0 50 4294967475", "100"}, // 1294967300, 50 and 150: no whole percent idle
        {"cpu  8589934625 0 50 8589934875", "4"},   // 2^32 + 4 and 2^32 + 104 count as 4 and 104: 96.3 idle
    });
}

TEST(Load, FollowsCountersThatGoBackwards) {
    expect_values({
        {"cpu  1000 0 1000 8000", "0"},
        {"cpu  997 0 1000 8103", "-2"},   // -3 and 103 of 100: -3 plus a half, truncated
        {"cpu  1147 0 1000 8053", "150"}, // 150 and -50 of 100
        {"cpu  0 0 0 0", "150"},          // a negative sum repeats the last value
        {"cpu  1197 0 1000 8103", "50"},  // since the reading before: 50 and 50
    });
}

TEST(Load, IsNaNForAnUnusableLineAndContinuesFromTheLastGoodOne) {
    expect_values({
        {"cpu  1000 0 1000 8000", "0"},
        {"cpu  1060 0 1000 8040", "60"},
        {"cpu  9 9 9", "NaN"}, // four words
        {"", "NaN"},
        {"cpu", "NaN"},
        {"cpu  nan 0 0 0", "NaN"},
        {"cpu  0 0 0 1e300", "NaN"},
        {"cpu  1060 0 1000 8139", "60"}, // 99 since the good one
        {"cpu  1061 0 1000 8139", "1"},  // 1 and 99 of 100
        {"cpu  x y z w", "1"},           // words count as 0: a negative sum
    });
}

TEST(Load, IsNaNWithoutTheFirstLine) {
    Station station(even_board().file(STAT, ""));
    station.start();
    EXPECT_EQ(values_of(station, "CB31"), Texts{"NaN"});
    EXPECT_EQ(values_of(station, "CB32"), Texts{"NaN"});
}
