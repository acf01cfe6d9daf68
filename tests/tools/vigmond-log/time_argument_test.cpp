#include "time_argument.h"

#include <gtest/gtest.h>

using vlog::moment_of_argument;

namespace {

constexpr std::int64_t HOUR = 3600;
constexpr vlog::Moment NOW = 1714557600; // 2024-05-01 12:00:00 in summer, 10:00 UTC

struct TimeArgument : testing::Test {
    TimeArgument() { EXPECT_TRUE(vlog::zone_set("CET-1CEST,M3.5.0,M10.5.0/3")); }
};

} // namespace

TEST_F(TimeArgument, IsADateATimeOrBoth) {
    EXPECT_EQ(moment_of_argument("2024-05-01 11:30:05", NOW), NOW - 1795);
    EXPECT_EQ(moment_of_argument("2024-05-01T11:30", NOW), NOW - 1800);
    EXPECT_EQ(moment_of_argument(" 2024-05-01 ", NOW), NOW - 12 * HOUR);
    EXPECT_EQ(moment_of_argument("11:30", NOW), NOW - 1800);
    EXPECT_EQ(moment_of_argument("11:30:05.123", NOW), NOW - 1795);
    EXPECT_EQ(moment_of_argument("2024-05-01 09:30 UTC", NOW), NOW - 1800);
    EXPECT_EQ(moment_of_argument("2024-05-01T09:30:00Z", NOW), NOW - 1800);
}

TEST_F(TimeArgument, IsAWord) {
    EXPECT_EQ(moment_of_argument("now", NOW), NOW);
    EXPECT_EQ(moment_of_argument("today", NOW), NOW - 12 * HOUR);
    EXPECT_EQ(moment_of_argument("yesterday", NOW), NOW - 36 * HOUR);
    EXPECT_EQ(moment_of_argument("tomorrow", NOW), NOW + 12 * HOUR);
}

TEST_F(TimeArgument, IsRelative) {
    EXPECT_EQ(moment_of_argument("-1h30min", NOW), NOW - 5400);
    EXPECT_EQ(moment_of_argument("+5min", NOW), NOW + 300);
    EXPECT_EQ(moment_of_argument("2 hours ago", NOW), NOW - 7200);
    EXPECT_EQ(moment_of_argument("1d 2h 3m 4s ago", NOW), NOW - 93784);
    EXPECT_EQ(moment_of_argument("-30", NOW), NOW - 30);
    EXPECT_EQ(moment_of_argument("3 weeks left", NOW), NOW + 1814400);
    EXPECT_EQ(moment_of_argument("@12", NOW), 12);
}

TEST_F(TimeArgument, IsNothingElse) {
    for (const char *text : {"",
                             " ",
                             "never",
                             "2024-05-32",
                             "2024-13-01 10:00",
                             "25:00",
                             "10",
                             "-",
                             "+ago",
                             "ago",
                             "-1 fortnight",
                             "@",
                             "@-1",
                             "@x",
                             "2024-05-01x10:00",
                             "2024-05-01 10:00 CET",
                             "--1h",
                             "0000-00-00",
                             "-99999999999999999999s",
                             "-999999999999y"}) {
        EXPECT_EQ(moment_of_argument(text, NOW), std::nullopt) << text;
    }
}
