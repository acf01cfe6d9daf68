#pragma once

// Converts the log's local times, which have no zone, to moments. Uses the C library's time zone, one per process.

#include "line.h"

#include <cstdint>
#include <optional>
#include <string>

namespace vlog {

/// Seconds since 1970 in UTC.
using Moment = std::int64_t;

/// Sets a zone of the system's database ("Europe/Berlin") or a rule ("CET-1CEST,M3.5.0,M10.5.0/3"); an empty name means
/// the system's zone. False if there is no such zone. Must be called before threads start.
bool zone_set(const std::string &name);
/// Seconds by which local time is ahead of UTC at a moment.
std::int32_t zone_offset(Moment moment);
/// "2024-05-01 10:00:00" in local time.
std::string local_text(Moment moment);
/// "2024-05-01T10:00:00+02:00".
std::string iso_text(Moment moment);

/// Converts local times to moments. Resolves the repeated hour at the end of summer time by the order of the times.
class LocalClock {
  public:
    /// `before` is the moment of the previous record, if any.
    Moment moment_of(LocalTime local, std::optional<Moment> before);

  private:
    /// A clock set back by at most this many seconds is a correction, not the second of the two hours.
    static constexpr std::int64_t CORRECTION = 60;
    static constexpr std::int64_t HOUR = 3600;
    static constexpr std::int64_t DAY = 86400;

    LocalTime hour_ = NO_TIME; ///< the start of the local hour for which the offsets are valid
    std::int32_t earlier_ = 0; ///< a day before the hour
    std::int32_t later_ = 0;   ///< a day after it
};

} // namespace vlog
