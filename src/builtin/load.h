#pragma once

// The load probe: parsing and ending its child.

#include "gdata.h"

#include <cstdint>

/// Cumulative CPU counters in clock ticks, modulo 2^32.
struct CpuCounters {
    std::int32_t user;
    std::int32_t system;
    std::int32_t idle;
};

/// Reads the counters from the first line of /proc/stat, which it splits in place; false if unusable.
bool load_parse_line(char *line, CpuCounters *counters);

/// The load between two readings.
struct CpuLoad {
    std::int32_t user; ///< whole percent, as are the others
    std::int32_t system;
    std::int32_t idle;
    std::int32_t load;
};

/// Computes the load between two readings; false when too few ticks lie between them.
bool load_between(const CpuCounters &before, const CpuCounters &now, CpuLoad *load);

/// Reads the counters; 0 or -1.
int load_read_values(std::int32_t *user, std::int32_t *system, std::int32_t *idle);
/// Terminates the task's child and its process group; returns 0.
int load_cleanup(Task *task);
