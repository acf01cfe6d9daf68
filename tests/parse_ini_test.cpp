#include "parse_ini.h"

#include "captured_traces.h"
#include "process_state.h"
#include "scratch_folder.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

namespace {

struct Pair {
    std::string section, name, value;
    bool operator==(const Pair &) const = default;
};

void PrintTo(const Pair &pair, std::ostream *out) {
    *out << '[' << pair.section << "] " << pair.name << '=' << pair.value;
}

using Pairs = std::vector<Pair>;

Pairs taken;
std::size_t accepted_before_refusal; ///< the handler accepts this many pairs and refuses the next

int take(const char *section, const char *name, const char *value) {
    taken.push_back({section, name, value});
    return taken.size() > accepted_before_refusal ? 0 : 1;
}

/// A text read line by line as with fgets.
struct TextStream {
    std::string_view rest;
    std::vector<int> sizes;
};

char *read_text(char *buffer, int size, void *stream) {
    auto &text = *static_cast<TextStream *>(stream);
    text.sizes.push_back(size);
    if (text.rest.empty()) {
        return nullptr;
    }
    const std::size_t line = std::min(text.rest.find('\n'), text.rest.size() - 1) + 1;
    const std::size_t count = std::min(line, static_cast<std::size_t>(size) - 1);
    std::memcpy(buffer, text.rest.data(), count);
    buffer[count] = '\0';
    text.rest.remove_prefix(count);
    return buffer;
}

int parse(std::string_view text) {
    taken.clear();
    TextStream stream{text, {}};
    return ini_parse_stream(read_text, &stream, take);
}

class IniTest : public testing::Test {
  protected:
    IniTest() {
        taken.clear();
        accepted_before_refusal = SIZE_MAX;
    }
};

struct Case {
    std::string text;
    Pairs pairs;
    int result = 0;
};

void PrintTo(const Case &text, std::ostream *out) { *out << text.text; }

class IniTextTest : public IniTest, public testing::WithParamInterface<Case> {};

TEST_P(IniTextTest, YieldsItsPairsAndItsResult) {
    EXPECT_EQ(parse(GetParam().text), GetParam().result);
    EXPECT_EQ(taken, GetParam().pairs);
}

INSTANTIATE_TEST_SUITE_P(Pairs, IniTextTest,
                         testing::Values(Case{"a=b", {{"", "a", "b"}}},     //
                                         Case{"a=b\n", {{"", "a", "b"}}},   //
                                         Case{"a=b\r\n", {{"", "a", "b"}}}, //
                                         Case{"a:b", {{"", "a", "b"}}},     //
                                         Case{"a=b:c", {{"", "a", "b:c"}}}, //
                                         Case{"a:b=c", {{"", "a", "b=c"}}}, //
                                         Case{" \t a b \t = \v c d \f ", {{"", "a b", "c d"}}},
                                         Case{"=", {{"", "", ""}}},   //
                                         Case{"=b", {{"", "", "b"}}}, //
                                         Case{"a=", {{"", "a", ""}}}, //
                                         Case{"\xA0=\xFF", {{"", "\xA0", "\xFF"}}},
                                         Case{"a=1\n\n \nb=2", {{"", "a", "1"}, {"", "b", "2"}}}));

INSTANTIATE_TEST_SUITE_P(Comments, IniTextTest,
                         testing::Values(Case{"Name = value ; note", {{"", "Name", "value"}}},
                                         Case{"Name=value;x", {{"", "Name", "value;x"}}},
                                         Case{"a=b\t;c", {{"", "a", "b"}}},        //
                                         Case{"a=b ;c ;d", {{"", "a", "b"}}},      //
                                         Case{"a=b;c ;d", {{"", "a", "b;c"}}},     //
                                         Case{"a=b ;", {{"", "a", "b"}}},          //
                                         Case{"a;=b", {{"", "a;", "b"}}},          //
                                         Case{"a ;=b", {}, -1},                    // the comment hides the separator
                                         Case{"a=b # c", {{"", "a", "b # c"}}},    //
                                         Case{"a=#b", {{"", "a", "#b"}}},          //
                                         Case{"a#b=c", {{"", "a#b", "c"}}},        //
                                         Case{";a=b\n#a=b\n  ;a=b\n\t#a=b\n", {}}, //
                                         Case{";", {}},                            //
                                         Case{"#", {}}));

INSTANTIATE_TEST_SUITE_P(Sections, IniTextTest,
                         testing::Values(Case{"[Link]\na=b", {{"Link", "a", "b"}}},
                                         Case{"a=1\n[s]\nb=2\nc=3\n[t]\nd=4",
                                              {{"", "a", "1"}, {"s", "b", "2"}, {"s", "c", "3"}, {"t", "d", "4"}}},
                                         Case{" [s] \na=b", {{"s", "a", "b"}}},       //
                                         Case{"[ s t ]\na=b", {{" s t ", "a", "b"}}}, //
                                         Case{"[]\na=b", {{"", "a", "b"}}},           //
                                         Case{"[s]\n[]\na=b", {{"", "a", "b"}}},      //
                                         Case{"[s]x=y\na=b", {{"s", "a", "b"}}},      // the rest of the line is ignored
                                         Case{"[s][t]\na=b", {{"s", "a", "b"}}},      //
                                         Case{"[[s]\na=b", {{"[s", "a", "b"}}},       //
                                         Case{"[s;t]\na=b", {{"s;t", "a", "b"}}},     //
                                         Case{"[;s]\na=b", {{";s", "a", "b"}}},       //
                                         Case{"[s ;t]\na=b", {}, -1},                 //
                                         Case{"[a=b]\na=b", {{"a=b", "a", "b"}}}));

INSTANTIATE_TEST_SUITE_P(Errors, IniTextTest,
                         testing::Values(Case{"a", {}, -1},  //
                                         Case{"[a", {}, -1}, //
                                         Case{"[", {}, -1},  //
                                         Case{"]", {}, -1},  //
                                         Case{"a=1\nbad\nb=2", {{"", "a", "1"}}, -1},
                                         Case{"a=1\n[bad\nb=2", {{"", "a", "1"}}, -1},
                                         Case{"a=b\n  continued", {{"", "a", "b"}}, -1}, // not supported
                                         Case{"\xEF\xBB\xBF[Link]\na=b", {}, -1}, // a byte order mark is an error
                                         Case{"\xEF\xBB\xBF"
                                              "a=b",
                                              {{"",
                                                "\xEF\xBB\xBF"
                                                "a",
                                                "b"}}}));

TEST_F(IniTest, ARefusedPairStopsTheParser) {
    accepted_before_refusal = 1;
    EXPECT_EQ(parse("[s]\na=1\nb=2\nc=3"), -2);
    EXPECT_EQ(taken, (Pairs{{"s", "a", "1"}, {"s", "b", "2"}}));
}

TEST_F(IniTest, ASectionIsCutTo49Characters) {
    for (const std::size_t length : {48U, 49U, 50U, 4000U}) {
        EXPECT_EQ(parse("[" + std::string(length, 's') + "]\na=b"), 0);
        EXPECT_EQ(taken, (Pairs{{std::string(std::min<std::size_t>(length, 49), 's'), "a", "b"}}));
    }
}

TEST_F(IniTest, AsksForLinesOf4096BytesUntilTheReaderEnds) {
    TextStream stream{"a=b\nc=d\n", {}};
    EXPECT_EQ(ini_parse_stream(read_text, &stream, take), 0);
    EXPECT_EQ(stream.sizes, (std::vector<int>{4096, 4096, 4096}));
    EXPECT_EQ(taken.size(), 2U);
}

TEST_F(IniTest, ALineOf4095BytesIsOneLine) {
    const std::string value(4093, 'v'); // plus two bytes "n="
    EXPECT_EQ(parse("n=" + value), 0);
    EXPECT_EQ(taken, (Pairs{{"", "n", value}}));
}

TEST_F(IniTest, ALongerLineCountsAsSeveral) {
    const std::string value(4093, 'v');
    EXPECT_EQ(parse("n=" + value + "m=w\n"), 0);
    EXPECT_EQ(taken, (Pairs{{"", "n", value}, {"", "m", "w"}}));
    EXPECT_EQ(parse("n=" + value + "v\n"), -1);
    EXPECT_EQ(taken, (Pairs{{"", "n", value}}));
    EXPECT_EQ(parse(";" + std::string(4094, 'c') + "m=w\n"), 0); // the comment ends with its piece
    EXPECT_EQ(taken, (Pairs{{"", "m", "w"}}));
    EXPECT_EQ(parse("[" + std::string(4094, 's') + "]\n"), -1);
}

TEST_F(IniTest, AZeroByteEndsItsLine) {
    EXPECT_EQ(parse(std::string_view("a=b\0c\n\0x\nd=e", 12)), 0);
    EXPECT_EQ(taken, (Pairs{{"", "a", "b"}, {"", "d", "e"}}));
}

TEST_F(IniTest, TracesSectionsPairsAndRefusals) {
    accepted_before_refusal = 1;
    const CapturedTraces traces;
    parse("[Link]\na=1\nb=2");
    EXPECT_EQ(traces.texts_of("ini_parse_stream"),
              (std::vector<std::string>{" ", "section: \"Link\"", R"(section: "Link" name: "a" value: "1")",
                                        R"(section: "Link" name: "b" value: "2")",
                                        R"(ERROR: semantics failed -- section: "Link" name: "b" value: "2")"}));
    for (const CapturedTrace &trace : traces.all()) {
        EXPECT_EQ(trace.line.substr(0, 4), "(3) ") << trace.line;
        EXPECT_EQ(trace.code_file, "CODE_FILE=parse_ini.c");
    }
}

const CapturedTraces *watched;
std::string traced_last;

int look_at_trace(const char * /*section*/, const char * /*name*/, const char * /*value*/) {
    traced_last = watched->all().back().text;
    return 1;
}

TEST_F(IniTest, TracesAPairBeforeItIsHandled) {
    const CapturedTraces traces;
    watched = &traces;
    TextStream stream{"a=1", {}};
    ini_parse_stream(read_text, &stream, look_at_trace);
    EXPECT_EQ(traced_last, R"(section: "" name: "a" value: "1")");
}

TEST_F(IniTest, AFileIsReadToItsEnd) {
    const ScratchFolder folder;
    const std::string file = folder.write("eth0.network", "[Match]\nName=eth0\n\n[Link]\nUnmanaged=no");
    EXPECT_EQ(ini_parse_file(file.c_str(), take), 0);
    EXPECT_EQ(taken, (Pairs{{"Match", "Name", "eth0"}, {"Link", "Unmanaged", "no"}}));
}

TEST_F(IniTest, AFileReportsTheErrorsOfItsText) {
    const ScratchFolder folder;
    EXPECT_EQ(ini_parse_file(folder.write("empty", "").c_str(), take), 0);
    EXPECT_EQ(ini_parse_file(folder.write("bad", "bad").c_str(), take), -1);
    accepted_before_refusal = 0;
    EXPECT_EQ(ini_parse_file(folder.write("refused", "a=b").c_str(), take), -2);
}

TEST_F(IniTest, AFileThatCannotBeOpenedOrReadIsAnError) {
    const ScratchFolder folder;
    EXPECT_EQ(ini_parse_file((folder / "missing").c_str(), take), -1);
    EXPECT_EQ(ini_parse_file(folder.path().c_str(), take), -1); // a folder opens but cannot be read
    EXPECT_EQ(taken, Pairs{});
}

TEST_F(IniTest, AFileIsClosedWhateverItsResult) {
    const ScratchFolder folder;
    const std::string good = folder.write("good", "a=b");
    const std::string bad = folder.write("bad", "bad");
    const std::ptrdiff_t before = open_descriptors();
    ini_parse_file(good.c_str(), take);
    ini_parse_file(bad.c_str(), take);
    EXPECT_EQ(open_descriptors(), before);
}

std::vector<int> inherited_while_reading;
std::ptrdiff_t open_while_reading;

int look_at_descriptors(const char * /*section*/, const char * /*name*/, const char * /*value*/) {
    inherited_while_reading = descriptors_open_over_exec();
    open_while_reading = open_descriptors();
    return 1;
}

TEST_F(IniTest, AFileIsClosedByAnExec) {
    const ScratchFolder folder;
    const std::string file = folder.write("good", "a=b");
    const std::ptrdiff_t before = open_descriptors();
    ini_parse_file(file.c_str(), look_at_descriptors);
    EXPECT_EQ(open_while_reading, before + 1);
    EXPECT_EQ(inherited_while_reading, descriptors_open_over_exec());
}

struct TextCase {
    std::string text, expected;
};

TEST(IniHelpers, RstripCutsTheWhiteSpaceOffTheEnd) {
    for (TextCase text :
         {TextCase{"", ""}, {" ", ""}, {" \t\r\n\v\f", ""}, {"a", "a"}, {" a ", " a"}, {"a b\n", "a b"}}) {
        EXPECT_EQ(rstrip(text.text.data()), text.text.data());
        EXPECT_STREQ(text.text.c_str(), text.expected.c_str());
    }
}

TEST(IniHelpers, RstripLeavesBytesBeforeTheTextAlone) {
    std::string line = "a  ";
    rstrip(line.data() + 2);
    EXPECT_EQ(line, std::string("a \0", 3));
}

TEST(IniHelpers, LskipSkipsTheWhiteSpaceAtTheStart) {
    for (TextCase text : {TextCase{"", ""}, {" \t\r\n\v\f", ""}, {"a ", "a "}, {" \ta b", "a b"}, {"\xA0", "\xA0"}}) {
        EXPECT_STREQ(lskip(text.text.data()), text.expected.c_str());
    }
}

TEST(IniHelpers, FindsACharacterOrAComment) {
    struct {
        std::string text;
        const char *characters;
        std::ptrdiff_t offset;
    } cases[] = {{"a=b:c", "=:", 1},  {"a:b=c", "=:", 1},   {"abc", "=:", 3},  {"", "=:", 0},
                 {"a ;b=c", "=:", 2}, {"a;b=c", "=:", 3},   {";a=b", "=:", 2}, {"a=b ;c", nullptr, 4},
                 {"ab", nullptr, 2},  {"a ; ;", nullptr, 2}};
    for (auto &text : cases) {
        char *start = text.text.data();
        EXPECT_EQ(find_chars_or_comment(start, text.characters) - start, text.offset) << text.text;
    }
}

TEST(IniHelpers, Strncpy0CopiesWhatFitsAndTerminates) {
    struct {
        const char *source;
        std::size_t size;
        const char *expected; ///< with the rest of "......"
    } const cases[] = {{"abc", 6, "abc"}, {"abc", 4, "abc"}, {"abc", 3, "ab"},
                       {"abc", 1, ""},    {"", 6, ""},       {"abc", 0, "......"}};
    for (const auto &copy : cases) {
        std::array<char, 7> buffer{"......"};
        EXPECT_EQ(strncpy0(buffer.data(), copy.source, copy.size), buffer.data());
        EXPECT_STREQ(buffer.data(), copy.expected) << copy.size;
        EXPECT_EQ(buffer[5], '.'); // no padding
    }
}

} // namespace
