// The rig itself, with other programs in place of the daemon.

#include "station.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <syslog.h>

using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

namespace {

Outcome run_on(Station &station, const std::string &program, const std::vector<std::string> &arguments) {
    station.program = program;
    station.argv0 = program;
    return station.run(arguments);
}

} // namespace

TEST(Rig, CapturesSyslog) {
    Station station;
    EXPECT_EQ(run_on(station, STATION_SYSLOG_CLIENT, {"the first: text", "second"}).status, 0);
    ASSERT_THAT(station.syslog(), SizeIs(2));
    EXPECT_EQ(station.syslog()[0].priority, LOG_WARNING);
    EXPECT_EQ(station.syslog()[0].facility, LOG_DAEMON);
    EXPECT_EQ(station.syslog()[0].identity, "client");
    EXPECT_EQ(station.syslog()[0].text, "the first: text");
    EXPECT_EQ(station.syslog()[1].text, "second");
}

TEST(Rig, ControlsTheClockOfAnyProgram) {
    Station station(Board().clock(2147483648));
    EXPECT_EQ(run_on(station, "/usr/bin/date", {"-u", "+%F %T"}).out, "2038-01-19 03:14:08\n");
}

TEST(Rig, ShowsTheBoardsFiles) {
    Station station(Board()
                        .file("/proc/net/dev", "no interfaces\n")
                        .file("/sys/class/net/eth0/operstate", "up\n")
                        .file("/etc/station/name", "forty-two\n"));
    const Outcome outcome =
        run_on(station, "/usr/bin/cat",
               {TEMPERATURE_FILE, "/proc/net/dev", "/sys/class/net/eth0/operstate", "/etc/station/name"});
    EXPECT_EQ(outcome.out, "42000\nno interfaces\nup\nforty-two\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(Rig, DoesNotChangeTheHost) {
    const bool had_folder = std::filesystem::exists("/var/lib/evse");
    Station station;
    station.start();
    station.stop();
    EXPECT_EQ(std::filesystem::exists("/var/lib/evse"), had_folder);
    EXPECT_THAT(read_file("/proc/self/mounts"), Not(HasSubstr("vigmond-test-")));
}

TEST(Rig, IsNotInheritedByTheDaemonsChildren) {
    Station station;
    station.environment = {"STATION_NAME=north"};
    const Outcome outcome = run_on(station, "/usr/bin/env", {});
    EXPECT_THAT(outcome.out, HasSubstr("STATION_NAME=north\n"));
    EXPECT_THAT(outcome.out, Not(HasSubstr("LD_PRELOAD")));
    EXPECT_THAT(outcome.out, Not(HasSubstr(STATION_PAGE_VARIABLE)));
}

TEST(Rig, ReportsAProcessThatEndedInsteadOfWaiting) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_DEATH(
        {
            Station station;
            station.start({"-v"});
        },
        "the process ended with 0 instead of the wait; its stderr:.*Version Data");
}

TEST(JournalRecord, ParsesShortAndLongFields) {
    const JournalRecord record(std::string("PRIORITY=6\nMESSAGE\n\3\0\0\0\0\0\0\0a\nb\nCODE_FUNC=main\n", 46));
    EXPECT_EQ(record["PRIORITY"], "6");
    EXPECT_EQ(record["MESSAGE"], "a\nb");
    EXPECT_EQ(record["CODE_FUNC"], "main");
    EXPECT_EQ(record["MISSING"], "");
}

TEST(TraceLine, IsParsed) {
    const auto trace = parse_trace_line("(2) [812] 14:03:20 builtin/load.c: load_exec(90) 5: a (b) ");
    ASSERT_TRUE(trace);
    EXPECT_EQ(trace->level, 2);
    EXPECT_EQ(trace->thread, 812U);
    EXPECT_EQ(trace->time, "14:03:20");
    EXPECT_EQ(trace->file, "builtin/load.c");
    EXPECT_EQ(trace->function, "load_exec");
    EXPECT_EQ(trace->line, 90);
    EXPECT_EQ(trace->message, "5: a (b) ");
    EXPECT_FALSE(parse_trace_line(""));
    EXPECT_FALSE(parse_trace_line("usage:"));
    EXPECT_FALSE(parse_trace_line("(2) [812] 14:03:20 load.c: load_exec(90)x"));
}
