#pragma once

// A healthy station, for tests of single changes.

#include "contents.h"
#include "rig.h"

namespace model {

inline constexpr std::int64_t NOON = 1709294400; // 2024-03-01 12:00:00 UTC

/// Starts seven seconds after noon with default options and a bus.
inline RigSetup healthy_station() {
    return {.inputs = healthy_board(),
            .arguments = {},
            .old_log = "",
            .clock = NOON + 7,
            .has_bus = true,
            .load_logger = STATION_LOAD_LOGGER};
}

} // namespace model
