// The lines of an INI file, read from a stdio stream and from a file.

#include "handle.h"
#include "parse_ini.h"
#include "support/fuzz.h"

#include <cstring>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr std::size_t LONGEST_SECTION = 49;
constexpr std::size_t LONGEST_LINE = 4095;

std::size_t pairs_left; ///< the handler rejects the next one
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

int parse_stream(std::string &text) {
    const FileHandle stream(fmemopen(text.data(), text.size(), "r"));
    const int result = ini_parse_stream(ini_read_line, stream.get(), take);
    PROMISE(result == 0 || result == -1 || result == -2);
    PROMISE((result == -2) == refused);
    PROMISE(result != 0 || std::feof(stream.get()) != 0);
    return result;
}

int parse_file(const std::string &text) {
    const Descriptor file(memfd_create("ini", MFD_CLOEXEC));
    PROMISE(write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    return ini_parse_file(("/proc/self/fd/" + std::to_string(file.get())).c_str(), take);
}

/// A path that cannot be opened or read is not an INI file.
void check_unreadable() {
    PROMISE(ini_parse_file("/no/such/file", take) == -1);
    PROMISE(ini_parse_file("/", take) == -1);
}

void start(std::size_t pairs) {
    pairs_left = pairs;
    refused = false;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    start(0);
    if (size < 2) {
        check_unreadable();
        return 0;
    }
    std::string text = text_of(data + 1, size - 1);
    start(data[0]);
    const int result = parse_stream(text);
    start(data[0]);
    PROMISE(parse_file(text) == result);
    return 0;
}
