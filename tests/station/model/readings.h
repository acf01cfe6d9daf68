#pragma once

// What the probes make of what they find: a value, or none.

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
/// `mount_point` may be a regular file, whose text then stands for the answer.
Reading read_disk(const File &mount_point, const Disk &disk);
Reading read_presence(const File &file);
/// Of the Ethernet link.
Reading read_ethernet_link(const File &operstate);
/// Of the WiFi link, for which an empty file is no answer.
Reading read_wifi_link(const File &operstate);
Reading read_traffic(const File &net_dev, const std::string &interface);
Reading read_quality(const File &net_wireless, const std::string &interface);
Reading read_strength(const File &net_wireless, const std::string &interface);

/// The pieces of at most `size` characters, each ending with its line feed at the latest; a zero byte hides
/// what follows it in its piece.
std::vector<std::string> lines_of(const std::string &text, std::size_t size);
/// At most `max` words; what follows them is dropped.
std::vector<std::string> split(const std::string &line, std::size_t max);
/// In two's complement, modulo 2^32.
std::int32_t wrapped(std::int64_t number);

} // namespace model
