#include "parse_json.h"

#include "trace.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace {

constexpr std::int32_t NONE = -1;
constexpr std::string_view PRIMITIVE_STARTERS = "+-0123456789FNTfnt";

bool is_printable(char c) { return std::isprint(static_cast<unsigned char>(c)) != 0; }
bool is_hexadecimal(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

JsonToken *enclosing_token(const JsonParser &parser) {
    return parser.enclosing == NONE ? nullptr : &parser.tokens[parser.enclosing];
}

bool is_in_object(const JsonParser &parser) {
    const JsonToken *enclosing = enclosing_token(parser);
    return enclosing != nullptr && enclosing->type == JSON_OBJECT;
}

bool is_open(const JsonToken &token) { return token.start != NONE && token.end == NONE; }

/// Starts `token` at `start`, as a child of the enclosing token.
void begin(JsonParser &parser, JsonToken &token, JsonType type, std::int32_t start) {
    token.type = type;
    token.start = start;
    token.parent = parser.enclosing;
    if (JsonToken *enclosing = enclosing_token(parser)) {
        ++enclosing->size;
    }
}

int open_object(JsonParser &parser) {
    JsonToken *token = json_alloc_token(&parser);
    if (token == nullptr) {
        return JSON_FULL;
    }
    if (is_in_object(parser)) { // an object cannot be a key
        return JSON_INVALID;
    }
    begin(parser, *token, JSON_OBJECT, parser.position);
    parser.enclosing = parser.next - 1;
    return 0;
}

/// Closes the innermost open token.
int close_object(JsonParser &parser) {
    for (std::int32_t index = parser.next - 1; index != NONE; index = parser.tokens[index].parent) {
        JsonToken &token = parser.tokens[index];
        if (is_open(token)) {
            token.end = parser.position + 1;
            parser.enclosing = token.parent;
            return token.type == JSON_OBJECT ? 0 : JSON_INVALID;
        }
    }
    return JSON_INVALID;
}

/// The length of the escape sequence at the start of `text`, or an error.
int escape_length(std::string_view text) {
    if (text.size() < 2) {
        return JSON_INCOMPLETE;
    }
    if (text[1] != 'u') {
        return std::string_view("\"/\\bfnrt").find(text[1]) == std::string_view::npos ? JSON_INVALID : 2;
    }
    const std::string_view digits(text.data() + 2, std::min<std::size_t>(text.size() - 2, 4));
    if (!std::all_of(digits.begin(), digits.end(), is_hexadecimal)) {
        return JSON_INVALID;
    }
    return 6; // past the end of a truncated text
}

/// The offset of the quote that ends the string which starts at `start`, or an error.
int find_end_of_string(std::string_view text, std::int32_t start) {
    auto offset = static_cast<std::size_t>(start);
    while (offset < text.size() && text[offset] != '"') {
        const int length = text[offset] == '\\' ? escape_length(text.substr(offset)) : 1;
        if (length < 0) {
            return length;
        }
        offset += static_cast<std::size_t>(length);
    }
    return offset < text.size() ? static_cast<int>(offset) : JSON_INCOMPLETE;
}

int take_string(JsonParser &parser, std::string_view text) {
    JsonToken *token = json_alloc_token(&parser);
    if (token == nullptr) {
        return JSON_FULL;
    }
    begin(parser, *token, JSON_STRING, parser.position + 1);
    const int end = find_end_of_string(text, token->start);
    if (end < 0) {
        return end;
    }
    token->end = end;
    parser.position = end;
    return 0;
}

/// A primitive must be the only value of a key. Strings need not; kept.
bool may_be_primitive(const JsonParser &parser) {
    const JsonToken *enclosing = enclosing_token(parser);
    return enclosing == nullptr ||
           (enclosing->type != JSON_OBJECT && (enclosing->type != JSON_STRING || enclosing->size == 0));
}

int take_primitive(JsonParser &parser, std::string_view text) {
    JsonToken *token = json_alloc_token(&parser);
    if (token == nullptr) {
        return JSON_FULL;
    }
    if (!may_be_primitive(parser)) {
        return JSON_INVALID;
    }
    begin(parser, *token, JSON_PRIMITIVE, parser.position);
    const auto start = static_cast<std::size_t>(parser.position);
    const std::size_t end = std::min(text.find_first_of("\t\r\n ,:]}", start), text.size());
    const std::string_view primitive(text.data() + start, end - start);
    if (!std::all_of(primitive.begin(), primitive.end(), is_printable)) {
        return JSON_INVALID;
    }
    if (end == text.size()) { // no delimiter: the primitive may be truncated
        return JSON_INCOMPLETE;
    }
    token->end = static_cast<std::int32_t>(end);
    parser.position = token->end - 1;
    return 0;
}

/// After a comma: the key that has its value no longer encloses the next tokens.
void leave_key(JsonParser &parser) {
    const JsonToken *enclosing = enclosing_token(parser);
    if (enclosing != nullptr && enclosing->type != JSON_OBJECT) {
        parser.enclosing = enclosing->parent;
    }
}

/// Reads the element at the parser's position; leaves the position on its last byte.
int take_element(JsonParser &parser, std::string_view text) {
    const char c = text[static_cast<std::size_t>(parser.position)];
    switch (c) {
    case '\t':
    case '\n':
    case '\r':
    case ' ':
        return 0;
    case '{':
        return open_object(parser);
    case '}':
        return close_object(parser);
    case '"':
        return take_string(parser, text);
    case ':':
        parser.enclosing = parser.next - 1;
        return 0;
    case ',':
        leave_key(parser);
        return 0;
    default:
        return PRIMITIVE_STARTERS.find(c) != std::string_view::npos ? take_primitive(parser, text) : JSON_INVALID;
    }
}

} // namespace

void json_init(JsonParser *parser, JsonToken *tokens, std::int32_t capacity) {
    *parser = {.position = 0, .next = 0, .enclosing = NONE, .tokens = tokens, .capacity = capacity};
}

JsonToken *json_alloc_token(JsonParser *parser) {
    if (parser->next >= parser->capacity) {
        return nullptr;
    }
    JsonToken *token = &parser->tokens[parser->next++];
    *token = {.type = JSON_UNSET, .start = NONE, .end = NONE, .size = 0, .parent = NONE};
    return token;
}

int json_parse(JsonParser *parser, const char *text, std::int32_t length) {
    trace(TRACE_TRACE, " ");
    const auto limit = static_cast<std::size_t>(std::max(length, 0));
    const std::string_view input(text, limit == 0 ? 0 : strnlen(text, limit));
    for (; static_cast<std::size_t>(parser->position) < input.size(); ++parser->position) {
        const int result = take_element(*parser, input);
        if (result < 0) {
            return result;
        }
    }
    return std::any_of(parser->tokens, parser->tokens + parser->next, is_open) ? int{JSON_INCOMPLETE} : parser->next;
}
