// The splitter. The first byte is the maximum, the rest the text.

#include "common.h"
#include "support/fuzz.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

constexpr const char *SEPARATORS = " \t\r\n";

/// The words of the text, up to `limit`.
std::vector<std::string> words_of(const std::string &text, std::size_t limit) {
    std::vector<std::string> words;
    std::size_t start = text.find_first_not_of(SEPARATORS);
    while (start != std::string::npos && words.size() < limit) {
        const std::size_t end = std::min(text.find_first_of(SEPARATORS, start), text.size());
        words.push_back(text.substr(start, end - start));
        start = text.find_first_not_of(SEPARATORS, end);
    }
    return words;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const int max = static_cast<std::int8_t>(data[0]);
    const auto limit = static_cast<std::size_t>(std::max(max, 1));
    std::string text(text_of(data + 1, size - 1).c_str()); // ends at the first zero
    const std::vector<std::string> words = words_of(text, limit);

    char untouched = 0;
    std::vector<char *> tokens(limit + 1, &untouched);
    const int count = strsplit(text.data(), tokens.data(), max);

    PROMISE(count >= 0 && static_cast<std::size_t>(count) == words.size());
    for (std::size_t i = 0; i < words.size(); ++i) {
        PROMISE(tokens[i] >= text.data() && tokens[i] < text.data() + text.size());
        PROMISE(tokens[i] == words[i]);
    }
    PROMISE(tokens[words.size()] == (words.size() < limit ? nullptr : &untouched));
    return 0;
}
