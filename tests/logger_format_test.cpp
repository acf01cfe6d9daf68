#include "logger.h"

#include "captured_traces.h"
#include "sample_task.h"

#include <array>
#include <cstdint>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <ostream>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::StartsWith;

constexpr char UNTOUCHED = '#';
constexpr std::size_t AMPLE = 64;

/// Limits that no two states share.
Task task_with(const char *format, int state, const char *parameter) {
    Task task = sample_task();
    task.flags |= TASK_HAS_FORMAT;
    task.format = format;
    task.state = static_cast<std::int8_t>(state);
    task.minfail = -40;
    task.minwarn = 20;
    task.maxwarn = 70;
    task.maxfail = 80;
    if (parameter != nullptr) {
        task.flags |= TASK_HAS_PARAMETER;
        task.parameter = parameter;
    }
    return task;
}

struct Case {
    const char *format;
    int state;
    const char *parameter; ///< null for none
    std::size_t size;
    const char *expected;
};

void PrintTo(const Case &given, std::ostream *out) {
    *out << '\'' << given.format << "' state " << given.state << " size " << given.size;
}

class LoggerFormatTest : public testing::TestWithParam<Case> {};

TEST_P(LoggerFormatTest, ExpandsWithinTheBuffer) {
    const Task task = task_with(GetParam().format, GetParam().state, GetParam().parameter);
    std::string buffer(2 * AMPLE, UNTOUCHED);
    EXPECT_EQ(logger_format(buffer.data(), GetParam().size, &task), 0);
    EXPECT_STREQ(buffer.c_str(), GetParam().expected);
    const std::string guard = buffer.substr(GetParam().size);
    EXPECT_EQ(guard, std::string(guard.size(), UNTOUCHED));
}

INSTANTIATE_TEST_SUITE_P(PlainText, LoggerFormatTest,
                         testing::Values(Case{"abc", 0, nullptr, AMPLE, "abc"}, //
                                         Case{"abc", 0, nullptr, 4, "abc"},     // exact
                                         Case{"abc", 0, nullptr, 3, "ab"},      // cut to size - 1
                                         Case{"abc", 0, nullptr, 1, ""},        //
                                         Case{"", 0, nullptr, AMPLE, ""},       //
                                         Case{"", 0, nullptr, 1, ""},           //
                                         Case{"abcdef%D", 2, nullptr, 4, "abc"}));

INSTANTIATE_TEST_SUITE_P(
    States, LoggerFormatTest,
    testing::Values(Case{"%D %T", -2, nullptr, AMPLE, "below -40"}, Case{"%D %T", -1, nullptr, AMPLE, "below 20"},
                    Case{"%D %T", 0, nullptr, AMPLE, "at normal"}, Case{"%D %T", 1, nullptr, AMPLE, "above 70"},
                    Case{"%D %T", 2, nullptr, AMPLE, "above 80"},
                    // Every other state uses the upper failure limit.
                    Case{"%D %T", 3, nullptr, AMPLE, "above 80"}, Case{"%D %T", 4, nullptr, AMPLE, "above 80"},
                    Case{"%D %T", 7, nullptr, AMPLE, "above 80"}, Case{"%D %T", -3, nullptr, AMPLE, "below 80"}));

// "below" and "above" need 6 bytes, "at" 3, and a threshold its length and one more.
INSTANTIATE_TEST_SUITE_P(Fits, LoggerFormatTest,
                         testing::Values(Case{"%D", -1, nullptr, 6, "below"}, Case{"%D", -1, nullptr, 5, ""},
                                         Case{"%D", 1, nullptr, 6, "above"}, Case{"%D", 1, nullptr, 5, ""},
                                         Case{"%D", 0, nullptr, 3, "at"}, Case{"%D", 0, nullptr, 2, ""},
                                         Case{"%D", 0, nullptr, 1, ""}, Case{"%T", 0, nullptr, 7, "normal"},
                                         Case{"%T", 0, nullptr, 6, ""}, Case{"%T", -2, nullptr, 4, "-40"},
                                         Case{"%T", -2, nullptr, 3, ""}, Case{"%T", 2, nullptr, 1, ""},
                                         Case{"%D %T", -1, nullptr, 9, "below 20"},
                                         Case{"%D %T", -1, nullptr, 8, "below "}, Case{"%P", 0, "/data", 6, "/data"},
                                         Case{"%P", 0, "/data", 5, ""}, Case{"%P", 0, "/data", 1, ""},
                                         Case{"%%", 0, nullptr, 2, "%"}, Case{"%%", 0, nullptr, 1, ""}));

INSTANTIATE_TEST_SUITE_P(LeftOutWhole, LoggerFormatTest,
                         testing::Values(Case{"a%Pb", 0, "/data", 4, "ab"}, // what follows still fits
                                         Case{"%P%P", 0, "/data", 8, "/data"},
                                         Case{"%P%P", 0, "/data", 10, "/data"}, // 5 < 10 - 5 does not hold
                                         Case{"%P%P", 0, "/data", 11, "/data/data"},
                                         Case{"%D%T", -2, nullptr, 7, "below"}, Case{"%P%D", 0, "/data", 5, "at"}));

INSTANTIATE_TEST_SUITE_P(Percent, LoggerFormatTest,
                         testing::Values(Case{"100%% used by %P", 0, "/data", AMPLE, "100% used by /data"},
                                         Case{"100%% used by %P", 0, nullptr, AMPLE, "100% used by "},
                                         Case{"100%% used by %P", 0, "/data", 19, "100% used by /data"},
                                         Case{"100%% used by %P", 0, "/data", 18, "100% used by "},
                                         Case{"%%D", 2, nullptr, AMPLE, "%D"}, Case{"%X", 0, nullptr, AMPLE, ""},
                                         Case{"a%Xb", 2, nullptr, AMPLE, "ab"}, Case{"%d%t%p", 2, "/data", AMPLE, ""},
                                         Case{"% D", 2, nullptr, AMPLE, "D"}, Case{"%X", 0, nullptr, 1, ""}));

// A lone sign never makes it read past the terminator.
INSTANTIATE_TEST_SUITE_P(LonePercent, LoggerFormatTest,
                         testing::Values(Case{"%", 0, nullptr, AMPLE, ""}, Case{"ab%", 0, nullptr, AMPLE, "ab"},
                                         Case{"ab%%%", 0, nullptr, AMPLE, "ab%"}, Case{"%", 0, nullptr, 1, ""},
                                         Case{"ab%", 0, nullptr, 3, "ab"}, Case{"%X%", 0, nullptr, AMPLE, ""}));

INSTANTIATE_TEST_SUITE_P(Parameter, LoggerFormatTest,
                         testing::Values(Case{"<%P>", 0, "", AMPLE, "<>"},
                                         Case{"<%P>", 0, "%D%s%n%", AMPLE,
                                              "<%D%s%n%>"}, // a parameter is never a template
                                         Case{"%P", 0, "\xc3\xbc", 3, "\xc3\xbc"}, Case{"%P", 0, "\xc3\xbc", 2, ""}));

TEST(LoggerFormat, LeavesABufferOfSizeZeroAlone) {
    for (const char *format : {"abc", "%D %T %P", "%%", "", "%"}) {
        const Task task = task_with(format, 2, "/data");
        char byte = UNTOUCHED;
        EXPECT_EQ(logger_format(&byte, 0, &task), 0) << format;
        EXPECT_EQ(byte, UNTOUCHED) << format;
        EXPECT_EQ(logger_format(nullptr, 0, &task), 0) << format;
    }
}

TEST(LoggerFormat, WritesTheWidestThresholdOnlyWhole) {
    Task task = task_with("%T", 2, nullptr);
    task.maxfail = std::numeric_limits<std::int32_t>::min();
    std::array<char, 12> buffer{};
    EXPECT_EQ(logger_format(buffer.data(), 12, &task), 0);
    EXPECT_STREQ(buffer.data(), "-2147483648");
    EXPECT_EQ(logger_format(buffer.data(), 11, &task), 0);
    EXPECT_STREQ(buffer.data(), "");
}

TEST(LoggerFormat, RefusesATaskWithoutTemplate) {
    const Task neither = sample_task();
    Task unflagged = task_with("%D", 0, nullptr);
    unflagged.flags &= ~std::uint32_t{TASK_HAS_FORMAT};
    const Task missing = task_with(nullptr, 0, nullptr);
    for (const Task *task : {&neither, static_cast<const Task *>(&unflagged), &missing}) {
        std::array<char, 4> buffer{UNTOUCHED, UNTOUCHED, UNTOUCHED, UNTOUCHED};
        EXPECT_EQ(logger_format(buffer.data(), buffer.size(), task), -1);
        EXPECT_THAT(buffer, ElementsAre(UNTOUCHED, UNTOUCHED, UNTOUCHED, UNTOUCHED));
        EXPECT_EQ(logger_format(buffer.data(), 0, task), -1);
    }
}

TEST(LoggerFormat, InsertsNothingForAParameterThatIsNoText) {
    Task unflagged = task_with("<%P>", 0, "/data");
    unflagged.flags &= ~std::uint32_t{TASK_HAS_PARAMETER};
    Task missing = task_with("<%P>", 0, "/data");
    missing.parameter = nullptr;
    for (const Task &task : {unflagged, missing}) {
        std::array<char, AMPLE> buffer{};
        EXPECT_EQ(logger_format(buffer.data(), buffer.size(), &task), 0);
        EXPECT_STREQ(buffer.data(), "<>");
    }
}

TEST(LoggerFormat, EndsWithTheLastByteThatItWrites) {
    struct Ending {
        const char *format;
        std::size_t size;
        std::vector<std::string> traces;
    };
    const Ending endings[]{{"%%%D", 1, {" ", "%%", ""}},
                           {"a%%%D%X", 2, {" ", "%%", "a"}},
                           {"ab%D", 2, {" ", "a"}},
                           {"a%D%X", 2, {" ", "%D", "%X", "a"}}}; // one byte is left
    for (const Ending &ending : endings) {
        const Task task = task_with(ending.format, 2, nullptr);
        std::array<char, AMPLE> buffer{};
        const CapturedTraces traces;
        logger_format(buffer.data(), ending.size, &task);
        EXPECT_EQ(traces.texts_of("logger_format"), ending.traces) << ending.format;
    }
}

TEST(LoggerFormat, TracesTheRoomThatAnInsertionFinds) {
    const Task task = task_with("ab%P", 1, "/data");
    std::array<char, 64> buffer{};
    const CapturedTraces traces;
    logger_format(buffer.data(), buffer.size(), &task);
    EXPECT_TRUE(traces.has("logger_format", "to 5(62) buf[2] 5(64)"));
}

TEST(LoggerFormat, TracesReplacementsInsertionsAndTheResult) {
    const Task task = task_with("a%D%T%P%X%%", 1, "/data");
    std::array<char, AMPLE> buffer{};
    const CapturedTraces traces;
    logger_format(buffer.data(), buffer.size(), &task);
    EXPECT_THAT(traces.texts_of("logger_format"),
                ElementsAre(" ", "%D", "%T", StartsWith("to "), "%P", StartsWith("to "), "%X", "%%", "aabove70/data%"));
    for (const CapturedTrace &line : traces.all()) {
        EXPECT_THAT(line.line, StartsWith(line.text == "aabove70/data%" ? "(2) " : "(3) "));
        EXPECT_EQ(line.code_file, "CODE_FILE=logger.c");
    }
}

} // namespace
