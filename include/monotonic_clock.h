#pragma once

#include <cstdint>
#include <ctime>

/// The clock that no setting of the time changes.
inline std::int64_t monotonic_seconds() {
    std::timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}
