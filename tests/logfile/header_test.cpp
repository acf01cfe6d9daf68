#include "logfile.h"

#include "logfile/header.h"
#include "logfile_rig.h"
#include "memory_fault.h"
#include "sample_task.h"
#include "tasks.h"

#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *HEADINGS = "##\tname        \t    ID\t    ID\tinter-\t   min\t   min\t   max\t   max\tparam\n"
                                 "##\t            \t      \t index\t   val\t  fail\t  warn\t  warn\t  fail\t\n";
constexpr const char *RECORD_HEADING = "## date    time    \tstate\tID\tindex\tvalue\n";

/// A header with the current time and no tasks.
std::string empty_header(const std::string &occasion) {
    return "##\n##\t<time>\t" + occasion + "\tvigmond\n##\n" + HEADINGS + RECORD_HEADING;
}

// --- the block's text

using HeaderTextTest = LogfileTest;

TEST_F(HeaderTextTest, OfTheBuiltInTableIsTheGoldenOne) {
    gdata_record().tasks = builtin_tasks();
    set_commandline({"/usr/bin/vigmond", "-S", "200"});
    const std::string golden = read_file(GOLDEN_FOLDER "/logfile_header.txt");
    ASSERT_FALSE(golden.empty());
    EXPECT_EQ(logfile_header_text("<time>", "START").get(), golden);
}

TEST_F(HeaderTextTest, WithoutTasksHasMarkerAndHeadingsOnly) {
    EXPECT_EQ(logfile_header_text("<time>", "ROTATE").get(), empty_header("ROTATE"));
}

/// The line of a header whose only task is `task`.
std::string line_of(Task task) {
    gdata_record().tasks = {.first = &task, .last = &task, .count = 1};
    std::string text = logfile_header_text("<time>", "START").get();
    gdata_record().tasks = {};
    const std::string before = std::string("##\n##\t<time>\tSTART\tvigmond\n##\n") + HEADINGS;
    const std::string after = RECORD_HEADING;
    if (!text.starts_with(before) || !text.ends_with(after)) {
        return text;
    }
    return text.substr(before.size(), text.size() - before.size() - after.size());
}

/// A task with a different number for every threshold but only the flags `flags`.
Task numbered_task(std::uint32_t flags) {
    Task task = sample_task();
    task.flags = flags;
    task.id = 7;
    task.index = 1;
    task.interval = 2;
    task.minfail = 3;
    task.minwarn = 4;
    task.maxwarn = 5;
    task.maxfail = 6;
    task.parameter = "param";
    return task;
}

TEST_F(HeaderTextTest, ShowsEachNumberOnlyWithItsFlag) {
    struct Case {
        std::uint32_t flag;
        const char *columns;
    };
    for (const Case &each : {
             Case{0, "   NaN\t   NaN\t   NaN\t   NaN\t   NaN"},
             Case{TASK_HAS_INTERVAL, "     2\t   NaN\t   NaN\t   NaN\t   NaN"},
             Case{TASK_HAS_MINFAIL, "   NaN\t     3\t   NaN\t   NaN\t   NaN"},
             Case{TASK_HAS_MINWARN, "   NaN\t   NaN\t     4\t   NaN\t   NaN"},
             Case{TASK_HAS_MAXWARN, "   NaN\t   NaN\t   NaN\t     5\t   NaN"},
             Case{TASK_HAS_MAXFAIL, "   NaN\t   NaN\t   NaN\t   NaN\t     6"},
             Case{TASK_HAS_PARAMETER, "   NaN\t   NaN\t   NaN\t   NaN\t   NaN\tparam"},
         }) {
        EXPECT_EQ(line_of(numbered_task(each.flag)),
                  std::string("##\tsample      \t  CB07\t     1\t") + each.columns + "\n");
    }
}

TEST_F(HeaderTextTest, ShowsATaskWithoutAnIdAsCBnn) {
    Task task = numbered_task(0);
    task.id = 99;
    EXPECT_EQ(line_of(task), "##\tsample      \t  CBnn\t     1\t   NaN\t   NaN\t   NaN\t   NaN\t   NaN\n");
}

TEST_F(HeaderTextTest, ShowsTheNumericParameterOfId19WhateverItsFlags) {
    Task task = numbered_task(0);
    task.id = 19;
    EXPECT_EQ(line_of(task), "##\tsample      \t  CB19\t     1\t   NaN\t   NaN\t   NaN\t   NaN\t   NaN\t3\n");
    task.flags = TASK_HAS_PARAMETER | TASK_HAS_MINFAIL;
    EXPECT_EQ(line_of(task), "##\tsample      \t  CB19\t     1\t   NaN\t     3\t   NaN\t   NaN\t   NaN\t3\n");
}

TEST_F(HeaderTextTest, LetsWideEntriesPushTheirColumnOut) {
    Task task = numbered_task(TASK_HAS_INTERVAL);
    task.name = "a_name_of_more_than_12";
    task.interval = -2147483647;
    EXPECT_EQ(line_of(task),
              "##\ta_name_of_more_than_12\t  CB07\t     1\t-2147483647\t   NaN\t   NaN\t   NaN\t   NaN\n");
}

TEST_F(HeaderTextTest, TakesAMissingTextAsEmpty) {
    Task task = numbered_task(TASK_HAS_PARAMETER);
    task.name = nullptr;
    task.parameter = nullptr;
    EXPECT_EQ(line_of(task), "##\t            \t  CB07\t     1\t   NaN\t   NaN\t   NaN\t   NaN\t   NaN\t\n");
}

TEST_F(HeaderTextTest, TakesTheCommandLineAsItIs) {
    set_commandline({"vigmond", "-L", "tab\there\nand %s"});
    EXPECT_EQ(logfile_header_text("<time>", "START").get(),
              std::string("##\n##\t<time>\tSTART\tvigmond \"-L\" \"tab\there\nand %s\"\n##\n") + HEADINGS +
                  RECORD_HEADING);
}

TEST_F(HeaderTextTest, TakesACommandLineThatWasLostAsEmpty) {
    {
        const MemoryFault fault(1);
        set_commandline({"vigmond"});
    }
    ASSERT_EQ(gdata_get_commandline(), nullptr);
    EXPECT_EQ(logfile_header_text("<time>", "START").get(),
              std::string("##\n##\t<time>\tSTART\t\n##\n") + HEADINGS + RECORD_HEADING);
}

TEST_F(HeaderTextTest, IsNoneWithoutMemory) {
    const MemoryFault fault(1);
    EXPECT_EQ(logfile_header_text("<time>", "START"), nullptr);
}

// --- the block in the file

using HeaderTest = LogfileTest;

TEST_F(HeaderTest, SaysStartOnceAndThenRotate) {
    lf_header(path.c_str());
    EXPECT_EQ(log(), empty_header("START"));
    lf_header(path.c_str());
    lf_header(path.c_str());
    EXPECT_EQ(log(), empty_header("START") + empty_header("ROTATE") + empty_header("ROTATE"));
    EXPECT_EQ(traces.texts_of("lf_header").size(), 3U);
}

TEST_F(HeaderTest, IsAppended) {
    folder.write("logfile", "what stood there\n");
    lf_header(path.c_str());
    EXPECT_EQ(log(), "what stood there\n" + empty_header("START"));
}

TEST_F(HeaderTest, IsWrittenNowhereWhenTheFileCannotBeOpened) {
    lf_header((folder / "missing/logfile").c_str());
    EXPECT_EQ(logfile_state().logfile_header_written, 0);
    EXPECT_FALSE(std::filesystem::exists(folder / "missing"));
    lf_header(path.c_str()); // and then is not the first header
    EXPECT_EQ(log(), empty_header("START"));
}

TEST_F(HeaderTest, IsOmittedWithoutMemory) {
    {
        const MemoryFault fault(1);
        lf_header(path.c_str());
        ASSERT_TRUE(MemoryFault::happened());
    }
    EXPECT_EQ(log(), "");
    EXPECT_EQ(logfile_state().logfile_header_written, 0);
}

// --- logfile_init

using LogfileInitTest = LogfileTest;

TEST_F(LogfileInitTest, WritesTheFirstHeaderAndOpensNoStream) {
    EXPECT_EQ(logfile_state().logfile_initialised, 0);
    start(path.c_str());
    EXPECT_EQ(log(), empty_header("START"));
    EXPECT_STREQ(logfile_state().logfile_name.get(), path.c_str());
    EXPECT_NE(logfile_state().logfile_name.get(), path.c_str()) << "not a copy";
    EXPECT_EQ(logfile_state().logfile_initialised, 1);
    EXPECT_FALSE(logfile_state().logfile_stream);
}

TEST_F(LogfileInitTest, RemovesTheLeftoverOfAKilledRotation) {
    start("/dev/null");
    EXPECT_THAT(rotations().leftovers, IsEmpty());
    logfile_state() = {};
    start(path.c_str());
    EXPECT_THAT(rotations().leftovers, ElementsAre(path));
}

TEST_F(LogfileInitTest, ActsOnce) {
    start(path.c_str());
    gdata_record().loglevel = 1;
    const std::string other = folder / "other";
    start(other.c_str());
    EXPECT_EQ(log(), empty_header("START"));
    EXPECT_FALSE(std::filesystem::exists(other));
    EXPECT_EQ(logfile_state().loglevel, 3);
}

TEST_F(LogfileInitTest, StaysOffWhenTheFileCannotBeOpened) {
    for (const std::string &name : {folder / "missing/logfile", folder.path().string(), std::string()}) {
        logfile_state() = {};
        start(name.c_str());
        EXPECT_EQ(logfile_state().logfile_name, nullptr) << name;
        EXPECT_EQ(logfile_state().logfile_initialised, 1);
    }
    std::filesystem::create_directory(folder / "missing");
    lf_print(0, "x", 0);
    EXPECT_FALSE(std::filesystem::exists(folder / "missing/logfile"));
}

TEST_F(LogfileInitTest, StaysOffWithoutAName) {
    start(nullptr);
    EXPECT_EQ(logfile_state().logfile_name, nullptr);
    EXPECT_EQ(logfile_state().logfile_initialised, 1);
    EXPECT_TRUE(traces.has("logfile_init", "level: 3 file: (null) size: 8388608 count: 20"));
}

TEST_F(LogfileInitTest, StaysOffWithoutMemoryForTheName) {
    {
        const MemoryFault fault(1);
        start(path.c_str());
        ASSERT_TRUE(MemoryFault::happened());
    }
    EXPECT_EQ(log(), "");
    lf_print(0, "x", 0);
    EXPECT_EQ(log(), "");
}

TEST_F(LogfileInitTest, ClampsTheSettings) {
    EXPECT_EQ(logfile_state().loglevel, 3);
    EXPECT_EQ(logfile_state().logsize, 1048576);
    EXPECT_EQ(logfile_state().logcount, 10);
    gdata_record().loglevel = 4;
    gdata_record().logsize = 1;
    gdata_record().logcount = -1;
    start("stderr");
    EXPECT_EQ(logfile_state().loglevel, 2);
    EXPECT_EQ(logfile_state().logsize, 10240);
    EXPECT_EQ(logfile_state().logcount, 0);
    EXPECT_EQ(gdata_record().logsize, 10240);
    EXPECT_THAT(traces.texts_of("logfile_init"), ElementsAre(" ", "level: 2 file: stderr size: 10240 count: 0"));
}

TEST_F(LogfileInitTest, ReadsCountSizeAndLevelInThisOrderAfterTheHeader) {
    start(path.c_str());
    std::vector<std::string> functions;
    for (const CapturedTrace &trace : traces.all()) {
        if (trace.function.starts_with("gdata_set_log") || trace.function == "lf_header") {
            functions.push_back(trace.function);
        }
    }
    EXPECT_THAT(functions, ElementsAre("lf_header", "gdata_set_logcount", "gdata_set_logsize", "gdata_set_loglevel"));
}

TEST_F(LogfileInitTest, LeavesNoDescriptorBehind) {
    const auto descriptors = [] {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    const auto before = descriptors();
    start(path.c_str());
    EXPECT_EQ(descriptors(), before);
}

} // namespace
