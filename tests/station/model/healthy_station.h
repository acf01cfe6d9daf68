#pragma once

// A station on which all is well, for tests that bring about one thing.

#include "contents.h"
#include "rig.h"

namespace model {

inline constexpr std::int64_t NOON = 1709294400; // 2024-03-01 12:00:00 UTC

/// Started seven seconds after noon, with a bus, by default options.
inline RigSetup healthy_station() {
    return {.inputs = healthy_board(),
            .arguments = {},
            .old_log = "",
            .clock = NOON + 7,
            .has_bus = true,
            .load_logger = STATION_LOAD_LOGGER};
}

} // namespace model
