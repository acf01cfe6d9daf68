#include "parse_json.h"

#include "captured_traces.h"

#include <array>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

bool operator==(const JsonToken &a, const JsonToken &b) {
    return a.type == b.type && a.start == b.start && a.end == b.end && a.size == b.size && a.parent == b.parent;
}

void PrintTo(const JsonToken &token, std::ostream *out) {
    *out << "{" << token.type << ", " << token.start << ", " << token.end << ", " << token.size << ", " << token.parent
         << "}";
}

namespace {

using Tokens = std::vector<JsonToken>;
using namespace std::string_literals;

constexpr JsonToken UNTOUCHED{99, 99, 99, 99, 99};

/// Guard tokens after those in use, to detect writes there.
struct Result {
    int result;
    Tokens tokens;
};

Result parse(std::string_view text, std::size_t capacity = 32) {
    Tokens tokens(capacity, UNTOUCHED);
    const std::vector<char> bytes(text.begin(), text.end()); // of exact size, so that ASan detects a read past the end
    JsonParser parser{};
    json_init(&parser, tokens.data(), static_cast<std::int32_t>(capacity));
    const int result = json_parse(&parser, bytes.data(), static_cast<std::int32_t>(bytes.size()));
    tokens.resize(result < 0 ? 0 : static_cast<std::size_t>(result));
    return {result, tokens};
}

struct TokensCase {
    std::string text;
    Tokens tokens; ///< type, start, end, size, parent
};

void PrintTo(const TokensCase &text, std::ostream *out) { *out << text.text; }

class JsonTokensTest : public testing::TestWithParam<TokensCase> {};

TEST_P(JsonTokensTest, HaveTheirPlacesInTheText) {
    const Result result = parse(GetParam().text);
    EXPECT_EQ(result.result, static_cast<int>(GetParam().tokens.size()));
    EXPECT_EQ(result.tokens, GetParam().tokens);
}

INSTANTIATE_TEST_SUITE_P(Nothing, JsonTokensTest,
                         testing::Values(TokensCase{"", {}}, TokensCase{" \t\r\n", {}}, TokensCase{",", {}},
                                         TokensCase{":", {}}, TokensCase{"\0[]"s, {}}));

INSTANTIATE_TEST_SUITE_P(
    Objects, JsonTokensTest,
    testing::Values(
        TokensCase{"{}", {{1, 0, 2, 0, -1}}}, //
        TokensCase{" {\n} ", {{1, 1, 4, 0, -1}}},
        // 0 "{", 1..9 "enabled" with its quotes, 10 ":", 11..14 true, 15 "}"
        TokensCase{R"({"enabled":true})", {{1, 0, 16, 1, -1}, {2, 2, 9, 1, 0}, {4, 11, 15, 0, 1}}},
        TokensCase{R"({"a":1,"b":2})",
                   {{1, 0, 13, 2, -1}, {2, 2, 3, 1, 0}, {4, 5, 6, 0, 1}, {2, 8, 9, 1, 0}, {4, 11, 12, 0, 3}}},
        TokensCase{R"({"a":{},"b":{}})",
                   {{1, 0, 15, 2, -1}, {2, 2, 3, 1, 0}, {1, 5, 7, 0, 1}, {2, 9, 10, 1, 0}, {1, 12, 14, 0, 3}}},
        TokensCase{R"({"a":{"b":1,"c":"d"}})",
                   {{1, 0, 21, 1, -1},
                    {2, 2, 3, 1, 0},
                    {1, 5, 20, 2, 1},
                    {2, 7, 8, 1, 2},
                    {4, 10, 11, 0, 3},
                    {2, 13, 14, 1, 2},
                    {2, 17, 18, 0, 5}}},
        TokensCase{R"({"a"})", {{1, 0, 5, 1, -1}, {2, 2, 3, 0, 0}}}, // a key without a value
        TokensCase{R"({"a","b":1})", {{1, 0, 11, 2, -1}, {2, 2, 3, 0, 0}, {2, 6, 7, 1, 0}, {4, 9, 10, 0, 2}}},
        TokensCase{"{,}", {{1, 0, 3, 0, -1}}},                    //
        TokensCase{"{:}", {{1, 0, 3, 0, -1}}},                    //
        TokensCase{"{}{}", {{1, 0, 2, 0, -1}, {1, 2, 4, 0, -1}}}, //
        TokensCase{R"({}:"x")", {{1, 0, 2, 1, -1}, {2, 4, 5, 0, 0}}}));

INSTANTIATE_TEST_SUITE_P(
    SecondValues, JsonTokensTest,
    testing::Values(
        TokensCase{R"({"a":"b" "c"})", {{1, 0, 13, 1, -1}, {2, 2, 3, 2, 0}, {2, 6, 7, 0, 1}, {2, 10, 11, 0, 1}}},
        TokensCase{R"({"a":1 "c"})", {{1, 0, 11, 1, -1}, {2, 2, 3, 2, 0}, {4, 5, 6, 0, 1}, {2, 8, 9, 0, 1}}},
        TokensCase{R"({"a":1 {}})", {{1, 0, 10, 1, -1}, {2, 2, 3, 2, 0}, {4, 5, 6, 0, 1}, {1, 7, 9, 0, 1}}},
        // the value becomes the parent
        TokensCase{R"({"a":1:{}})", {{1, 0, 10, 1, -1}, {2, 2, 3, 1, 0}, {4, 5, 6, 1, 1}, {1, 7, 9, 0, 2}}},
        TokensCase{"t:f ", {{4, 0, 1, 1, -1}, {4, 2, 3, 0, 0}}},
        // only objects and keys are checked for earlier children
        TokensCase{"t:f n ", {{4, 0, 1, 2, -1}, {4, 2, 3, 0, 0}, {4, 4, 5, 0, 0}}},
        // a comma closes one token, not all up to the object
        TokensCase{R"({"a":1:2,"b":3})",
                   {{1, 0, 15, 1, -1},
                    {2, 2, 3, 2, 0},
                    {4, 5, 6, 1, 1},
                    {4, 7, 8, 0, 2},
                    {2, 10, 11, 1, 1},
                    {4, 13, 14, 0, 4}}}));

INSTANTIATE_TEST_SUITE_P(Strings, JsonTokensTest,
                         testing::Values(TokensCase{R"("")", {{2, 1, 1, 0, -1}}},       //
                                         TokensCase{R"("abc")", {{2, 1, 4, 0, -1}}},    //
                                         TokensCase{R"("{[]}:,")", {{2, 1, 7, 0, -1}}}, //
                                         TokensCase{R"("\"")", {{2, 1, 3, 0, -1}}},     //
                                         TokensCase{R"("\\")", {{2, 1, 3, 0, -1}}},     //
                                         TokensCase{R"("\/\b\f\n\r\t")", {{2, 1, 13, 0, -1}}},
                                         TokensCase{R"("\u00aF9")", {{2, 1, 8, 0, -1}}},
                                         TokensCase{R"("\u00aF")", {{2, 1, 7, 0, -1}}},
                                         TokensCase{"\"\x01\n\x7F\xC3\xA4\xFF\"", {{2, 1, 7, 0, -1}}}));

INSTANTIATE_TEST_SUITE_P(Primitives, JsonTokensTest,
                         testing::Values(TokensCase{"true ", {{4, 0, 4, 0, -1}}},  //
                                         TokensCase{"null\t", {{4, 0, 4, 0, -1}}}, //
                                         TokensCase{"-1\r", {{4, 0, 2, 0, -1}}},   //
                                         TokensCase{"+1\n", {{4, 0, 2, 0, -1}}},   //
                                         TokensCase{"0:", {{4, 0, 1, 0, -1}}},     //
                                         TokensCase{"9,", {{4, 0, 1, 0, -1}}},     //
                                         TokensCase{"F,", {{4, 0, 1, 0, -1}}},     //
                                         TokensCase{"N,", {{4, 0, 1, 0, -1}}},     //
                                         TokensCase{"T,", {{4, 0, 1, 0, -1}}},     //
                                         TokensCase{"f,", {{4, 0, 1, 0, -1}}},     //
                                         TokensCase{"n,", {{4, 0, 1, 0, -1}}},     //
                                         TokensCase{"t,", {{4, 0, 1, 0, -1}}},     //
                                         TokensCase{"t\"{[\\~!,", {{4, 0, 7, 0, -1}}},
                                         TokensCase{"1 2 ", {{4, 0, 1, 0, -1}, {4, 2, 3, 0, -1}}}));

struct ErrorCase {
    std::string text;
    int error;
};

/// Prints no raw bytes: ctest drops tests whose list contains such.
void PrintTo(const ErrorCase &text, std::ostream *out) {
    *out << testing::PrintToString(text.text) << " " << text.error;
}

class JsonErrorTest : public testing::TestWithParam<ErrorCase> {};

TEST_P(JsonErrorTest, IsReported) { EXPECT_EQ(parse(GetParam().text).result, GetParam().error); }

INSTANTIATE_TEST_SUITE_P(Arrays, JsonErrorTest,
                         testing::Values(ErrorCase{"[]", -2}, ErrorCase{"[1]", -2}, ErrorCase{"]", -2},
                                         ErrorCase{R"({"a":[]})", -2}, ErrorCase{R"({"a":1]})", -2},
                                         ErrorCase{"true]", -2})); // it ends the primitive and is invalid itself

INSTANTIATE_TEST_SUITE_P(Characters, JsonErrorTest,
                         testing::Values(ErrorCase{"\x01", -2}, ErrorCase{"\x1F", -2}, ErrorCase{"\v", -2},
                                         ErrorCase{"\f", -2}, ErrorCase{"~", -2}, ErrorCase{"\x7F", -2},
                                         ErrorCase{"\x80", -2}, ErrorCase{"\xFF", -2}, ErrorCase{"\xEF\xBB\xBF{}", -2},
                                         ErrorCase{"a ", -2}, ErrorCase{"E ", -2}, ErrorCase{".5 ", -2},
                                         ErrorCase{"/ ", -2}, ErrorCase{"|", -2}, ErrorCase{"'a'", -2},
                                         ErrorCase{"\\", -2}, ErrorCase{"{}x", -2}));

INSTANTIATE_TEST_SUITE_P(Structure, JsonErrorTest,
                         testing::Values(ErrorCase{"}", -2}, ErrorCase{"{}}", -2}, ErrorCase{R"({"a":1}})", -2},
                                         ErrorCase{R"("a"})", -2}, ErrorCase{"true}", -2}, ErrorCase{"{{", -2},
                                         ErrorCase{"{{}:1}", -2}, ErrorCase{R"({"a":1,{}})", -2},
                                         ErrorCase{"{}:{}", -2}, ErrorCase{"{}:1 ", -2}));

INSTANTIATE_TEST_SUITE_P(PrimitiveKeys, JsonErrorTest,
                         testing::Values(ErrorCase{"{1:2}", -2}, ErrorCase{"{true}", -2}, ErrorCase{R"({"a":1,2})", -2},
                                         ErrorCase{R"({"a":1 2})", -2}, ErrorCase{R"({"a":"b" 1})", -2},
                                         ErrorCase{R"({"a":{} 1})", -2}));

INSTANTIATE_TEST_SUITE_P(Escapes, JsonErrorTest,
                         testing::Values(ErrorCase{R"("\x")", -2}, ErrorCase{R"("\x)", -2}, ErrorCase{R"("\a")", -2},
                                         ErrorCase{R"("\U0000")", -2}, ErrorCase{R"("\ ")", -2},
                                         ErrorCase{R"("\u12")", -2}, ErrorCase{R"("\u12g4")", -2},
                                         ErrorCase{"\"\\u12\xC3\xA4\"", -2}, ErrorCase{"\"\\", -3},
                                         ErrorCase{R"("\u)", -3}, ErrorCase{R"("\u123)", -3},
                                         ErrorCase{R"("\u1234)", -3}, ErrorCase{R"("\")", -3},
                                         ErrorCase{"\"\\\0\""s, -3}));

INSTANTIATE_TEST_SUITE_P(PrimitiveBytes, JsonErrorTest,
                         testing::Values(ErrorCase{"t\x01 ", -2}, ErrorCase{"t\x7F ", -2}, ErrorCase{"t\x80 ", -2},
                                         ErrorCase{"t\v", -2}, ErrorCase{"t\xFF", -2}));

INSTANTIATE_TEST_SUITE_P(Ends, JsonErrorTest,
                         testing::Values(ErrorCase{"\"", -3}, ErrorCase{"\"abc", -3}, ErrorCase{"\"a\0\""s, -3},
                                         ErrorCase{"t", -3}, ErrorCase{"true", -3}, ErrorCase{"true\0 "s, -3},
                                         ErrorCase{"{", -3}, ErrorCase{R"({"a)", -3}, ErrorCase{R"({"a")", -3},
                                         ErrorCase{R"({"a":)", -3}, ErrorCase{R"({"a":1)", -3},
                                         ErrorCase{R"({"a":1,)", -3}, ErrorCase{R"({"a":{})", -3},
                                         ErrorCase{"{} {", -3}));

/// An object whose keys "k" have the value 1: 1 + 2 * keys tokens.
std::string object_of(int keys) {
    std::string text = "{";
    for (int i = 0; i < keys; ++i) {
        text += R"("k":1,)";
    }
    return text;
}

TEST(Json, UsesAllTheTokensItWasGiven) {
    EXPECT_EQ(parse(object_of(15) + R"("k"})").result, 32); // 1 + 30 + 1
    EXPECT_EQ(parse(object_of(15) + R"("k":1})").result, -1);
    EXPECT_EQ(parse(object_of(15) + R"("k":"s"})").result, -1);
    EXPECT_EQ(parse(object_of(15) + R"("k":{}})").result, -1);
    EXPECT_EQ(parse(object_of(16)).result, -1);
    EXPECT_EQ(parse("{}", 1).result, 1);
    EXPECT_EQ(parse("{}", 0).result, -1);
    EXPECT_EQ(parse("", 0).result, 0);
}

TEST(Json, ReportsALackOfTokensBeforeItReadsTheElement) {
    EXPECT_EQ(parse("{{", 1).result, -1); // not a key
    EXPECT_EQ(parse("{1", 1).result, -1); // not a key either
    EXPECT_EQ(parse("\"", 0).result, -1);
    EXPECT_EQ(parse("x", 0).result, -2); // starts no element
}

TEST(Json, WritesNothingAfterItsTokens) {
    std::array<JsonToken, 3> tokens{UNTOUCHED, UNTOUCHED, UNTOUCHED};
    JsonParser parser{};
    json_init(&parser, tokens.data(), 2);
    EXPECT_EQ(json_parse(&parser, R"({"a":1})", 7), -1);
    EXPECT_EQ(tokens[2], UNTOUCHED);
    json_init(&parser, tokens.data(), 3);
    EXPECT_EQ(json_parse(&parser, "{}", 2), 1);
    EXPECT_EQ(tokens[2], UNTOUCHED);
}

TEST(Json, ElementsBeginOnlyWithTheirCharacters) {
    const std::string blanks = "\t\n\r ";
    const std::string marks = ":,";
    const std::string primitives = "+-0123456789FNTfnt";
    for (int c = 1; c < 256; ++c) {
        const std::string text{static_cast<char>(c), ' '};
        if ((blanks + marks).find(text[0]) != std::string::npos) {
            EXPECT_EQ(parse(text).result, 0) << c;
        } else if (primitives.find(text[0]) != std::string::npos) {
            EXPECT_EQ(parse(text).tokens, (Tokens{{4, 0, 1, 0, -1}})) << c;
        } else {
            EXPECT_EQ(parse(text).result, c == '{' || c == '"' ? -3 : -2) << c;
        }
    }
}

TEST(Json, ReadsNoFurtherThanItsLength) {
    std::array<JsonToken, 4> tokens{};
    const auto parse_bytes = [&](const char *text, std::int32_t length) {
        JsonParser parser{};
        json_init(&parser, tokens.data(), tokens.size());
        return json_parse(&parser, text, length);
    };
    EXPECT_EQ(parse_bytes("{}]", 2), 1);
    EXPECT_EQ(parse_bytes("{}]", 3), -2);
    EXPECT_EQ(parse_bytes("{}]", 0), 0);
    EXPECT_EQ(parse_bytes("{}]", -1), 0);
    EXPECT_EQ(parse_bytes("true ", 4), -3);
    EXPECT_EQ(parse_bytes("{}", 100), 1); // up to the zero byte
    EXPECT_EQ(parse_bytes(nullptr, 0), 0);
}

TEST(Json, ParsesATextOf2048BytesAndNoneWithoutItsEnd) {
    const std::string text = R"({"k":")" + std::string(2040, 'v') + R"("})"; // 6 + 2040 + 2
    ASSERT_EQ(text.size(), 2048U);
    EXPECT_EQ(parse(text).tokens, (Tokens{{1, 0, 2048, 1, -1}, {2, 2, 3, 1, 0}, {2, 6, 2046, 0, 1}}));
    EXPECT_EQ(parse(text.substr(0, 2047)).result, -3);
    EXPECT_EQ(parse(text.substr(0, 2046)).result, -3);
}

TEST(Json, InitMakesAParserReadyAgain) {
    std::array<JsonToken, 2> tokens{};
    JsonParser parser{7, 7, 7, nullptr, 7};
    json_init(&parser, tokens.data(), 2);
    EXPECT_EQ(parser.position, 0);
    EXPECT_EQ(parser.next, 0);
    EXPECT_EQ(parser.enclosing, -1);
    EXPECT_EQ(parser.tokens, tokens.data());
    EXPECT_EQ(parser.capacity, 2);
    EXPECT_EQ(json_parse(&parser, "{\"", 2), -3);
    json_init(&parser, tokens.data(), 2);
    EXPECT_EQ(json_parse(&parser, "{}", 2), 1);
    EXPECT_EQ(tokens[0], (JsonToken{1, 0, 2, 0, -1}));
}

TEST(Json, ANewTokenIsUnset) {
    std::array<JsonToken, 2> tokens{UNTOUCHED, UNTOUCHED};
    JsonParser parser{};
    json_init(&parser, tokens.data(), 2);
    EXPECT_EQ(json_alloc_token(&parser), tokens.data());
    EXPECT_EQ(tokens[0], (JsonToken{0, -1, -1, 0, -1}));
    EXPECT_EQ(tokens[1], UNTOUCHED);
    EXPECT_EQ(json_alloc_token(&parser), &tokens[1]);
    EXPECT_EQ(json_alloc_token(&parser), nullptr);
    EXPECT_EQ(parser.next, 2);
    json_init(&parser, nullptr, 0);
    EXPECT_EQ(json_alloc_token(&parser), nullptr);
    json_init(&parser, nullptr, -1);
    EXPECT_EQ(json_alloc_token(&parser), nullptr);
}

TEST(Json, HasTheEstablishedTypeCodes) {
    EXPECT_EQ(int{JSON_UNSET}, 0);
    EXPECT_EQ(int{JSON_OBJECT}, 1);
    EXPECT_EQ(int{JSON_STRING}, 2);
    EXPECT_EQ(int{JSON_PRIMITIVE}, 4);
}

TEST(Json, TracesUnderItsModule) {
    const CapturedTraces traces;
    parse("{}");
    EXPECT_TRUE(traces.has("json_parse", " "));
    EXPECT_EQ(traces.all().back().code_file, "CODE_FILE=parse_json.c");
}

} // namespace
