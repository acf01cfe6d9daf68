// A table in the format of /proc/net/wireless.

#include "probe_read.h"
#include "support/fuzz.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr int QUALITY_WORD = 2;
constexpr int LEVEL_WORD = 3;

/// A usable number fits 32 bits once truncated.
void check_line(std::string line, int word) {
    const std::size_t length = line.size();
    double number = 0.25;
    if (wireless_parse_line(line.data(), "wlan0sta", word, &number)) {
        const Reading truncated = Reading::of_number(number);
        PROMISE(truncated.error == 0 && std::fabs(truncated.value - number) < 1);
        const Reading rounded = wireless_round(number);
        PROMISE(rounded.error == EINVAL || std::fabs(rounded.value - number) <= 0.5);
    }
    PROMISE(line.size() == length && line.c_str()[length] == '\0');
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const std::string table = text_of(data, size);
    for (std::size_t start = 0; start < table.size();) {
        const std::size_t end = std::min(table.find('\n', start), table.size() - 1) + 1;
        check_line(table.substr(start, end - start), QUALITY_WORD);
        check_line(table.substr(start, end - start), LEVEL_WORD);
        start = end;
    }
    return 0;
}
