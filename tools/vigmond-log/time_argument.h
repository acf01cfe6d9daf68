#pragma once

#include "zone.h"

#include <optional>
#include <string>

namespace vlog {

/// The moment of an argument of --since or --until, in the syntax of journalctl: "2024-05-01 10:00:00", without
/// seconds, without a time, or without a date; "now", "today", "yesterday", "tomorrow"; "-1h30min", "+5min", "2 hours
/// ago"; "@" and seconds since 1970. Local time, unless "UTC" follows. None for any other text.
std::optional<Moment> moment_of_argument(const std::string &argument, Moment now);

} // namespace vlog
