// The lines of /proc/meminfo.

#include "probe_read.h"
#include "support/fuzz.h"

#include <strings.h>

namespace {

void parse_line(const std::string &line, MemoryFigures *figures) {
    const MemoryFigures before = *figures;
    std::string text = line;
    memoryusage_parse_line(text.data(), figures);
    PROMISE(figures->total == before.total || strncasecmp(line.c_str(), "MemTotal:", 9) == 0);
    PROMISE(figures->free == before.free || strncasecmp(line.c_str(), "MemFree:", 8) == 0);
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    constexpr std::uint64_t no_overflow = std::uint64_t{1} << 56;
    const std::string file = text_of(data, size);
    MemoryFigures figures{.total = 0, .free = 0};
    for (std::size_t start = 0; start < file.size();) {
        const std::size_t end = std::min(file.find('\n', start), file.size());
        parse_line(file.substr(start, end - start), &figures);
        start = end + 1;
    }
    const Reading reading = memoryusage_percent(figures);
    PROMISE(reading.error == (figures.total == 0 ? EINVAL : 0));
    if (figures.total > 1 && figures.total < no_overflow && figures.free <= figures.total) {
        PROMISE(reading.value >= 0 && reading.value <= 100);
    }
    return 0;
}
