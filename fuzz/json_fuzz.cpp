// The first byte is the number of tokens, the rest the text.

#include "parse_json.h"
#include "support/fuzz.h"

#include <cstring>
#include <vector>

namespace {

std::int32_t children_of(const std::vector<JsonToken> &tokens, std::int32_t parent) {
    std::int32_t count = 0;
    for (const JsonToken &token : tokens) {
        count += token.parent == parent ? 1 : 0;
    }
    return count;
}

void check_token(const std::vector<JsonToken> &tokens, std::int32_t index, const char *text, std::int32_t length) {
    const JsonToken &token = tokens[static_cast<std::size_t>(index)];
    PROMISE(token.start >= 0 && token.start <= token.end && token.end <= length);
    PROMISE(token.parent >= -1 && token.parent < index);
    PROMISE(token.size == children_of(tokens, index));
    switch (token.type) {
    case JSON_OBJECT:
        PROMISE(text[token.start] == '{' && text[token.end - 1] == '}' && token.end - token.start >= 2);
        break;
    case JSON_STRING:
        PROMISE(token.start > 0 && text[token.start - 1] == '"' && token.end < length && text[token.end] == '"');
        break;
    default:
        PROMISE(token.type == JSON_PRIMITIVE);
        PROMISE(token.end > token.start && token.end < length);
        PROMISE(std::strchr("\t\r\n ,:}", text[token.end]) != nullptr);
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 1) {
        return 0;
    }
    const std::vector<char> text(data + 1, data + size); // of exact size, for the sanitizer
    const auto length = static_cast<std::int32_t>(text.size());
    std::vector<JsonToken> tokens(data[0]); // the same
    JsonParser parser{};
    json_init(&parser, tokens.data(), data[0]);
    const int result = json_parse(&parser, text.data(), length);
    PROMISE(result >= JSON_INCOMPLETE && result <= data[0]);
    PROMISE(parser.position >= 0 && parser.position <= length);
    PROMISE(parser.next >= 0 && parser.next <= data[0]);
    PROMISE(result != JSON_FULL || parser.next == data[0]);
    if (result >= 0) {
        tokens.resize(static_cast<std::size_t>(result));
        for (std::int32_t index = 0; index < result; ++index) {
            check_token(tokens, index, text.data(), length);
        }
    }
    return 0;
}
