#pragma once

// The syslog sentences about changes of state.

#include "checks.h"

namespace model {

/// The sentence about a check's new state with its priority, "4 [warning] ID: CB20[0]: value: 72 ..."; empty
/// when the severity level suppresses it. Only the service check uses `units_down`.
std::string sentence_of(const Check &check, int state, std::int32_t value, const std::vector<std::string> &units_down,
                        int severity);
/// The sentence about a unit that is not installed.
std::string sentence_of_missing_unit(const std::string &unit, int severity);

} // namespace model
