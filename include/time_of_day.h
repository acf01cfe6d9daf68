#pragma once

#include <cstdint>
#include <ctime>

static_assert(sizeof(std::time_t) == sizeof(std::int64_t),
              "time_t ends in 2038: a 32-bit board needs glibc 2.34 or later, which knows _TIME_BITS=64");

/// A UTC time of day.
struct TimeOfDay {
    int hour;
    int minute;
    int second;
};

/// The UTC time of day of `seconds` since the epoch, valid for eight thousand years before and after it.
constexpr TimeOfDay utc_time_of_day(std::int64_t seconds) {
    // A day is 675 times 128 s, which avoids a 64-bit division: a thousand instructions on small processors.
    constexpr int blocks_a_day = 675;
    const int block = static_cast<std::int32_t>(seconds >> 7) % blocks_a_day;
    const int of_day = 128 * (block < 0 ? block + blocks_a_day : block) + static_cast<int>(seconds & 127);
    return {.hour = of_day / 3600, .minute = (of_day / 60) % 60, .second = of_day % 60};
}
