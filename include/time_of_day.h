#pragma once

#include <cstdint>

/// A UTC time of day.
struct TimeOfDay {
    int hour;
    int minute;
    int second;
};

/// The UTC time of day of `seconds` since the epoch, before it too.
constexpr TimeOfDay utc_time_of_day(std::int64_t seconds) {
    constexpr std::int64_t day = 86400;
    const auto rest = static_cast<int>(seconds % day); // one division of 64 bits: a routine on small processors
    const int second = rest < 0 ? rest + static_cast<int>(day) : rest;
    return {.hour = second / 3600, .minute = (second / 60) % 60, .second = second % 60};
}
