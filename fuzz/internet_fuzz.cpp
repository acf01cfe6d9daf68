// Input: a table in the format of /proc/net/dev.

#include "probe_read.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

/// The share is an error without packets, otherwise it fits 32 bits.
void check_share(const TrafficCounters &counters) {
    const Reading reading = internet_percent(counters);
    const bool has_packets = static_cast<std::uint32_t>(counters.packets) != 0;
    require(reading.error == (has_packets ? 0 : ENOENT));
}

void check_line(std::string line) {
    const std::size_t length = line.size();
    TrafficCounters counters{.packets = 1, .lost = 2};
    if (internet_parse_line(line.data(), "eth0", &counters)) {
        check_share(counters);
    } else {
        require(counters.packets == 1 && counters.lost == 2);
    }
    require(line.size() == length && line.c_str()[length] == '\0');
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t length) {
    const std::string table(reinterpret_cast<const char *>(data), length);
    std::size_t start = 0;
    while (start < table.size()) {
        const std::size_t end = std::min(table.find('\n', start), table.size() - 1) + 1;
        check_line(table.substr(start, end - start));
        start = end;
    }
    return 0;
}
