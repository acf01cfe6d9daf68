#include "gdata.h"

#include "captured_traces.h"
#include "in_child.h"
#include "sample_task.h"
#include "scratch_folder.h"
#include "tasks.h"

#include <array>
#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

const std::string SEP = "########################################\n"; // 40 characters

std::string dump() {
    testing::internal::CaptureStdout();
    EXPECT_EQ(gdata_config_print(), 0);
    return testing::internal::GetCapturedStdout();
}

/// Restores the settings.
class DumpTest : public testing::Test {
  public:
    ~DumpTest() override { gdata_record() = saved_; }

  protected:
    DumpTest() : saved_(gdata_record()) {}

    /// The dump of these tasks, from the line with their count.
    static std::string dump_tasks(std::vector<Task> tasks) {
        for (std::size_t i = 0; i < tasks.size(); ++i) {
            tasks[i].next = i + 1 < tasks.size() ? &tasks[i + 1] : nullptr;
        }
        gdata_set_tasks({.first = &tasks.front(), .last = &tasks.back(), .count = static_cast<int>(tasks.size())});
        const std::string text = dump();
        const std::size_t start = text.find("#   tasklist[");
        EXPECT_NE(start, std::string::npos);
        return start == std::string::npos ? "" : text.substr(start);
    }

    /// The dump of one task.
    static std::string dump_task(const Task &task) {
        const std::string text = dump_tasks({task});
        const std::string head = "#   tasklist[1]\n" + SEP + "\n#    task 1\n{\n";
        const std::string tail = "}\n\n" + SEP + "#   end tasklist\n" + SEP;
        EXPECT_TRUE(text.starts_with(head)) << text;
        EXPECT_TRUE(text.ends_with(tail)) << text;
        return text.size() < head.size() + tail.size()
                   ? text
                   : text.substr(head.size(), text.size() - head.size() - tail.size());
    }

  private:
    GlobalData saved_;
};

Task task_with(std::uint32_t flags) {
    Task task = sample_task();
    task.flags = flags;
    return task;
}

TEST_F(DumpTest, ShowsTheBuiltInSettings) {
    EXPECT_EQ(dump(), SEP + "#   global data\n" + SEP +
                          "\n"
                          "#   logging configuration\n"
                          "logfile:        \"/var/lib/evse/vigmond/logfile\"\n"
                          "logcount:       20\n"
                          "logsize:        8192K\n"
                          "loglevel:       OK\n"
                          "\n"
                          "#   syslog severity\n"
                          "severitylevel:  OK\n"
                          "\n"
                          "#   the dbus path vigmond listens/talking too\n"
                          "dbus_busname:   \"com.corvana.vigmond\"\n"
                          "dbus_path:      \"/com/corvana/Monitoring1\"\n"
                          "dbus_if:        \"com.corvana.State2.Issues\"\n"
                          "\n"
                          "#   heartbeat\n"
                          "intervalsteps:  10\n"
                          "interval:       10\n"
                          "\n"
                          "#   default handlers and configuration\n"
                          "analyze:        common\n"
                          "notify:         common\n"
                          "logging:        common\n"
                          "hysteresis:     0\n"
                          "\n" +
                          SEP + "#   end global data\n" + SEP + SEP + "#   tasklist[0]\n" + SEP + "\n" + SEP +
                          "#   end tasklist\n" + SEP);
}

TEST_F(DumpTest, ShowsTheSettingsInForce) {
    GlobalData &data = gdata_record();
    data.logfile = "/tmp/a \"quoted\" \\path";
    data.logcount = 3;
    data.logsize = 204799; // 199.999 K
    data.loglevel = 1;
    data.severitylevel = 3;
    data.dbus_busname = "b";
    data.dbus_path = "/p";
    data.dbus_if = "i";
    data.intervalsteps = 7;
    data.interval = 4;
    data.hysteresis = -2;
    const std::string text = dump();
    for (const char *lines : {"logfile:        \"/tmp/a \"quoted\" \\path\"\n", "logcount:       3\n",
                              "logsize:        199K\n", "loglevel:       fail\n", "severitylevel:  failed\n",
                              "dbus_busname:   \"b\"\ndbus_path:      \"/p\"\ndbus_if:        \"i\"\n",
                              "intervalsteps:  7\ninterval:       4\n", "hysteresis:     -2\n"}) {
        EXPECT_NE(text.find(lines), std::string::npos) << lines;
    }
}

TEST_F(DumpTest, NamesTheLevels) {
    EXPECT_STREQ(gdata_loglevel_name(1), "fail");
    EXPECT_STREQ(gdata_loglevel_name(2), "warning");
    EXPECT_STREQ(gdata_severitylevel_name(2), "critical");
    EXPECT_STREQ(gdata_severitylevel_name(3), "failed");
    EXPECT_STREQ(gdata_severitylevel_name(4), "warning");
    for (const int other : {-1, 0, 3, 4, 9}) {
        EXPECT_STREQ(gdata_loglevel_name(other), "OK") << other;
    }
    for (const int other : {-1, 0, 1, 5, 9}) {
        EXPECT_STREQ(gdata_severitylevel_name(other), "OK") << other;
    }
}

TEST_F(DumpTest, OmitsDefaultHandlersWithoutAName) {
    GlobalData &data = gdata_record();
    data.analyze = "";
    data.notify = nullptr;
    EXPECT_NE(dump().find("#   default handlers and configuration\nlogging:        common\nhysteresis:     0\n"),
              std::string::npos);
    data.logging = "";
    data.notify = "mine";
    EXPECT_NE(dump().find("#   default handlers and configuration\nnotify:         mine\nhysteresis:     0\n"),
              std::string::npos);
}

TEST_F(DumpTest, NormalisesSettingsOutOfRange) {
    GlobalData &data = gdata_record();
    data.severitylevel = 9;
    data.logcount = 500;
    data.logsize = 1;
    data.loglevel = 0;
    const CapturedTraces traces;
    const std::string text = dump();
    for (const char *line :
         {"severitylevel:  warning\n", "logcount:       128\n", "logsize:        10K\n", "loglevel:       warning\n"}) {
        EXPECT_NE(text.find(line), std::string::npos) << line;
    }
    EXPECT_EQ(data.severitylevel, 4);
    EXPECT_EQ(data.logcount, 128);
    EXPECT_EQ(data.logsize, 10240);
    EXPECT_EQ(data.loglevel, 2);
}

TEST_F(DumpTest, PassesTheFourSettingsThroughTheirSetters) {
    const CapturedTraces traces;
    dump();
    std::vector<std::string> functions;
    for (const CapturedTrace &trace : traces.all()) {
        functions.push_back(trace.function);
    }
    EXPECT_EQ(functions, (std::vector<std::string>{"gdata_config_print", "gdata_get_severitylevel",
                                                   "gdata_set_severitylevel", "gdata_get_logcount",
                                                   "gdata_set_logcount", "gdata_get_logsize", "gdata_set_logsize",
                                                   "gdata_get_loglevel", "gdata_set_loglevel", "gdata_config_print"}));
    EXPECT_EQ(traces.texts_of("gdata_config_print"), (std::vector<std::string>{" ", "DONE"}));
    EXPECT_EQ(traces.all().front().code_file, "CODE_FILE=gdata.c");
    EXPECT_EQ(traces.all().front().line.substr(0, 4), "(3) ");
    EXPECT_EQ(traces.all().back().line.substr(0, 4), "(3) ");
}

TEST_F(DumpTest, ShowsTheFirstBuiltInTask) {
    const Task first = *builtin_tasks().first;
    EXPECT_EQ(dump_task(first), "    source:         temperature\n"
                                "    ID:             CB20\n"
                                "    parameter:      \"/sys/class/thermal/thermal_zone0/temp\"\n"
                                "    interval:       10\n"
                                "    maxfail:        80\n"
                                "    maxwarn:        70\n"
                                "    minwarn:        -30\n"
                                "    minfail:        -40\n"
                                "    hysteresis:     5\n"
                                "    delay:          5\n"
                                "    analyze:        common\n"
                                "    notify:         common\n"
                                "    logging:        common\n"
                                "    format:         \"CPU temperature %D %T threshold.\"\n");
}

TEST_F(DumpTest, OmitsWhatATaskDoesNotHave) {
    EXPECT_EQ(dump_task(task_with(0)), "");
    const Task *task = builtin_tasks().first;
    while (std::string_view(task->source) != "memoryusage") {
        task = task->next;
    }
    EXPECT_EQ(dump_task(*task), "    source:         memoryusage\n" // no parameter
                                "    ID:             CB21\n"
                                "    interval:       10\n"
                                "    minwarn:        25\n"
                                "    minfail:        10\n"
                                "    hysteresis:     10\n"
                                "    delay:          5\n"
                                "    analyze:        threshold\n"
                                "    notify:         common\n"
                                "    logging:        threshold\n"
                                "    format:         \"free memory %D %T threshold.\"\n");
}

TEST_F(DumpTest, EachFieldDependsOnItsOwnFlag) {
    Task task{};
    task.source = "s";
    task.analyze.name = "a";
    task.notify.name = "n";
    task.logging.name = "l";
    task.parameter = "p";
    task.format = "f";
    task.id = 1;
    task.interval = 2;
    task.minfail = 3;
    task.minwarn = 4;
    task.maxwarn = 5;
    task.maxfail = 6;
    task.hysteresis = 7;
    task.delay = 8;
    struct Case {
        std::uint32_t flag;
        const char *line;
    };
    for (const Case &c : {Case{TASK_HAS_SOURCE, "    source:         s\n"},
                          {TASK_HAS_ID, "    ID:             CB01\n"},
                          {TASK_HAS_PARAMETER, "    parameter:      \"p\"\n"},
                          {TASK_HAS_INTERVAL, "    interval:       2\n"},
                          {TASK_HAS_MINFAIL, "    minfail:        3\n"},
                          {TASK_HAS_MINWARN, "    minwarn:        4\n"},
                          {TASK_HAS_MAXWARN, "    maxwarn:        5\n"},
                          {TASK_HAS_MAXFAIL, "    maxfail:        6\n"},
                          {TASK_HAS_HYSTERESIS, "    hysteresis:     7\n"},
                          {TASK_HAS_DELAY, "    delay:          8\n"},
                          {TASK_HAS_ANALYZE, "    analyze:        a\n"},
                          {TASK_HAS_NOTIFY, "    notify:         n\n"},
                          {TASK_HAS_LOGGING, "    logging:        l\n"},
                          {TASK_HAS_FORMAT, "    format:         \"f\"\n"}}) {
        task.flags = c.flag;
        EXPECT_EQ(dump_task(task), c.line);
    }
}

TEST_F(DumpTest, ShowsTheIdWithTwoDigitsAndTheUnsetOneAsLetters) {
    struct Case {
        std::int32_t id;
        const char *line;
    };
    for (const Case &c : {Case{0, "    ID:             CB00\n"},
                          {9, "    ID:             CB09\n"},
                          {32, "    ID:             CB32\n"},
                          {98, "    ID:             CB98\n"},
                          {99, "    ID:             CBnn\n"},
                          {100, "    ID:             CB100\n"}}) {
        Task task = task_with(TASK_HAS_ID);
        task.id = c.id;
        EXPECT_EQ(dump_task(task), c.line);
    }
}

TEST_F(DumpTest, Id19ShowsMinfailAsItsParameterWhateverTheFlags) {
    Task task = task_with(0);
    task.id = 19;
    task.minfail = -7;
    task.parameter = "text";
    EXPECT_EQ(dump_task(task), "    parameter:      \"-7\"\n");
    task.flags = TASK_HAS_SOURCE | TASK_HAS_ID | TASK_HAS_PARAMETER | TASK_HAS_INTERVAL;
    EXPECT_EQ(dump_task(task), "    source:         sample\n"
                               "    ID:             CB19\n"
                               "    parameter:      \"-7\"\n"
                               "    parameter:      \"text\"\n"
                               "    interval:       0\n");
}

TEST_F(DumpTest, ShowsTheCountThatTheListKeeps) {
    Task only = task_with(0);
    gdata_set_tasks({.first = &only, .last = &only, .count = 7});
    EXPECT_NE(dump().find("#   tasklist[7]\n" + SEP + "\n#    task 1\n{\n}\n\n" + SEP), std::string::npos);
}

TEST_F(DumpTest, EscapesNothing) {
    Task task = task_with(TASK_HAS_PARAMETER | TASK_HAS_FORMAT);
    task.parameter = "a\"b\\c\td";
    task.format = "%d %s \"\n";
    EXPECT_EQ(dump_task(task), "    parameter:      \"a\"b\\c\td\"\n"
                               "    format:         \"%d %s \"\n\"\n");
}

TEST_F(DumpTest, NumbersTheTasksFrom1InListOrder) {
    Task first = task_with(TASK_HAS_SOURCE);
    Task second = task_with(TASK_HAS_SOURCE);
    first.source = "one";
    second.source = "two";
    EXPECT_EQ(dump_tasks({first, second}), "#   tasklist[2]\n" + SEP +
                                               "\n"
                                               "#    task 1\n"
                                               "{\n"
                                               "    source:         one\n"
                                               "}\n"
                                               "\n"
                                               "#    task 2\n"
                                               "{\n"
                                               "    source:         two\n"
                                               "}\n"
                                               "\n" +
                                               SEP + "#   end tasklist\n" + SEP);
}

using Blocks = std::vector<std::string>;

/// The first line of each flush of stdout.
Blocks flushed_by(const std::function<void()> &print) {
    Blocks blocks;
    const auto keep = [](void *all, const char *bytes, std::size_t size) {
        const std::string text(bytes, size);
        static_cast<Blocks *>(all)->push_back(text.substr(0, text.find('\n') + 1));
        return static_cast<ssize_t>(size);
    };
    std::FILE *const pages =
        fopencookie(&blocks, "w", {.read = nullptr, .write = keep, .seek = nullptr, .close = nullptr});
    std::setvbuf(pages, nullptr, _IOFBF, 65536);
    std::FILE *const console = std::exchange(stdout, pages);
    print();
    stdout = console;
    std::fclose(pages);
    return blocks;
}

TEST_F(DumpTest, IsFlushedAfterEachBlock) {
    std::array<Task, 2> tasks{task_with(TASK_HAS_SOURCE), task_with(TASK_HAS_SOURCE)};
    tasks[0].next = &tasks[1];
    gdata_set_tasks({.first = tasks.data(), .last = &tasks.back(), .count = 2});
    EXPECT_EQ(flushed_by([] { gdata_config_print(); }),
              (Blocks{SEP, "#   logging configuration\n", "#   syslog severity\n",
                      "#   the dbus path vigmond listens/talking too\n", "#   heartbeat\n",
                      "#   default handlers and configuration\n", SEP, SEP, "#    task 1\n", "#    task 2\n", SEP}));
}

TEST_F(DumpTest, NothingIsLeftInTheBuffer) {
    const ScratchFolder folder;
    in_child([&] {
        const int console = dup(STDOUT_FILENO);
        const int file = open((folder / "dump").c_str(), O_WRONLY | O_CREAT, 0600);
        dup2(file, STDOUT_FILENO);
        gdata_config_print();
        const std::string written = read_file(folder / "dump");
        dup2(console, STDOUT_FILENO);
        EXPECT_TRUE(written.ends_with("#   end tasklist\n" + SEP));
    });
}

} // namespace
