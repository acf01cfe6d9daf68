// The WiFi configuration: for any content the WiFi is in use or not in use. Also with tokens that no parser
// creates: one for each zero-terminated word.

#include "network.h"
#include "parse_json.h"
#include "support/fuzz.h"

#include <array>
#include <vector>

namespace {

constexpr std::size_t CAPACITY = 32;
using Tokens = std::array<JsonToken, CAPACITY>;

/// Stores an object of the words; returns the number of tokens.
std::int32_t put_words(const std::vector<char> &text, Tokens *tokens) {
    std::size_t count = 0;
    (*tokens)[count++].type = JSON_OBJECT;
    for (std::size_t i = 0; i < text.size() && count < CAPACITY; ++i) {
        if (i == 0 || text[i - 1] == '\0') {
            (*tokens)[count++].start = static_cast<std::int32_t>(i);
        }
    }
    return static_cast<std::int32_t>(count);
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    std::vector<char> text(data, data + size);
    text.push_back('\0'); // like the reader's buffer
    Tokens tokens{};
    JsonParser parser{};
    json_init(&parser, tokens.data(), tokens.size());
    const std::int32_t count = json_parse(&parser, text.data(), static_cast<std::int32_t>(size));
    const std::int32_t decision = network_decide_wifi(text.data(), tokens.data(), count);
    PROMISE(decision == 0 || decision == 1);
    PROMISE(count > 0 || decision == 1);

    Tokens words{};
    const std::int32_t of_words = network_decide_wifi(text.data(), words.data(), put_words(text, &words));
    PROMISE(of_words == 0 || of_words == 1);
    return 0;
}
