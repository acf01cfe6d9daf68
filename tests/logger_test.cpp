#include "logger.h"

#include "captured_syslog.h"
#include "captured_traces.h"
#include "sample_task.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::IsNull;
using testing::StartsWith;

constexpr int ERROR = 3;
constexpr int WARNING = 4;
constexpr int NOTICE = 5;
constexpr int UNKNOWN = -1;

constexpr std::size_t LONGEST_LINE = 1022; // of a 1023-byte line

/// Syslog open, every severity level passing; the configured level is restored at the end.
class LoggerTest : public testing::Test {
  protected:
    void SetUp() override {
        severity_before = gdata_record().severitylevel;
        logger_init();
        set_severity(SEVERITY_OK);
        captured = CapturedSyslog();
    }
    void TearDown() override { set_severity(severity_before); }

    /// Bypasses the setter, which would clamp it.
    static void set_severity(std::int32_t level) { gdata_record().severitylevel = level; }

    /// A marked task of CB22[3] with value 91, and limits that no two states share.
    static Task marked_task(int state) {
        Task task = sample_task();
        task.id = 22;
        task.index = 3;
        task.value = 91;
        task.minfail = -40;
        task.minwarn = 20;
        task.maxwarn = 70;
        task.maxfail = 80;
        task.state = static_cast<std::int8_t>(state);
        task.do_log = 1;
        return task;
    }

    static Task marked_task(int state, const char *format) {
        Task task = marked_task(state);
        task.flags |= TASK_HAS_FORMAT;
        task.format = format;
        return task;
    }

    /// What `operation` logs for `task`; it always clears the mark and returns 0.
    static std::vector<SyslogMessage> written_by(TaskOperation operation, Task task) {
        const CapturedSyslog fresh;
        EXPECT_EQ(operation(&task), 0);
        EXPECT_EQ(task.do_log, 0);
        return fresh.messages();
    }

    CapturedSyslog captured;
    std::int32_t severity_before = 0;
};

// --- the table and the filter

TEST_F(LoggerTest, TakesTheLastRowOfAState) {
    constexpr std::array<LoggerState, 3> table{{
        {.state = 1, .priority = 1, .label = "first", .description = ""},
        {.state = 2, .priority = 2, .label = "other", .description = ""},
        {.state = 1, .priority = 3, .label = "last", .description = ""},
    }};
    EXPECT_STREQ(logger_state_row(table, 1)->label, "last");
    EXPECT_STREQ(logger_state_row(table, 2)->label, "other");
    EXPECT_THAT(logger_state_row(table, 0), IsNull());
    EXPECT_THAT(logger_state_row({}, 1), IsNull());
}

TEST_F(LoggerTest, KnowsSevenStates) {
    struct Row {
        int state, priority;
        const char *label, *description;
    };
    constexpr std::array<Row, 7> expected{{{-2, ERROR, "failed", "minimum failure"},
                                           {-1, WARNING, "warning", "minimum warning"},
                                           {0, NOTICE, "notice", "OK"},
                                           {1, WARNING, "warning", "maximum warning"},
                                           {2, ERROR, "failed", "maximum failure"},
                                           {3, WARNING, "warning", "warning"},
                                           {4, ERROR, "fail", "fail"}}};
    for (std::size_t row = 0; row < expected.size(); ++row) {
        EXPECT_EQ(logger_state_table[row].state, expected[row].state);
        EXPECT_EQ(logger_state_table[row].priority, expected[row].priority);
        EXPECT_STREQ(logger_state_table[row].label, expected[row].label);
        EXPECT_STREQ(logger_state_table[row].description, expected[row].description);
    }
}

struct SeverityCase {
    int state;
    int priority;
    const char *line;
    std::int32_t lowest_level; ///< the first severity level that lets it pass
};

TEST_F(LoggerTest, FiltersAndLabelsByStateAtEachSeverityLevel) {
    constexpr std::array<SeverityCase, 9> cases{{{-2, ERROR, "[failed] text", 3},
                                                 {-1, WARNING, "[warning] text", 4},
                                                 {0, NOTICE, "[notice] text", 5},
                                                 {1, WARNING, "[warning] text", 4},
                                                 {2, ERROR, "[failed] text", 3},
                                                 {3, WARNING, "[warning] text", 4},
                                                 {4, ERROR, "[fail] text", 3},
                                                 {7, UNKNOWN, "[unknown] text", -1},
                                                 {-3, UNKNOWN, "[unknown] text", -1}}};
    for (std::int32_t level = -3; level <= 8; ++level) {
        set_severity(level);
        for (const SeverityCase &given : cases) {
            const CapturedSyslog fresh;
            logger_syslog(given.state, "text");
            if (level >= given.lowest_level) {
                EXPECT_THAT(fresh.messages(), ElementsAre(SyslogMessage{given.priority, given.line}))
                    << "state " << given.state << " level " << level;
            } else {
                EXPECT_THAT(fresh.messages(), IsEmpty()) << "state " << given.state << " level " << level;
            }
        }
    }
}

TEST_F(LoggerTest, NeverTakesATextAsAFormat) {
    logger_syslog(0, "%s %n %d 100%");
    EXPECT_THAT(captured.messages(), ElementsAre(SyslogMessage{NOTICE, "[notice] %s %n %d 100%"}));
    Task task = marked_task(2, "%P");
    task.flags |= TASK_HAS_PARAMETER;
    task.parameter = "%s%n%D%";
    EXPECT_THAT(written_by(threshold_logger, task),
                ElementsAre(SyslogMessage{ERROR, "[failed] ID: CB22[3]: value: 91 %s%n%D%"}));
}

TEST_F(LoggerTest, TracesOnlyWhatItWrites) {
    const CapturedTraces traces;
    set_severity(SEVERITY_FAILED);
    logger_syslog(1, "held back");
    logger_syslog(2, "written");
    EXPECT_THAT(traces.texts_of("logger_syslog"), ElementsAre(" ", " ", "======= 2: written ======="));
    EXPECT_THAT(traces.all().back().line, StartsWith("(3) "));
}

// --- the start

TEST_F(LoggerTest, NamesTheSeverityLevelByTheStateOfThatNumber) {
    struct Case {
        std::int32_t level, stored;
        const char *text;
    };
    constexpr std::array<Case, 6> cases{{{2, 2, "severity_level: failed"},
                                         {3, 3, "severity_level: warning"},
                                         {4, 4, "severity_level: fail"},
                                         {5, 5, "severity_level: unknown"},
                                         {1, 4, "severity_level: fail"}, // the setter stores 4 instead
                                         {6, 4, "severity_level: fail"}}};
    for (const Case &given : cases) {
        set_severity(given.level);
        const CapturedTraces traces;
        EXPECT_EQ(logger_init(), 0);
        EXPECT_EQ(gdata_record().severitylevel, given.stored);
        EXPECT_THAT(traces.texts_of("logger_init"), ElementsAre(" ", given.text, "DONE"));
    }
}

// --- the head of a line

TEST_F(LoggerTest, BeginsALineWithTheIssue) {
    struct Case {
        std::int32_t id, index;
        const char *expected;
    };
    constexpr std::array<Case, 5> cases{{{7, 0, "ID: CB07[0]: "},
                                         {32, 12, "ID: CB32[12]: "},
                                         {99, 4, "ID: CBnn[4]: "},
                                         {100, -1, "ID: CB100[-1]: "},
                                         {-5, 0, "ID: CB-5[0]: "}}};
    for (const Case &given : cases) {
        Task task = sample_task();
        task.id = given.id;
        task.index = given.index;
        std::array<char, 32> buffer{};
        buffer.fill('#');
        logger_id_prefix(buffer.data(), buffer.size(), &task);
        EXPECT_STREQ(buffer.data(), given.expected);
        EXPECT_EQ(buffer.back(), '\0');
    }
}

TEST_F(LoggerTest, CutsTheHeadOfALineAtItsBuffer) {
    Task task = sample_task();
    task.id = 7;
    std::array<char, 8> buffer{};
    buffer.fill('#');
    logger_id_prefix(buffer.data(), 6, &task);
    EXPECT_THAT(buffer, ElementsAre('I', 'D', ':', ' ', 'C', '\0', '#', '#'));
    buffer.fill('#');
    logger_id_prefix(buffer.data(), 1, &task);
    EXPECT_THAT(buffer, ElementsAre('\0', '#', '#', '#', '#', '#', '#', '#'));
    logger_id_prefix(buffer.data() + 1, 0, &task);
    EXPECT_THAT(buffer, ElementsAre('\0', '#', '#', '#', '#', '#', '#', '#'));
}

TEST_F(LoggerTest, BeginsALineThatShowsAValue) {
    const Task task = marked_task(0);
    std::array<char, 32> buffer{};
    TextBuffer line = logger_value_line(buffer, &task);
    line.append("units");
    EXPECT_STREQ(buffer.data(), "ID: CB22[3]: value: 91 units");
}

// --- threshold_logger

struct SentenceCase {
    int state;
    int priority;
    const char *line;
};

constexpr std::array<SentenceCase, 8> THRESHOLD_SENTENCES{{
    {-2, ERROR, "[failed] ID: CB22[3]: value: 91 is below minimum failure threshold -40"},
    {-1, WARNING, "[warning] ID: CB22[3]: value: 91 is below minimum warning threshold 20"},
    {0, NOTICE, "[notice] ID: CB22[3]: value: 91 is OK"},
    {1, WARNING, "[warning] ID: CB22[3]: value: 91 is above maximum warning threshold 70"},
    {2, ERROR, "[failed] ID: CB22[3]: value: 91 is above maximum failure threshold 80"},
    {3, WARNING, "[warning] ID: CB22[3]: value: 91 is above warning threshold 80"},
    {4, ERROR, "[fail] ID: CB22[3]: value: 91 is above fail threshold 80"},
    {7, UNKNOWN, "[unknown] ID: CB22[3]: value: 91 is above unknown threshold 80"},
}};

TEST_F(LoggerTest, ThresholdSaysWhereTheValueIs) {
    for (const SentenceCase &given : THRESHOLD_SENTENCES) {
        EXPECT_THAT(written_by(threshold_logger, marked_task(given.state)),
                    ElementsAre(SyslogMessage{given.priority, given.line}));
    }
}

TEST_F(LoggerTest, ThresholdTakesAnUnknownNegativeStateAsBelow) {
    EXPECT_THAT(written_by(threshold_logger, marked_task(-3)),
                ElementsAre(SyslogMessage{UNKNOWN, "[unknown] ID: CB22[3]: value: 91 is below unknown threshold 80"}));
}

TEST_F(LoggerTest, ThresholdFillsInTheIssueAndTheLimit) {
    Task task = marked_task(1);
    task.id = 3;
    task.index = 0;
    task.maxwarn = 85;
    EXPECT_THAT(
        written_by(threshold_logger, task),
        ElementsAre(SyslogMessage{WARNING, "[warning] ID: CB03[0]: value: 91 is above maximum warning threshold 85"}));
}

TEST_F(LoggerTest, ThresholdAppendsTheTemplate) {
    EXPECT_THAT(written_by(threshold_logger, marked_task(1, "load %D %T.")),
                ElementsAre(SyslogMessage{WARNING, "[warning] ID: CB22[3]: value: 91 load above 70."}));
    EXPECT_THAT(written_by(threshold_logger, marked_task(1, "%X")),
                ElementsAre(SyslogMessage{WARNING, "[warning] ID: CB22[3]: value: 91 "}));
}

TEST_F(LoggerTest, ThresholdTakesAnEmptyOrUnflaggedTemplateAsNone) {
    Task unflagged = marked_task(0, "ignored");
    unflagged.flags &= ~std::uint32_t{TASK_HAS_FORMAT};
    for (const Task &task : {marked_task(0, ""), marked_task(0, nullptr), unflagged}) {
        EXPECT_THAT(written_by(threshold_logger, task),
                    ElementsAre(SyslogMessage{NOTICE, "[notice] ID: CB22[3]: value: 91 is OK"}));
    }
}

TEST_F(LoggerTest, ThresholdCutsAnEndlessTemplateAtItsLine) {
    const std::string endless(3000, 'x');
    const std::string head = "ID: CB22[3]: value: 91 ";
    const std::string line = head + std::string(LONGEST_LINE - head.size(), 'x');
    EXPECT_THAT(written_by(threshold_logger, marked_task(0, endless.c_str())),
                ElementsAre(SyslogMessage{NOTICE, "[notice] " + line}));
}

TEST_F(LoggerTest, ThresholdLeavesOutAParameterThatDoesNotFit) {
    const std::string head = "ID: CB22[3]: value: 91 ";
    const std::string longest(LONGEST_LINE - head.size(), 'x');
    Task task = marked_task(0, "%P");
    task.flags |= TASK_HAS_PARAMETER;
    task.parameter = longest.c_str();
    EXPECT_THAT(written_by(threshold_logger, task), ElementsAre(SyslogMessage{NOTICE, "[notice] " + head + longest}));
    const std::string longer = longest + "x";
    task.parameter = longer.c_str();
    EXPECT_THAT(written_by(threshold_logger, task), ElementsAre(SyslogMessage{NOTICE, "[notice] " + head}));
}

TEST_F(LoggerTest, ThresholdTracesTheIssueAndTheState) {
    Task task = marked_task(-1);
    const CapturedTraces traces;
    threshold_logger(&task);
    EXPECT_THAT(traces.texts_of("threshold_logger"), ElementsAre(" ", "ID: CB22[3], state: -1"));
}

TEST_F(LoggerTest, CommonLogsAsThreshold) {
    for (const SentenceCase &given : THRESHOLD_SENTENCES) {
        EXPECT_THAT(written_by(common_logger, marked_task(given.state)),
                    ElementsAre(SyslogMessage{given.priority, given.line}));
    }
    Task task = marked_task(0);
    const CapturedTraces traces;
    common_logger(&task);
    EXPECT_THAT(traces.texts_of("common_logger"), ElementsAre(" "));
    EXPECT_THAT(traces.texts_of("threshold_logger"), ElementsAre(" ", "ID: CB22[3], state: 0"));
}

// --- bool_logger

TEST_F(LoggerTest, BoolTellsGoodFromBad) {
    constexpr std::array<SentenceCase, 8> cases{{{0, NOTICE, "[notice] ID: CB22[3]: OK"},
                                                 {-2, ERROR, "[failed] ID: CB22[3]: failed"},
                                                 {-1, WARNING, "[warning] ID: CB22[3]: failed"},
                                                 {1, WARNING, "[warning] ID: CB22[3]: failed"},
                                                 {2, ERROR, "[failed] ID: CB22[3]: failed"},
                                                 {3, WARNING, "[warning] ID: CB22[3]: failed"},
                                                 {4, ERROR, "[fail] ID: CB22[3]: failed"},
                                                 {7, UNKNOWN, "[unknown] ID: CB22[3]: failed"}}};
    for (const SentenceCase &given : cases) {
        EXPECT_THAT(written_by(bool_logger, marked_task(given.state)),
                    ElementsAre(SyslogMessage{given.priority, given.line}));
    }
}

TEST_F(LoggerTest, BoolPutsTheTemplateInPlaceOfTheHead) {
    EXPECT_THAT(written_by(bool_logger, marked_task(2, "%D")), ElementsAre(SyslogMessage{ERROR, "[failed] above"}));
    EXPECT_THAT(written_by(bool_logger, marked_task(0, "%X")), ElementsAre(SyslogMessage{NOTICE, "[notice] "}));
    const std::string endless(3000, 'x');
    EXPECT_THAT(written_by(bool_logger, marked_task(0, endless.c_str())),
                ElementsAre(SyslogMessage{NOTICE, "[notice] " + std::string(LONGEST_LINE, 'x')}));
}

TEST_F(LoggerTest, BoolTakesAnEmptyOrUnflaggedTemplateAsNone) {
    Task unflagged = marked_task(0, "ignored");
    unflagged.flags &= ~std::uint32_t{TASK_HAS_FORMAT};
    for (const Task &task : {marked_task(0, ""), marked_task(0, nullptr), unflagged}) {
        EXPECT_THAT(written_by(bool_logger, task), ElementsAre(SyslogMessage{NOTICE, "[notice] ID: CB22[3]: OK"}));
    }
}

TEST_F(LoggerTest, BoolTracesTheIssueAndTheState) {
    Task task = marked_task(2);
    const CapturedTraces traces;
    bool_logger(&task);
    EXPECT_THAT(traces.texts_of("bool_logger"), ElementsAre(" ", "ID: CB22[3], state: 2"));
}

// The sentence begins with CBnn.
TEST_F(LoggerTest, TracesShowTheNumberOfAnUnsetId) {
    for (const TaskOperation operation : {threshold_logger, bool_logger, NULL_logger}) {
        Task task = marked_task(2);
        task.id = TASK_ID_UNSET;
        const CapturedTraces traces;
        operation(&task);
        EXPECT_EQ(std::count_if(traces.all().begin(), traces.all().end(),
                                [](const CapturedTrace &t) { return t.text.ends_with("ID: CB99[3], state: 2"); }),
                  1);
    }
}

// --- NULL_logger

TEST_F(LoggerTest, NullSkipsWhatIsMarkedInAnyWay) {
    for (const int mark : {1, 2, 255}) {
        Task task = marked_task(2);
        task.do_log = static_cast<std::uint8_t>(mark);
        const CapturedTraces traces;
        EXPECT_THAT(written_by(NULL_logger, task), IsEmpty());
        EXPECT_THAT(traces.texts_of("NULL_logger"), ElementsAre(" ", "skip logging ID: CB22[3], state: 2"));
    }
}

TEST_F(LoggerTest, NullIsSilentAboutWhatIsNotMarked) {
    Task task = marked_task(2);
    task.do_log = 0;
    const CapturedTraces traces;
    EXPECT_THAT(written_by(NULL_logger, task), IsEmpty());
    EXPECT_THAT(traces.texts_of("NULL_logger"), ElementsAre(" "));
}

// --- marks

TEST_F(LoggerTest, OperationsActOnAMarkOfOneOnlyAndClearAnyMark) {
    for (const TaskOperation operation : {bool_logger, threshold_logger, common_logger}) {
        for (const int mark : {0, 2, 255}) {
            Task task = marked_task(2, "%D");
            task.do_log = static_cast<std::uint8_t>(mark);
            EXPECT_THAT(written_by(operation, task), IsEmpty());
        }
    }
}

// --- the dispatcher

int fail_with_5_leaving_the_mark(Task *task) {
    task->do_log = 1;
    return 5;
}

TEST_F(LoggerTest, DispatcherRunsTheOperationAndClearsTheMark) {
    Task task = marked_task(2);
    task.logging = {.run = fail_with_5_leaving_the_mark, .name = "sample"};
    EXPECT_EQ(logger(&task), 5);
    EXPECT_EQ(task.do_log, 0);

    task = marked_task(2, "%D");
    task.logging = {.run = bool_logger, .name = "bool"};
    EXPECT_EQ(logger(&task), 0);
    EXPECT_THAT(captured.messages(), ElementsAre(SyslogMessage{ERROR, "[failed] above"}));
}

TEST_F(LoggerTest, DispatcherLeavesTheMarkOfATaskWithoutOperation) {
    Task task = marked_task(2);
    EXPECT_EQ(logger(&task), -1);
    EXPECT_EQ(task.do_log, 1);
    EXPECT_THAT(captured.messages(), IsEmpty());
}

} // namespace
