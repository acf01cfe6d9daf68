#pragma once

// A tokenizer for JSON without arrays. It allocates nothing and builds no values: tokens give the position of
// each object, string and primitive.

#include <cstdint>

enum JsonType : std::int32_t { JSON_UNSET = 0, JSON_OBJECT = 1, JSON_STRING = 2, JSON_PRIMITIVE = 4 };

enum JsonError : int {
    JSON_FULL = -1,       ///< more tokens than the caller's array holds
    JSON_INVALID = -2,    ///< a character or a structure that is not allowed
    JSON_INCOMPLETE = -3, ///< the text ends inside a string, a primitive or an object
};

/// One element of the text; a string without its quotes.
struct JsonToken {
    std::int32_t type;   ///< a JsonType
    std::int32_t start;  ///< offset of the first byte, -1 unset
    std::int32_t end;    ///< offset after the last byte, -1 while open
    std::int32_t size;   ///< number of direct children: an object's keys, a key's value
    std::int32_t parent; ///< index of the enclosing token, -1 for none
};

struct JsonParser {
    std::int32_t position;
    std::int32_t next;      ///< index of the next free token
    std::int32_t enclosing; ///< index of the token whose children come next, -1 for none
    JsonToken *tokens;      ///< the caller's
    std::int32_t capacity;
};

/// Prepares the parser for a new text, with an array of `capacity` tokens.
void json_init(JsonParser *parser, JsonToken *tokens, std::int32_t capacity);
/// Tokenizes `length` bytes, or up to a zero byte; none when `length` is not positive. Returns the number
/// of tokens, or a JsonError; then the tokens are undefined and the parser must be initialised again.
int json_parse(JsonParser *parser, const char *text, std::int32_t length);
/// The next token, unset; null when all are in use.
JsonToken *json_alloc_token(JsonParser *parser);
