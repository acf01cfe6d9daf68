#include "captured_traces.h"
#include "heap.h"
#include "link_probe_test.h"
#include "memory_fault.h"
#include "probe_read.h"
#include "redirected_open.h"
#include "scratch_folder.h"

#include <cerrno>
#include <cmath>
#include <gmock/gmock.h>
#include <string>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr std::int32_t HARDWARE = 1;
constexpr std::int32_t LINK = 2;
constexpr std::int32_t QUALITY = 4;
constexpr std::int32_t STRENGTH = 9;
constexpr std::int32_t IDS[]{HARDWARE, LINK, QUALITY, STRENGTH};

constexpr int QUALITY_WORD = 2;
constexpr int LEVEL_WORD = 3;

const char *const HEADING = "Inter-| sta-|   Quality        |   Discarded packets               | Missed | WE\n"
                            " face | tus | link level noise |  nwid  crypt   frag  retry   misc | beacon | 22\n";

/// A line of the kernel's table.
std::string table_line(const std::string &name, const std::string &quality, const std::string &level) {
    return name + ": 0000   " + quality + "  " + level + "  -256        0      0      0      0     45        0\n";
}

struct Parsed {
    bool usable;
    double number;
};

Parsed parse(std::string line, int word, const char *device = "wlan0sta") {
    Parsed parsed{false, 1234};
    parsed.usable = wireless_parse_line(line.data(), device, word, &parsed.number);
    return parsed;
}

// --- a line of the table

TEST(WirelessParseLine, TakesTheQualityOrTheLevel) {
    const std::string line = table_line("wlan0sta", "70.", "-40.");
    EXPECT_TRUE(parse(line, QUALITY_WORD).usable);
    EXPECT_EQ(parse(line, QUALITY_WORD).number, 70);
    EXPECT_TRUE(parse(line, LEVEL_WORD).usable);
    EXPECT_EQ(parse(line, LEVEL_WORD).number, -40);
}

TEST(WirelessParseLine, SkipsWhatIsNotALineOfTheDevice) {
    for (const std::string &line :
         {std::string(), std::string("\n"), std::string(HEADING), table_line("wlan0", "70.", "-40."),
          table_line("wlan0sta1", "70.", "-40."), table_line("xwlan0sta", "70.", "-40."),
          std::string("wlan0sta 0000 70. -40. -256\n"), std::string("wlan0sta:0000 70. -40. -256 0\n"),
          std::string("wlan0sta: 0000 70. -40.\n")}) { // four words
        EXPECT_FALSE(parse(line, QUALITY_WORD).usable) << line;
        EXPECT_FALSE(parse(line, LEVEL_WORD).usable) << line;
    }
}

TEST(WirelessParseLine, NeedsFiveWordsAndANameBeforeTheColon) {
    EXPECT_EQ(parse("wlan0sta: 0000 70. -40. -256", QUALITY_WORD).number, 70);
    EXPECT_TRUE(parse("x: 0000 70. -40. -256", QUALITY_WORD, "x").usable);
    EXPECT_FALSE(parse(": 0000 70. -40. -256", QUALITY_WORD, "").usable);
}

TEST(WirelessParseLine, IgnoresTheCaseOfTheName) {
    EXPECT_TRUE(parse(table_line("WLAN0sta", "70.", "-40."), QUALITY_WORD, "wlan0STA").usable);
}

TEST(WirelessParseLine, ReadsOnlyEightWords) {
    std::string line = "wlan0sta: 0000 70. -40. -256 5 6 7 8 9\n";
    double number = 0;
    EXPECT_TRUE(wireless_parse_line(line.data(), "wlan0sta", QUALITY_WORD, &number));
    EXPECT_NE(line.find("8 9\n"), std::string::npos) << line; // uncut after the eighth
}

TEST(WirelessParseLine, ConvertsTheStartOfTheWord) {
    struct Case {
        const char *word;
        double number;
    };
    for (const Case &given :
         {Case{"70.", 70}, Case{"-55.5", -55.5}, Case{"+5", 5}, Case{"12x", 12}, Case{"0x10", 16}, Case{"1e2", 100},
          Case{"2147483647", 2147483647}, Case{"-2147483648", -2147483648.0}, Case{"0", 0}}) {
        const Parsed parsed = parse(table_line("wlan0sta", given.word, "x"), QUALITY_WORD);
        EXPECT_TRUE(parsed.usable) << given.word;
        EXPECT_EQ(parsed.number, given.number) << given.word;
    }
}

TEST(WirelessParseLine, RejectsWhatIsNotANumberOrExceeds32Bits) {
    for (const char *word : {"x", "-", ".", "inf", "-inf", "nan", "1e300", "-1e300", "2147483648", "-2147483649"}) {
        EXPECT_FALSE(parse(table_line("wlan0sta", word, "-40."), QUALITY_WORD).usable) << word;
        EXPECT_FALSE(parse(table_line("wlan0sta", "70.", word), LEVEL_WORD).usable) << word;
        EXPECT_TRUE(parse(table_line("wlan0sta", word, "-40."), LEVEL_WORD).usable) << word;
    }
}

TEST(WirelessRound, RoundsHalfAwayFromZero) {
    struct Case {
        double level;
        std::int32_t value;
    };
    for (const Case &given : {Case{-55.5, -56}, Case{-55.4, -55}, Case{-40, -40}, Case{0.5, 1}, Case{0.4, 0},
                              Case{-0.5, -1}, Case{-0.4, 0}, Case{0, 0}, Case{1.5, 2}, Case{2.5, 3}, Case{-2.5, -3},
                              Case{2147483647.4, INT32_MAX}, Case{-2147483648.4, INT32_MIN}}) {
        const Reading reading = wireless_round(given.level);
        EXPECT_EQ(reading.error, 0) << given.level;
        EXPECT_EQ(reading.value, given.value) << given.level;
    }
}

TEST(WirelessRound, FailsOutside32Bits) {
    for (const double level : {2147483647.5, -2147483648.5, 1e300, -1e300, HUGE_VAL, -HUGE_VAL, std::nan("")}) {
        EXPECT_EQ(wireless_round(level).error, EINVAL) << level;
    }
}

// --- records

/// The start of a record.
struct RecordKey {
    std::int32_t id;
    std::int32_t index;
};

TEST(WirelessCompare, MatchesRecordsOfTheSameIdAndIndex) {
    const RecordKey record{4, 1};
    const RecordKey same{4, 1};
    const RecordKey other_id{9, 1};
    const RecordKey other_index{4, 2};
    EXPECT_EQ(wp_cmp(&record, &same), 1);
    EXPECT_EQ(wp_cmp(&record, &other_id), 0);
    EXPECT_EQ(wp_cmp(&record, &other_index), 0);
    EXPECT_EQ(wp_cmp(nullptr, &same), 0);
    EXPECT_EQ(wp_cmp(&record, nullptr), 0);
    EXPECT_EQ(wp_cmp(nullptr, nullptr), 0);
}

class WirelessTest : public LinkProbeTest {
  protected:
    /// A task with its own record for `parameter`, which must outlive the task.
    static Task wireless_task(std::int32_t id, const char *parameter, std::int32_t index = 3) {
        Task task = link_task(id, parameter);
        task.index = index;
        EXPECT_EQ(wireless_init(&task), 0);
        return task;
    }

    void show(const std::string &table) { open.redirect("/proc/net/wireless", folder.write("wireless", table)); }

    ScratchFolder folder;
    RedirectedOpen open;
};

TEST_F(WirelessTest, InitMarksTheTaskAndInstallsTheRunCondition) {
    constexpr std::uint32_t others = 0xfffffff4U; // all but 0, 1 and 3
    for (const std::int32_t id : IDS) {
        for (const std::uint32_t given : {0U, 0xbU, 2U, others, 0xffffffffU}) {
            Task task = link_task(id, "wlan0sta");
            task.flags = given;
            EXPECT_EQ(wireless_init(&task), 0);
            EXPECT_EQ(task.flags, (given & others) | TASK_INITIALISED | TASK_HAS_PRECONDITION);
            ASSERT_NE(task.precondition, nullptr);
        }
    }
}

TEST_F(WirelessTest, PreconditionIsAlwaysMet) {
    Task task = wireless_task(QUALITY, "wlan0sta");
    for (const std::int32_t flag : {0, 1}) {
        wifi_available = flag;
        const CapturedTraces traces;
        EXPECT_EQ(task.precondition(&task), 1);
        EXPECT_THAT(traces.texts_of("wireless_active"), ElementsAre(" "));
    }
}

TEST_F(WirelessTest, InitRefusesAnyOtherId) {
    for (const std::int32_t id : {0, 3, 5, 10, 99, -1}) {
        Task task = link_task(id, "wlan0sta");
        const std::uint32_t flags = task.flags;
        const CapturedTraces traces;
        EXPECT_EQ(wireless_init(&task), -1);
        EXPECT_EQ(task.flags, flags);
        EXPECT_EQ(task.precondition, nullptr);
        EXPECT_THAT(traces.texts_of("wireless_init"), ElementsAre(" ", "wrong id: " + std::to_string(id)));
        EXPECT_THAT(traces.all()[1].line, StartsWith("(3) "));
    }
}

TEST_F(WirelessTest, InitWithoutMemoryLeavesNothingBehind) {
    constexpr std::int32_t index = 4711; // used by no other test
    struct Case {
        int allocation;
        const char *text;
    };
    for (const Case &given : {Case{1, "no memory"}, Case{2, "create failed"}, Case{3, "no memory"}}) {
        Task task = link_task(LINK, "wlan0sta");
        task.index = index;
        const std::uint32_t flags = task.flags;
        const CapturedTraces traces;
        {
            const MemoryFault fault(given.allocation);
            EXPECT_EQ(wireless_init(&task), -1);
            EXPECT_TRUE(MemoryFault::happened());
        }
        EXPECT_EQ(task.flags, flags);
        EXPECT_EQ(task.precondition, nullptr);
        EXPECT_EQ(traces.texts_of("wireless_init").back(), given.text);
        EXPECT_EQ(wireless_exec(&task), -1);
        EXPECT_EQ(traces.texts_of("wireless_psearch").back(), "MISSING");
    }
}

/// The heap in use after an init whose n-th allocation failed.
std::size_t heap_after_failed_init(int allocation) {
    Task task = sample_task();
    task.id = LINK;
    task.parameter = "wlan0sta";
    {
        const MemoryFault fault(allocation);
        wireless_init(&task);
    }
    const CapturedTraces none;
    return heap_in_use();
}

TEST_F(WirelessTest, InitWithoutMemoryFreesWhatItAllocated) {
    for (const int allocation : {1, 2, 3}) {
        heap_after_failed_init(allocation); // let the test's own trace buffers grow first
        const std::size_t before = heap_after_failed_init(allocation);
        EXPECT_EQ(heap_after_failed_init(allocation), before) << allocation;
    }
}

TEST_F(WirelessTest, BuildsThePathFromTheInterfaceUnlessTheParameterIsAPath) {
    struct Case {
        std::int32_t id;
        const char *file;
    };
    const std::string path = folder / "status";
    for (const Case &given :
         {Case{HARDWARE, "/sys/class/net/wlan7/operstate 1"}, Case{LINK, "/sys/class/net/wlan7/operstate 2"},
          Case{QUALITY, "/proc/net/wireless wlan7"}, Case{STRENGTH, "/proc/net/wireless wlan7"}}) {
        const CapturedTraces traces;
        Task by_name = wireless_task(given.id, "wlan7");
        EXPECT_TRUE(traces.has("wireless_init", "create filename"));
        wireless_exec(&by_name);
        const char *step = given.id == QUALITY    ? "wireless_quality"
                           : given.id == STRENGTH ? "wireless_strength"
                                                  : "wireless_state";
        EXPECT_TRUE(traces.has(step, given.file)) << given.id;

        const CapturedTraces traces_of_path;
        Task by_path = wireless_task(given.id, path.c_str());
        EXPECT_FALSE(traces_of_path.has("wireless_init", "create filename"));
        wireless_exec(&by_path);
        EXPECT_THAT(traces_of_path.texts_of(step).front(), StartsWith(path + " "));
    }
}

TEST_F(WirelessTest, BuildsTheWholePathForANameOfAnyLength) {
    const std::string name(300, 'w');
    Task task = wireless_task(LINK, name.c_str());
    open.redirect("/sys/class/net/" + name + "/operstate", folder.write("operstate", "up\n"));
    expect_measured(wireless_exec, task, 0);
}

TEST_F(WirelessTest, UsesTheRecordOfTheTaskInitialisedLast) {
    const std::string up = folder.write("first", "up\n");
    const std::string down = folder.write("second", "down\n");
    const Task first = wireless_task(LINK, up.c_str(), 50);
    expect_measured(wireless_exec, first, 0);
    const Task second = wireless_task(LINK, down.c_str(), 50);
    expect_measured(wireless_exec, second, 1);
    expect_measured(wireless_exec, first, 1);
}

TEST_F(WirelessTest, KeepsTheRecordsOfOtherIdsAndIndices) {
    const std::string up = folder.write("first", "up\n");
    const std::string down = folder.write("second", "down\n");
    const Task task = wireless_task(LINK, up.c_str(), 60);
    wireless_task(LINK, down.c_str(), 61);
    wireless_task(QUALITY, down.c_str(), 60);
    expect_measured(wireless_exec, task, 0);
}

TEST_F(WirelessTest, FailsWithoutAnErrorNumberWhenTheRecordIsMissing) {
    Task task = link_task(QUALITY, "wlan0sta");
    task.index = 4712;
    task.error = 0;
    task.flags |= TASK_VALUE_VALID;
    task.do_logfile = 0;
    const CapturedTraces traces;
    EXPECT_EQ(wireless_exec(&task), -1);
    EXPECT_EQ(task.error, 0);
    EXPECT_EQ(task.value, STALE_VALUE);
    EXPECT_TRUE(task_has(&task, TASK_VALUE_VALID)); // only a run with a record clears it
    EXPECT_EQ(task.do_logfile, 1);
    EXPECT_THAT(traces.texts_of("wireless_psearch"), ElementsAre("ID: 4, ID_ndx: 4712", "MISSING"));
    EXPECT_THAT(traces.texts_of("wireless_exec"), ElementsAre(" ", "CB04 4712: FAILED"));
}

// --- hardware and link

TEST_F(WirelessTest, HardwareIsThereWhenTheFileOpensWhateverItSays) {
    for (const char *content : {"up\n", "down\n", "", "garbage"}) {
        const std::string file = folder.write("operstate", content);
        expect_measured(wireless_exec, wireless_task(HARDWARE, file.c_str()), 0);
    }
}

TEST_F(WirelessTest, HardwareIsMissingWhenTheFileDoesNotOpenForAnyReason) {
    const Task task = wireless_task(HARDWARE, "wlan0sta");
    for (const int error : {ENOENT, EACCES, EMFILE, 0}) {
        open.fail(error);
        expect_measured(wireless_exec, task, 1);
    }
}

TEST_F(WirelessTest, LinkFollowsTheFirstLine) {
    struct Case {
        std::string content;
        std::int32_t value;
    };
    const Case cases[]{{"up\n", 0},       {"UP\n", 0},
                       {"up", 0},         {"upside down\n", 0},
                       {"down\n", 1},     {"dormant\n", 1},
                       {"unknown\n", 1},  {" up\n", 1},
                       {"\nup\n", 1},     {"u", 1},
                       {"down\nup\n", 1}, {"\xff\xfe", 1},
                       {"u\np", 1},       {"up" + std::string(5000, 'x'), 0}};
    for (const Case &given : cases) {
        const std::string file = folder.write("operstate", given.content);
        expect_measured(wireless_exec, wireless_task(LINK, file.c_str()), given.value);
    }
}

TEST_F(WirelessTest, LinkFailsWith22WithoutAFirstLine) {
    const std::string empty = folder.write("operstate", "");
    expect_failed(wireless_exec, wireless_task(LINK, empty.c_str()), 22);
    expect_failed(wireless_exec, wireless_task(LINK, folder.path().c_str()), 22); // opens, but cannot be read
    const Task task = wireless_task(LINK, empty.c_str());
    for (const int error : {ENOENT, EACCES, 0}) {
        open.fail(error);
        const CapturedTraces traces;
        expect_failed(wireless_exec, task, 22);
        EXPECT_EQ(traces.texts_of("wireless_state").back(), "CB02 FAILED!");
    }
}

// --- quality and strength

TEST_F(WirelessTest, MeasuresTheDeviceOfTheTask) {
    show(HEADING + table_line("wlan1", "1.", "-1.") + table_line("wlan0sta", "70.", "-40."));
    expect_measured(wireless_exec, wireless_task(QUALITY, "wlan0sta"), 70);
    expect_measured(wireless_exec, wireless_task(STRENGTH, "wlan0sta"), -40);
    expect_measured(wireless_exec, wireless_task(QUALITY, "WLAN0STA"), 70);
}

TEST_F(WirelessTest, TracesNoFailureOfWhatItHasMeasured) {
    show(table_line("wlan0sta", "70.", "-40."));
    const CapturedTraces traces;
    expect_measured(wireless_exec, wireless_task(QUALITY, "wlan0sta"), 70);
    expect_measured(wireless_exec, wireless_task(STRENGTH, "wlan0sta"), -40);
    EXPECT_THAT(traces.texts_of("wireless_quality"), ElementsAre("/proc/net/wireless wlan0sta"));
    EXPECT_THAT(traces.texts_of("wireless_strength"),
                ElementsAre("/proc/net/wireless wlan0sta", "value: -40 (-40.500000), level: -40.000000"));
}

TEST_F(WirelessTest, TruncatesTheQualityAndRoundsTheStrength) {
    struct Case {
        const char *number;
        std::int32_t quality;
        std::int32_t strength;
    };
    for (const Case &given : {Case{"-55.5", -55, -56}, Case{"-55.4", -55, -55}, Case{"0.5", 0, 1}, Case{"69.9", 69, 70},
                              Case{"-0.9", 0, -1}, Case{"30", 30, 30}}) {
        show(table_line("wlan0sta", given.number, given.number));
        expect_measured(wireless_exec, wireless_task(QUALITY, "wlan0sta"), given.quality);
        expect_measured(wireless_exec, wireless_task(STRENGTH, "wlan0sta"), given.strength);
    }
}

TEST_F(WirelessTest, APathAsParameterIsTheFileAndTheDeviceOfItsLines) {
    const std::string path = folder / "table";
    folder.write("table", table_line(path, "33.", "-44."));
    expect_measured(wireless_exec, wireless_task(QUALITY, path.c_str()), 33);
    expect_measured(wireless_exec, wireless_task(STRENGTH, path.c_str()), -44);
    folder.write("table", table_line("wlan0sta", "33.", "-44."));
    expect_failed(wireless_exec, wireless_task(QUALITY, path.c_str()), 22);
}

TEST_F(WirelessTest, ContinuesWithTheNextLineAfterAnUnusableOne) {
    show(table_line("wlan0sta", "x", "1e300") + "wlan0sta: 0000 1. 2.\n" + table_line("wlan0sta", "60.", "-50.") +
         table_line("wlan0sta", "20.", "-20."));
    expect_measured(wireless_exec, wireless_task(QUALITY, "wlan0sta"), 60);
    expect_measured(wireless_exec, wireless_task(STRENGTH, "wlan0sta"), -50);
}

TEST_F(WirelessTest, ReadsTheTableInPiecesOf1023Characters) {
    show(std::string(1023, 'x') + table_line("wlan0sta", "70.", "-40."));
    expect_measured(wireless_exec, wireless_task(QUALITY, "wlan0sta"), 70);
    show(std::string(1022, 'x') + table_line("wlan0sta", "70.", "-40."));
    expect_failed(wireless_exec, wireless_task(QUALITY, "wlan0sta"), 22); // the first piece took the "w"
}

TEST_F(WirelessTest, FailsWith22WithoutAUsableLine) {
    for (const std::string &table :
         {std::string(), std::string(HEADING), table_line("wlan1", "70.", "-40."), table_line("wlan0sta", "x", "x"),
          std::string("wlan0sta: 0000 70. -40.\n"), std::string(5000, 'x')}) {
        show(table);
        const CapturedTraces traces;
        expect_failed(wireless_exec, wireless_task(QUALITY, "wlan0sta"), 22);
        EXPECT_EQ(traces.texts_of("wireless_quality").back(), "CB04 FAILED!");
        expect_failed(wireless_exec, wireless_task(STRENGTH, "wlan0sta"), 22);
        EXPECT_EQ(traces.texts_of("wireless_strength").back(), "CB09 FAILED!");
    }
}

TEST_F(WirelessTest, QualityFailsWithTheErrorOfTheOpenAndStrengthWith22) {
    const Task quality = wireless_task(QUALITY, "wlan0sta");
    const Task strength = wireless_task(STRENGTH, "wlan0sta");
    for (const int error : {ENOENT, EACCES, EMFILE}) {
        open.fail(error);
        const CapturedTraces traces;
        expect_failed(wireless_exec, quality, error);
        EXPECT_EQ(traces.texts_of("wireless_quality").back(), "CB04 FAILED!");
        expect_failed(wireless_exec, strength, 22);
        EXPECT_EQ(traces.texts_of("wireless_strength").back(), "CB09 FAILED!");
    }
}

TEST_F(WirelessTest, CountsAFailedOpenWithoutErrorNumberAsZero) {
    open.fail(0);
    expect_measured(wireless_exec, wireless_task(QUALITY, "wlan0sta"), 0);
    expect_measured(wireless_exec, wireless_task(STRENGTH, "wlan0sta"), 0);
}

TEST_F(WirelessTest, TracesALevelAboveZeroRoundedUp) {
    show(table_line("wlan0sta", "70.", "55.5"));
    Task task = wireless_task(STRENGTH, "wlan0sta");
    const CapturedTraces traces;
    EXPECT_EQ(wireless_exec(&task), 0);
    EXPECT_TRUE(traces.has("wireless_strength", "value: 56 (56.000000), level: 55.500000"));
}

TEST_F(WirelessTest, TracesARun) {
    show(table_line("wlan0sta", "70.", "-55.4"));
    Task task = wireless_task(STRENGTH, "wlan0sta");
    const CapturedTraces traces;
    EXPECT_EQ(wireless_exec(&task), 0);
    EXPECT_THAT(traces.texts_of("wireless_exec"), ElementsAre(" ", "CB09 3: FOUND", "wlan0sta: -55"));
    EXPECT_THAT(traces.texts_of("wireless_psearch"), ElementsAre("ID: 9, ID_ndx: 3", "FOUND"));
    EXPECT_THAT(traces.texts_of("d_list_search"), testing::SizeIs(3)); // the head, the newest record, which matches
    EXPECT_THAT(traces.texts_of("wireless_strength"),
                ElementsAre("/proc/net/wireless wlan0sta", "value: -55 (-55.900000), level: -55.400000"));
    EXPECT_EQ(traces.all()[0].code_file, "CODE_FILE=builtin/wireless.c");
    EXPECT_THAT(traces.all()[0].line, StartsWith("(2) "));
}

// --- the path switched off

TEST_F(WirelessTest, SkipsItsRunWhileTheWifiIsSwitchedOff) {
    show(table_line("wlan0sta", "70.", "-40."));
    for (const std::int32_t id : IDS) {
        Task task = wireless_task(id, "wlan0sta");
        for (const std::int32_t flag : {0, 2, -1}) {
            wifi_available = flag;
            task.error = 0;
            task.do_logfile = 1;
            const CapturedTraces traces;
            EXPECT_EQ(wireless_exec(&task), -1);
            EXPECT_EQ(task.error, SWITCHED_OFF);
            EXPECT_EQ(task.do_logfile, 0);
            EXPECT_EQ(task.value, STALE_VALUE);
            EXPECT_FALSE(task_has(&task, TASK_VALUE_VALID));
            EXPECT_THAT(traces.texts_of("wireless_exec"), ElementsAre(" "));
        }
        wifi_available = 1;
    }
    EXPECT_EQ(open.count(), 0);
}

TEST_F(WirelessTest, IgnoresTheLan) {
    lan_available = 0;
    show(table_line("wlan0sta", "70.", "-40."));
    expect_measured(wireless_exec, wireless_task(QUALITY, "wlan0sta"), 70);
}

// --- the logger

TEST_F(WirelessTest, LogsTheSentenceOfTheIssue) {
    struct Case {
        std::int32_t id;
        std::string head;
        const char *good;
        const char *bad;
    };
    const Case cases[]{
        {HARDWARE, "CB01", "Wireless hardware is available.", "Wireless hardware is not available."},
        {LINK, "CB02", "Wireless hardware is working.", "Wireless hardware is not working."},
        {QUALITY, "CB04", "Wireless Signal quality is sufficiant.", "Wireless Signal quality is insufficiant."},
        {STRENGTH, "CB09", "Wireless signal strength is sufficiant.", "Wireless signal strength is insufficiant."}};
    for (const Case &given : cases) {
        const std::string head = "ID: " + given.head + "[2]: value: 5 ";
        const CapturedTraces traces;
        EXPECT_THAT(written_by(wireless_logger, given.id, 0),
                    ElementsAre(SyslogMessage{PRIORITY_NOTICE, "[notice] " + head + given.good}));
        EXPECT_TRUE(traces.has("wireless_logger", "Issue " + given.head));
        for (const int state : {-2, -1, 1, 2, 4}) {
            EXPECT_THAT(written_by(wireless_logger, given.id, state),
                        ElementsAre(SyslogMessage{PRIORITY_FAILED, "[failed] " + head + given.bad}));
        }
    }
}

TEST_F(WirelessTest, LogsNothingForAnyOtherIdAndClearsTheMark) {
    for (const std::int32_t id : {0, 3, 10, 99}) {
        const CapturedTraces traces;
        EXPECT_THAT(written_by(wireless_logger, id, 2), IsEmpty());
        EXPECT_THAT(traces.texts_of("wireless_logger"), ElementsAre(" ", "unknown"));
    }
}

TEST_F(WirelessTest, LogsNothingUnlessMarked) {
    for (const std::int32_t id : IDS) {
        expect_silent_unless_marked(wireless_logger, id);
    }
}

/// What a marked quality task in `state` with `format` in its format slot logs.
std::vector<SyslogMessage> written_with_format(const char *format, bool has_format, std::int8_t state = 1,
                                               std::int32_t id = QUALITY) {
    Task task = sample_task();
    task.id = id;
    task.value = -7;
    task.state = state;
    task.do_log = 1;
    task.format = format;
    if (has_format) {
        task.flags |= TASK_HAS_FORMAT;
    }
    const CapturedSyslog syslog;
    EXPECT_EQ(wireless_logger(&task), 0);
    EXPECT_EQ(task.do_log, 0);
    return syslog.messages();
}

TEST_F(WirelessTest, LogsTheFormatSlotInPlaceOfTheSentence) {
    EXPECT_THAT(written_with_format("wlan0sta", true),
                ElementsAre(SyslogMessage{PRIORITY_FAILED, "[failed] ID: CB04[0]: value: -7 wlan0sta: "}));
    EXPECT_THAT(written_with_format("wlan0sta", true, 0),
                ElementsAre(SyslogMessage{PRIORITY_NOTICE, "[notice] ID: CB04[0]: value: -7 wlan0sta: "}));
    EXPECT_THAT(written_with_format("%P %v %s", true), // not a template
                ElementsAre(SyslogMessage{PRIORITY_FAILED, "[failed] ID: CB04[0]: value: -7 %P %v %s: "}));
    EXPECT_THAT(written_with_format("wlan0sta", true, 1, 3), // also for an id without a sentence
                ElementsAre(SyslogMessage{PRIORITY_FAILED, "[failed] ID: CB03[0]: value: -7 wlan0sta: "}));
}

TEST_F(WirelessTest, LogsTheSentenceWithoutAFormat) {
    const SyslogMessage sentence{PRIORITY_FAILED,
                                 "[failed] ID: CB04[0]: value: -7 Wireless Signal quality is insufficiant."};
    EXPECT_THAT(written_with_format("wlan0sta", false), ElementsAre(sentence));
    EXPECT_THAT(written_with_format("", true), ElementsAre(sentence));
    EXPECT_THAT(written_with_format(nullptr, true), ElementsAre(sentence));
}

TEST_F(WirelessTest, CutsTheLineToABufferOf1023) {
    const std::string head = "ID: CB04[0]: value: -7 ";
    const std::string format(3000, 'w');
    const std::string cut = head + std::string(1022 - head.size(), 'w'); // and the terminator
    EXPECT_THAT(written_with_format(format.c_str(), true),
                ElementsAre(SyslogMessage{PRIORITY_FAILED, "[failed] " + cut}));
}

} // namespace
