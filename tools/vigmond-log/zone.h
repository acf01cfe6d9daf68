#pragma once

// Local times, which the log holds without their zone, and the moments that they stand for. The zone is that of the
// C library, so there is one a process.

#include "line.h"

#include <cstdint>
#include <optional>
#include <string>

namespace vlog {

/// Seconds since 1970 in UTC.
using Moment = std::int64_t;

/// Takes a zone of the system's database ("Europe/Berlin") or a rule ("CET-1CEST,M3.5.0,M10.5.0/3"); an empty name is
/// the system's own zone. False when there is no such zone. To be called before there are threads.
bool zone_set(const std::string &name);
/// Seconds by which local time is ahead of UTC at a moment.
std::int32_t zone_offset(Moment moment);
/// "2024-05-01 10:00:00" in local time.
std::string local_text(Moment moment);
/// "2024-05-01T10:00:00+02:00".
std::string iso_text(Moment moment);

/// Tells the moments of local times. In the hour that comes twice at the end of summer time the order of the times
/// tells which is meant.
class LocalClock {
  public:
    /// `before` is the moment of the record before, if there was one.
    Moment moment_of(LocalTime local, std::optional<Moment> before);

  private:
    /// What a clock that is corrected may be set back by without being taken for the second of the two hours.
    static constexpr std::int64_t CORRECTION = 60;
    static constexpr std::int64_t HOUR = 3600;
    static constexpr std::int64_t DAY = 86400;

    LocalTime hour_ = NO_TIME; ///< the begin of the local hour for which the offsets are valid
    std::int32_t earlier_ = 0; ///< a day before the hour
    std::int32_t later_ = 0;   ///< a day after it
};

} // namespace vlog
