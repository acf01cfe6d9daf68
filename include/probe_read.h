#pragma once

// The probes' parsers: text in, value or error out.

#include <array>
#include <cerrno>
#include <cstdint>

/// A measurement, or the error number of a failed one; `error` 0 is success.
struct Reading {
    std::int32_t value;
    std::int32_t error;

    static constexpr Reading of(std::int32_t value) { return {.value = value, .error = 0}; }
    static constexpr Reading failed(std::int32_t error) { return {.value = 0, .error = error}; }

    /// The result of a call that failed with `error`. Kept: if `error` is 0, `fallback` is the measurement.
    static constexpr Reading failed_with_errno(std::int32_t error, std::int32_t fallback = 0) {
        return error == 0 ? of(fallback) : failed(error);
    }

    /// A number truncated toward zero; EINVAL if it does not fit 32 bits ("inf", "nan", 1e300).
    static constexpr Reading of_number(double number) {
        const bool fits = number > -2147483649.0 && number < 2147483648.0; // false for nan
        return fits ? of(static_cast<std::int32_t>(number)) : failed(EINVAL);
    }
};

/// The degrees in a line of millidegrees.
Reading temperature_parse(const char *line);

/// Memory figures in kB.
struct MemoryFigures {
    std::uint64_t total;
    std::uint64_t free;
};

/// Reads MemTotal or MemFree from a line of /proc/meminfo, which it splits in place. Ignores other lines.
void memoryusage_parse_line(char *line, MemoryFigures *figures);
/// Free memory in whole percent; EINVAL without a total.
Reading memoryusage_percent(const MemoryFigures &figures);

inline constexpr std::size_t EXT_CSD_SIZE = 512;
using ExtCsd = std::array<std::uint8_t, EXT_CSD_SIZE>;

/// The used part of the device's life in percent; EINVAL without an estimate or past its end.
Reading wearout_decode(const ExtCsd &registers);

/// Block counts of a file system.
struct BlockCounts {
    std::uint32_t total;
    std::uint32_t free;
    std::uint32_t available;
};

/// Reads the counts from the third to fifth word of a line, which it splits in place; false if there are fewer
/// words. A word that is not a number counts as 0; a number out of range is clamped.
bool diskusage_parse_line(char *line, BlockCounts *counts);
/// Available blocks in whole percent; EINVAL when all counts are 0.
Reading diskusage_percent(const BlockCounts &counts);

/// Reads the number in the `token`-th word (2 is the quality, 3 the level) of a line of
/// /proc/net/wireless, which it splits in place; false for another device's line or an unusable number.
bool wireless_parse_line(char *line, const char *device, int token, double *number);
/// A level in dBm, rounded half away from zero.
Reading wireless_round(double level);

/// 0 if the first line of an operstate file means that the link is up, else 1.
Reading operstate_parse(const char *line);

/// Whether the first word of a line of an interface table is `interface` and a colon, ignoring case; removes
/// the colon.
bool names_interface(char *word, const char *interface);

/// Totals of an interface since it came up.
struct TrafficCounters {
    std::uint64_t packets; ///< received and sent
    std::uint64_t lost;    ///< errors and drops of both directions
};

/// Reads the totals from a line of /proc/net/dev, which it splits in place; false for another interface's line.
/// Ignores the case of `interface`.
bool internet_parse_line(char *line, const char *interface, TrafficCounters *counters);
/// Lost packets in percent, 1 without loss on a busy interface; ENOENT without packets.
Reading internet_percent(const TrafficCounters &counters);
