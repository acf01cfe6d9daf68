#pragma once

// From values to states: limits, hysteresis, confirmation.

#include "checks.h"

namespace model {

/// The samples of each class of values in a row; the counts wrap like bytes.
struct Counts {
    std::uint8_t min_fail = 0;
    std::uint8_t min_warn = 0;
    std::uint8_t ok = 0;
    std::uint8_t max_warn = 0;
    std::uint8_t max_fail = 0;
};

struct Judgement {
    int state = 0; ///< -2, -1, 0, 1, 2
    Counts counts;
};

/// Evaluates a value; true when the state has changed.
bool judge(const Check &check, std::int32_t value, Judgement *judgement);

} // namespace model
