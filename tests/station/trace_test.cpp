// The destinations of the trace and the format of its lines.

#include "passes.h"
#include "station.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::IsSupersetOf;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::vector<std::string> functions_of(const std::vector<JournalRecord> &records) {
    std::vector<std::string> functions;
    std::transform(records.begin(), records.end(), std::back_inserter(functions),
                   [](const JournalRecord &record) { return record["CODE_FUNC"]; });
    return functions;
}

} // namespace

TEST(DebugMode, SendsNothingToTheJournal) {
    Station station;
    station.start({"-D"});
    EXPECT_THAT(functions_of(station.journal()), ElementsAre("main")) << "the option had not been read yet";
    station.forget();
    station.step(3);
    EXPECT_EQ(station.stop(), 1);
    EXPECT_THAT(functions_of(station.journal()), IsEmpty());
    EXPECT_THAT(station.trace().messages_of("cleanup"), Contains("DONE"));
}

TEST(DebugMode, StartsAtTheOption) {
    Station station;
    station.start({"-S", "200", "-D", "-C", "3"});
    const std::vector<std::string> before = functions_of(station.journal());
    EXPECT_EQ(before.front(), "main");
    EXPECT_EQ(before.back(), "gdata_set_logsize");
    ASSERT_FALSE(station.trace().lines().empty());
    EXPECT_EQ(station.trace().lines().front().function, "gdata_set_logcount");
    EXPECT_EQ(station.trace().lines().front().message, "cnt: 3");
}

TEST(JournalMode, WritesNothingToStderr) {
    Station station;
    station.start({});
    station.step(3);
    EXPECT_EQ(station.stop(), 1);
    EXPECT_EQ(station.trace().text(), "");
    EXPECT_THAT(functions_of(station.journal()), IsSupersetOf({"main", "scheduler", "temperature_exec", "cleanup"}));
}

// The journal drops white space from the end of a message.
TEST(JournalMode, SendsTheWholeLineWithItsPlaceAndPriority) {
    Station station;
    station.start({});
    ASSERT_FALSE(station.journal().empty());
    std::set<int> levels;
    const std::map<int, std::string> priorities{{0, "5"}, {1, "6"}, {2, "7"}, {3, "7"}};
    for (const JournalRecord &record : station.journal()) {
        const auto trace = parse_trace_line(record["MESSAGE"]);
        ASSERT_TRUE(trace) << record["MESSAGE"];
        EXPECT_EQ(record["PRIORITY"], priorities.at(trace->level)) << record["MESSAGE"];
        EXPECT_EQ(record["CODE_FILE"], trace->file);
        EXPECT_EQ(record["CODE_LINE"], std::to_string(trace->line));
        EXPECT_EQ(record["CODE_FUNC"], trace->function);
        EXPECT_EQ(record["SYSLOG_IDENTIFIER"], "vigmond");
        EXPECT_EQ(trace->time, "12:00:07");
        levels.insert(trace->level);
    }
    EXPECT_THAT(levels, ElementsAre(1, 2, 3));
}

TEST(JournalMode, SendsTheHighestLevelAsANotice) {
    Station station;
    station.start({});
    station.forget();
    EXPECT_EQ(station.run({}).status, 255);
    const JournalRecord &last = station.journal().back();
    EXPECT_EQ(last["PRIORITY"], "5");
    EXPECT_THAT(last["MESSAGE"], MatchesRegex("\\(0\\) \\[[0-9]+\\] 12:00:07 vigmond\\.c: main\\([0-9]+\\) vigmond is "
                                              "already running --> terminating"));
}

TEST(JournalMode, NamesTheAnalyzersPlace) {
    Station station;
    station.start({});
    const auto record = std::find_if(station.journal().begin(), station.journal().end(),
                                     [](const JournalRecord &r) { return r["CODE_FUNC"] == "threshold_analyzer"; });
    ASSERT_NE(record, station.journal().end());
    EXPECT_EQ((*record)["CODE_FILE"], "analyzer.c");
    EXPECT_EQ((*record)["CODE_LINE"], "90");
    EXPECT_THAT((*record)["MESSAGE"],
                MatchesRegex("\\(2\\) \\[[0-9]+\\] 12:00:07 analyzer\\.c: threshold_analyzer\\(90\\)"));
}

TEST(StartUp, RunsItsStepsInOrder) {
    Station station;
    station.start({});
    const JournalRecord &first = station.journal().front();
    EXPECT_EQ(first["PRIORITY"], "6");
    EXPECT_THAT(first["MESSAGE"], MatchesRegex("\\(1\\) \\[[0-9]+\\] 12:00:07 vigmond\\.c: main\\([0-9]+\\)"));
    const std::set<std::string> steps{"main",           "usage",       "gdata_set_commandline",
                                      "is_single_proc", "signal_init", "timer_init",
                                      "process_init",   "init",        "scheduler"};
    std::vector<std::string> taken;
    for (const std::string &function : functions_of(station.journal())) {
        if (steps.contains(function) && (taken.empty() || taken.back() != function)) {
            taken.push_back(function);
        }
    }
    ASSERT_GE(taken.size(), 10U);
    taken.resize(10);
    EXPECT_THAT(taken, ElementsAre("main", "usage", "gdata_set_commandline", "main", "is_single_proc", "signal_init",
                                   "timer_init", "process_init", "init", "scheduler"));
}

TEST(TraceMode, IsTracedAtTheStart) {
    Station debug;
    debug.start({"-D"});
    EXPECT_THAT(debug.trace().messages_of("main"), ElementsAre("DBG TRACE"));

    Station journal;
    journal.start({});
    const auto &records = journal.journal();
    EXPECT_TRUE(std::any_of(records.begin(), records.end(), [](const JournalRecord &record) {
        return record["CODE_FUNC"] == "main" && record["PRIORITY"] == "6" && record["MESSAGE"].ends_with(") DBG DEBUG");
    }));
}

TEST(TraceLines, AllHaveTheFormatExceptTheEmptyOneOfTheWait) {
    Station station;
    station.start();
    station.step(3);
    const std::vector<std::string> lines = lines_of(station.trace().text());
    std::size_t empty = 0;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].empty()) {
            ASSERT_GT(i, 0U);
            if (lines[i - 1].find("Connection Error (") ==
                std::string::npos) { // ends in a line feed too, without a bus
                EXPECT_THAT(lines[i - 1], MatchesRegex(".*timer\\.c: runrun_wait\\([0-9]+\\) "));
                ++empty;
            }
        } else {
            EXPECT_THAT(lines[i],
                        MatchesRegex("\\([0-3]\\) \\[[0-9]+\\] 12:00:(07|10) [a-z_/-]+\\.c: [a-z_A-Z]+\\([0-9]+\\) .+"
                                     "|.*runrun_wait\\([0-9]+\\) "));
        }
    }
    EXPECT_EQ(empty, 2U) << "one per pass";
}

TEST(TraceLines, OfAnEntryEndWithTheBlankMessage) {
    Station station;
    station.start();
    const std::string thread = "[" + std::to_string(station.pid()) + "]";
    for (const char *place : {"init.c: init", "timer.c: timer_init", "scheduler.c: scheduler", "executer.c: executer",
                              "analyzer.c: threshold_analyzer", "analyzer.c: common_analyzer"}) {
        const std::vector<std::string> lines = lines_of(station.trace().text());
        const auto entry = std::find_if(lines.begin(), lines.end(), [place](const std::string &line) {
            return line.find(std::string(" ") + place + "(") != std::string::npos;
        });
        ASSERT_NE(entry, lines.end()) << place;
        EXPECT_THAT(*entry, EndsWith(")  ")) << "the blank of the prefix and the message";
        EXPECT_THAT(entry->substr(4), StartsWith(thread)) << "the main thread has the process id";
    }
}

TEST(TraceLines, ShowUtcWhateverTheTimeZone) {
    Station station;
    station.environment = {"TZ=XXX-5:30"};
    station.start();
    EXPECT_THAT(pass_times(station.trace()), ElementsAre("12:00:07"));
    EXPECT_EQ(station.trace().lines().front().time, "12:00:07");
}

TEST(TraceLines, AreCutAt1023Characters) {
    Station station;
    station.start({"-D", std::string(3000, 'x')});
    const std::vector<std::string> lines = lines_of(station.trace().text());
    const auto longest = std::max_element(
        lines.begin(), lines.end(), [](const std::string &a, const std::string &b) { return a.size() < b.size(); });
    EXPECT_EQ(longest->size(), 1023U);
    EXPECT_THAT(*longest, MatchesRegex(".*gdata_commandline: 'vigmond \"-D\" \"x+"));
}

TEST(TraceLines, NameTheModulesUsedByLogFilters) {
    Station station;
    station.start();
    station.stop();
    std::set<std::string> files;
    std::map<std::string, std::string> file_of;
    for (const TraceLine &line : station.trace().lines()) {
        files.insert(line.file);
        file_of[line.function] = line.file;
    }
    EXPECT_THAT(files, IsSupersetOf({"vigmond.c", "init.c", "cleanup.c", "gdata.c", "timer.c", "scheduler.c",
                                     "executer.c", "analyzer.c", "logger.c", "notifier.c", "logfile.c", "dbus-srv.c",
                                     "network.c", "process.c"}));
    for (const char *probe : {"bluetooth", "diskusage", "ethernet", "internet", "load", "memoryusage", "service",
                              "temperature", "wearout", "wireless"}) {
        EXPECT_EQ(file_of[std::string(probe) + "_init"], "builtin/" + std::string(probe) + ".c");
    }
    EXPECT_EQ(file_of["main"], "vigmond.c");
    EXPECT_EQ(file_of["usage"], "vigmond.c");
    EXPECT_EQ(file_of["is_single_proc"], "vigmond.c");
    EXPECT_EQ(file_of["signal_init"], "vigmond.c");
    EXPECT_EQ(file_of["sig_exit_handler"], "vigmond.c");
    EXPECT_EQ(file_of["runrun_wait"], "timer.c");
    EXPECT_EQ(file_of["common_analyzer"], "analyzer.c");
}

TEST(Dump, IsTracedAsPartOfTheSettings) {
    Station station;
    TraceLog trace;
    trace.append(station.run({"-D", "-d"}).err);
    EXPECT_THAT(trace.messages_of("gdata_config_print"), ElementsAre(" ", "DONE"));
    const auto main = std::find_if(trace.lines().begin(), trace.lines().end(),
                                   [](const TraceLine &line) { return line.function == "main"; });
    ASSERT_NE(main, trace.lines().end());
    EXPECT_EQ(main->message, "DBG TRACE");
    EXPECT_EQ((main - 1)->function, "gdata_set_commandline");
    EXPECT_EQ((main + 1)->function, "gdata_config_print");
    for (const TraceLine &line : trace.lines()) {
        EXPECT_TRUE(line.function != "gdata_config_print" || line.file == "gdata.c");
    }
}
