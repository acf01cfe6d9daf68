#include "time_of_day.h"

#include <gtest/gtest.h>

namespace {

struct Case {
    std::int64_t seconds;
    int hour, minute, second;
};

class TimeOfDayTest : public testing::TestWithParam<Case> {};

TEST_P(TimeOfDayTest, IsUtc) {
    const TimeOfDay time = utc_time_of_day(GetParam().seconds);
    EXPECT_EQ(time.hour, GetParam().hour);
    EXPECT_EQ(time.minute, GetParam().minute);
    EXPECT_EQ(time.second, GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(Times, TimeOfDayTest,
                         testing::Values(Case{0, 0, 0, 0}, Case{86399, 23, 59, 59}, Case{86400, 0, 0, 0},
                                         Case{-1, 23, 59, 59}, Case{-86400, 0, 0, 0}, Case{-86401, 23, 59, 59},
                                         Case{253402300799, 23, 59, 59}, // 31 December 9999
                                         Case{2147483647, 3, 14, 7},     // 19 January 2038
                                         Case{2147483648, 3, 14, 8},     //
                                         Case{4294967296, 6, 28, 16}));  // 7 February 2106

} // namespace
