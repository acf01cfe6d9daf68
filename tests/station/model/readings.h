#pragma once

// The values that the probes read from the board, or none.

#include "board_state.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace model {

using Reading = std::optional<std::int32_t>;

Reading read_temperature(const File &file);
Reading read_memory(const File &meminfo);
Reading read_wear(const File &device, const Emmc &emmc);
/// `mount_point` may be a regular file that contains the answer.
Reading read_disk(const File &mount_point, const Disk &disk);
Reading read_presence(const File &file);
/// Of the Ethernet link.
Reading read_ethernet_link(const File &operstate);
/// Of the WiFi link; none for an empty file.
Reading read_wifi_link(const File &operstate);
Reading read_traffic(const File &net_dev, const std::string &interface);
Reading read_quality(const File &net_wireless, const std::string &interface);
Reading read_strength(const File &net_wireless, const std::string &interface);

/// Pieces of at most `size` characters, each ending at a line feed at the latest; a zero byte hides the rest of
/// its piece.
std::vector<std::string> lines_of(const std::string &text, std::size_t size);
/// The first `max` words.
std::vector<std::string> split(const std::string &line, std::size_t max);
/// In two's complement, modulo 2^32.
std::int32_t wrapped(std::int64_t number);

} // namespace model
