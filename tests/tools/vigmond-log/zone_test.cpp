// The hours are counted by hand. Central Europe changes at 01:00 UTC, in 2024 on 31 March and 27 October.

#include "zone.h"

#include <gtest/gtest.h>

using vlog::LocalClock;
using vlog::Moment;

namespace {

vlog::LocalTime local(const char *text) { return vlog::read_stamp(text).value(); }

struct CentralEurope : testing::Test {
    CentralEurope() { EXPECT_TRUE(vlog::zone_set("CET-1CEST,M3.5.0,M10.5.0/3")); }
    static constexpr Moment OCTOBER_CHANGE = 1729990800; // 2024-10-27 01:00:00 UTC
    LocalClock clock;
};

} // namespace

TEST_F(CentralEurope, IsAnHourOrTwoAheadOfUtc) {
    EXPECT_EQ(clock.moment_of(local("2024-01-01 01:00:00"), {}), 1704067200);
    EXPECT_EQ(clock.moment_of(local("2024-05-01 12:00:00"), {}), 1714557600);
    EXPECT_EQ(vlog::iso_text(1714557600), "2024-05-01T12:00:00+02:00");
    EXPECT_EQ(vlog::local_text(1704067200), "2024-01-01 01:00:00");
}

TEST_F(CentralEurope, ResolvesTheRepeatedHourByTheOrder) {
    const vlog::LocalTime half_past_two = local("2024-10-27 02:30:00");
    EXPECT_EQ(clock.moment_of(half_past_two, {}), OCTOBER_CHANGE - 1800);
    EXPECT_EQ(clock.moment_of(half_past_two, OCTOBER_CHANGE - 1810), OCTOBER_CHANGE - 1800);
    EXPECT_EQ(clock.moment_of(half_past_two, OCTOBER_CHANGE - 10), OCTOBER_CHANGE + 1800);
    EXPECT_EQ(clock.moment_of(half_past_two, OCTOBER_CHANGE + 1790), OCTOBER_CHANGE + 1800);
    EXPECT_EQ(clock.moment_of(local("2024-10-27 02:00:00"), OCTOBER_CHANGE - 10), OCTOBER_CHANGE);
    EXPECT_EQ(clock.moment_of(local("2024-10-27 03:00:00"), OCTOBER_CHANGE + 3590), OCTOBER_CHANGE + 3600);
}

TEST_F(CentralEurope, TreatsASmallStepBackAsACorrection) {
    const vlog::LocalTime half_past_two = local("2024-10-27 02:30:00");
    EXPECT_EQ(clock.moment_of(half_past_two, OCTOBER_CHANGE - 1800 + 60), OCTOBER_CHANGE - 1800);
    EXPECT_EQ(clock.moment_of(half_past_two, OCTOBER_CHANGE - 1800 + 61), OCTOBER_CHANGE + 1800);
}

TEST_F(CentralEurope, ReadsTimesThatSummerTimeSkips) {
    EXPECT_EQ(clock.moment_of(local("2024-03-31 02:30:00"), {}), 1711848600); // 01:30 UTC
    EXPECT_EQ(clock.moment_of(local("2024-03-31 03:30:00"), {}), 1711848600);
    EXPECT_EQ(clock.moment_of(local("2024-03-31 01:59:59"), {}), 1711846799);
}

TEST(Zone, IsOfTheDatabaseOrARule) {
    for (const char *name : {"", "UTC", "Europe/Berlin", "EST5", "<-03>3", "CET-1CEST,M3.5.0,M10.5.0/3"}) {
        EXPECT_TRUE(vlog::zone_set(name)) << name;
    }
    for (const char *name : {"Europe", "Europe/Nowhere", "../../../etc/passwd", "Berlin", "<-03", "EST", "5"}) {
        EXPECT_EQ(vlog::zone_set(name), std::string(name) == "EST") << name;
    }
    ASSERT_TRUE(vlog::zone_set("<-03>3"));
    EXPECT_EQ(vlog::iso_text(0), "1969-12-31T21:00:00-03:00");
    ASSERT_TRUE(vlog::zone_set("UTC"));
}
