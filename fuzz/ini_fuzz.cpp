// The lines of an INI file, read from a stdio stream.

#include "handle.h"
#include "parse_ini.h"
#include "support/fuzz.h"

#include <cstring>

namespace {

constexpr std::size_t LONGEST_SECTION = 49;
constexpr std::size_t LONGEST_LINE = 4095;

std::size_t pairs_left; ///< the handler refuses the one behind them
bool refused;

bool starts_or_ends_with_space(const char *text) {
    std::string copy = text;
    return lskip(copy.data()) != copy.data() || std::strlen(rstrip(copy.data())) != std::strlen(text);
}

int take(const char *section, const char *name, const char *value) {
    PROMISE(!refused);
    PROMISE(std::strlen(section) <= LONGEST_SECTION);
    PROMISE(std::strlen(name) + std::strlen(value) < LONGEST_LINE);
    PROMISE(std::strpbrk(name, "=:\n") == nullptr);
    PROMISE(std::strchr(value, '\n') == nullptr);
    PROMISE(!starts_or_ends_with_space(name));
    PROMISE(!starts_or_ends_with_space(value));
    refused = pairs_left == 0;
    --pairs_left;
    return refused ? 0 : 1;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    std::string text = text_of(data + 1, size - 1);
    pairs_left = data[0];
    refused = false;
    const FileHandle stream(fmemopen(text.data(), text.size(), "r"));
    const int result = ini_parse_stream(ini_read_line, stream.get(), take);
    PROMISE(result == 0 || result == -1 || result == -2);
    PROMISE((result == -2) == refused);
    PROMISE(result != 0 || std::feof(stream.get()) != 0);
    return 0;
}
