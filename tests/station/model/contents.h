#pragma once

// Random contents for the board: mostly near the limits of the checks, with and without hysteresis, sometimes
// missing, empty or garbled.

#include "board_state.h"
#include "random.h"

namespace model {

Input written(const std::string &path, const std::string &content);
Input removed(const std::string &path);
Input made_folder(const std::string &path);
/// A value near a limit, near a limit with hysteresis, or far from both.
std::int64_t near_limits(Random *random, const std::vector<std::int64_t> &limits, std::int64_t hysteresis,
                         std::int64_t well);

/// A healthy board with all paths in use.
std::vector<Input> healthy_board();

Input any_temperature(Random *random);
Input any_memory(Random *random);
Input any_emmc(Random *random);
Input any_disk(Random *random, const std::string &path);
Input any_bluetooth(Random *random);
Input any_link(Random *random, const char *path);
/// In percent.
std::int64_t any_load(Random *random);
/// Advances the counters (user, system, idle) by some time at that load.
Input any_cpu(Random *random, std::int64_t load, std::int64_t *counters);
/// A line of /proc/net/dev; empty for a missing interface.
std::string any_traffic(Random *random, const std::string &interface);
std::string any_quality(Random *random);
std::string any_strength(Random *random);
/// /proc/net/wireless with this quality and strength.
Input wireless_file(Random *random, const std::string &quality, const std::string &strength);
Input traffic_file(const std::string &lan, const std::string &wifi);
Input any_lan_configuration(Random *random);
Input any_wifi_configuration(Random *random);
std::vector<Input> any_networkd(Random *random, std::int64_t *time);
Input any_load_state(Random *random, const std::string &unit);
Input any_active_state(Random *random, const std::string &unit);

/// Drops, doubles or replaces a few bytes of a file's content.
void garble(Random *random, Input *input);

/// The disks' mount points.
std::vector<std::string> mount_points();
/// The watched units.
std::vector<std::string> units();

} // namespace model
