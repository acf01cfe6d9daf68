// The line of a file that represents a file system, and arbitrary block counts.

#include "probe_read.h"
#include "support/fuzz.h"

#include <cstring>

namespace {

void check_percent(const BlockCounts &counts) {
    const Reading reading = diskusage_percent(counts);
    const bool countless = (counts.total | counts.free | counts.available) == 0;
    PROMISE(reading.error == (countless ? EINVAL : 0));
    PROMISE(reading.value >= 0 && reading.value <= 100);
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    BlockCounts counts{};
    std::memcpy(&counts, data, std::min(size, sizeof counts));
    check_percent(counts);

    std::string line = text_of(data, size);
    const BlockCounts before = counts;
    if (diskusage_parse_line(line.data(), &counts)) {
        check_percent(counts);
    } else {
        PROMISE(std::memcmp(&before, &counts, sizeof counts) == 0);
    }
    return 0;
}
