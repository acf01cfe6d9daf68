#pragma once

// The raised issues, from the daemon on the system bus.

#include <cstdint>
#include <optional>
#include <set>
#include <string>

namespace vlog {

/// Asks the daemon for its listing. Takes at most two seconds. None if there is no valid reply; `problem` says why.
std::optional<std::set<std::int16_t>> raised_issues(std::string *problem);

} // namespace vlog
