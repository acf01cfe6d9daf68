// Two readings of the first line of /proc/stat, one per line.

#include "builtin/load.h"
#include "support/fuzz.h"

#include <algorithm>

namespace {

bool take_reading(std::string line, CpuCounters *counters) {
    const std::size_t length = line.size();
    const bool usable = load_parse_line(line.data(), counters);
    PROMISE(line.size() == length && line.c_str()[length] == '\0');
    return usable;
}

/// The load is 100 minus idle, or nothing is stored.
void check_load(const CpuCounters &before, const CpuCounters &now) {
    CpuLoad load{.user = 1, .system = 2, .idle = 3, .load = 4};
    if (!load_between(before, now, &load)) {
        PROMISE(load.user == 1 && load.system == 2 && load.idle == 3 && load.load == 4);
        return;
    }
    PROMISE(static_cast<std::uint32_t>(load.load) + static_cast<std::uint32_t>(load.idle) == 100);
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string text = text_of(data, size);
    const std::size_t cut = std::min(text.find('\n'), text.size());
    CpuCounters before{};
    CpuCounters now{};
    const bool first = take_reading(text.substr(0, cut), &before);
    const bool second = take_reading(text.substr(cut), &now);
    if (first && second) {
        check_load(before, now);
        check_load(now, before);
    }
    return 0;
}
