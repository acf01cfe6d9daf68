#include "vigmond/options.h"

#include "captured_traces.h"
#include "command_line.h"
#include "gdata.h"
#include "handle.h"
#include "hang_guard.h"
#include "in_child.h"
#include "memory_fault.h"
#include "scratch_folder.h"
#include "trace.h"

#include <array>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char *BUILT_IN_LOGFILE = "/var/lib/evse/vigmond/logfile";

// Settings, trace mode and the count of usage messages last for the process, so every case runs in its own child.

TEST(Options, WithoutAnyTheSettingsAreUnchanged) {
    in_child([] {
        const Parsed parsed = parse({});
        EXPECT_EQ(parsed.options.outcome, OptionsOutcome::run);
        EXPECT_FALSE(parsed.options.dump_requested);
        EXPECT_EQ(parsed.printed, "");
        EXPECT_STREQ(gdata_get_logfile(), BUILT_IN_LOGFILE);
        EXPECT_EQ(gdata_get_logsize(), 8388608);
        EXPECT_EQ(gdata_get_logcount(), 20);
        EXPECT_EQ(gdata_get_loglevel(), 3);
        EXPECT_EQ(gdata_get_severitylevel(), 5);
        EXPECT_EQ(trace_mode, 2);
    });
}

TEST(Options, ProgramIsTheNameAfterTheLastSlash) {
    struct Case {
        const char *argument, *program;
    };
    for (const Case &c : {Case{"vigmond", "vigmond"}, {"/usr/bin/vigmond", "vigmond"}, {"./a/b", "b"}, {"a/", ""}}) {
        Arguments arguments({c.argument});
        EXPECT_STREQ(eat_arguments(arguments.count(), arguments.pointers()).program, c.program);
    }
    Arguments none({});
    const Options options = eat_arguments(none.count(), none.pointers());
    EXPECT_STREQ(options.program, "");
    EXPECT_EQ(options.outcome, OptionsOutcome::run);
}

struct NumberCase {
    std::string given;
    int stored;
    int warned = -1; ///< the number named in the warning; -1: none
};

TEST(Options, LogcountIsReadAsADecimalNumber) {
    const std::vector<NumberCase> cases{
        {"0", 0},
        {"5", 5},
        {"128", 128},
        {"129", 128, 128},
        {"500", 128, 128},
        {"-5", 0, 0},
        {"abc", 0}, // not a number: 0, which is valid
        {"12abc", 12},
        {"", 0},
        {" \t7", 7},
        {"+7", 7},
        {"010", 10},
        {"0x10", 0},
        {"4294967301", 128, 128}, // 2^32 + 5
        {"-4294967291", 0, 0},    // -2^32 + 5
        {"4294967296", 128, 128}, // 2^32
        {"2147483647", 128, 128},
        {"2147483648", 128, 128},
        {"-2147483649", 0, 0},
        {"99999999999999999999", 128, 128},
        {"-99999999999999999999", 0, 0},
    };
    for (const NumberCase &c : cases) {
        in_child([&] {
            const Parsed parsed = parse({"-C", c.given});
            EXPECT_EQ(gdata_get_logcount(), c.stored) << c.given;
            EXPECT_EQ(parsed.printed, c.warned < 0 ? "" : invalid_value('C', c.given, c.warned));
            EXPECT_EQ(parsed.options.outcome, OptionsOutcome::run);
        });
    }
}

TEST(Options, LogsizeIsReadAsADecimalNumberOfKilobytes) {
    const std::vector<NumberCase> cases{
        {"10", 10240},
        {"9", 10240, 10},
        {"5", 10240, 10},
        {"0", 10240, 10},
        {"-1", 10240, 10},
        {"abc", 10240, 10},
        {"", 10240, 10},
        {"200", 204800},
        {"200K", 204800},
        {"102400", 104857600},
        {"102401", 104857600, 102400},
        {"2097152", 104857600, 102400},    // 2^31 bytes
        {"4194304", 104857600, 102400},    // 2^32 bytes
        {"4194314", 104857600, 102400},    // 2^32 + 10240 bytes
        {"-4194204", 10240, 10},           // -2^32 + 102400 bytes
        {"2147483648", 104857600, 102400}, // 2^31
        {"9223372036854775807", 104857600, 102400},
        {"-9223372036854775808", 10240, 10},
        {"18014398509481994", 104857600, 102400}, // 2^54 + 10, times 1024 is 2^64 + 10240
    };
    for (const NumberCase &c : cases) {
        in_child([&] {
            const Parsed parsed = parse({"-S", c.given});
            EXPECT_EQ(gdata_get_logsize(), c.stored) << c.given;
            EXPECT_EQ(parsed.printed, c.warned < 0 ? "" : invalid_value('S', c.given, c.warned));
            EXPECT_EQ(parsed.options.outcome, OptionsOutcome::run);
        });
    }
}

TEST(Options, WarningNamesTheSizeInForce) {
    in_child([] {
        EXPECT_EQ(parse({"-S", "200", "-S", "5"}).printed, invalid_value('S', "5", 10));
        EXPECT_EQ(gdata_get_logsize(), 10240) << "the default, not the earlier value";
    });
}

struct LevelCase {
    std::string given;
    int stored;
    bool valid = true;
};

TEST(Options, LoglevelIsANameInAnyCase) {
    for (const LevelCase &c : {LevelCase{"fail", 1},
                               {"FAIL", 1},
                               {"warning", 2},
                               {"WARNING", 2},
                               {"OK", 3},
                               {"ok", 3},
                               {"failed", 3, false},
                               {"fai", 3, false},
                               {"", 3, false},
                               {"2", 3, false},
                               {"critical", 3, false}}) {
        in_child([&] {
            const Parsed parsed = parse({"-l", c.given});
            EXPECT_EQ(gdata_get_loglevel(), c.stored) << c.given;
            EXPECT_EQ(parsed.printed, c.valid ? "" : invalid_argument('l', c.given, "OK"));
            EXPECT_EQ(parsed.options.outcome, OptionsOutcome::run);
        });
    }
}

TEST(Options, SeveritylevelIsANameInAnyCase) {
    for (const LevelCase &c : {LevelCase{"critical", 2},
                               {"Critical", 2},
                               {"failed", 3},
                               {"FAILED", 3},
                               {"warning", 4},
                               {"wArNiNg", 4},
                               {"OK", 5},
                               {"Ok", 5},
                               {"fail", 5, false}, // though the usage text says so
                               {"", 5, false},
                               {"3", 5, false}}) {
        in_child([&] {
            const Parsed parsed = parse({"-s", c.given});
            EXPECT_EQ(gdata_get_severitylevel(), c.stored) << c.given;
            EXPECT_EQ(parsed.printed, c.valid ? "" : invalid_argument('s', c.given, "OK"));
            EXPECT_EQ(parsed.options.outcome, OptionsOutcome::run);
        });
    }
}

TEST(Options, WarningNamesTheLevelInForce) {
    struct Case {
        const char *option, *valid, *named;
    };
    for (const Case &c : {Case{"-l", "fail", "fail"},
                          {"-l", "warning", "warning"},
                          {"-s", "critical", "critical"},
                          {"-s", "failed", "failed"},
                          {"-s", "warning", "warning"}}) {
        in_child([&] {
            EXPECT_EQ(parse({c.option, c.valid, c.option, "what"}).printed,
                      invalid_argument(c.option[1], "what", c.named));
        });
    }
}

TEST(Options, LogfileIsCreatedAndAccepted) {
    const ScratchFolder folder;
    in_child([&] {
        const Parsed parsed = parse({"-L", folder / "log"});
        EXPECT_EQ(gdata_get_logfile(), folder / "log");
        EXPECT_EQ(parsed.printed, "");
        EXPECT_TRUE(std::filesystem::exists(folder / "log"));
    });
}

TEST(Options, LogfileThatCannotBeOpenedKeepsTheOldOne) {
    const ScratchFolder folder;
    const std::string missing = folder / "missing/log";
    in_child([&] {
        EXPECT_EQ(parse({"-L", missing}).printed, "vigmond: WARNING: option -L: \"" + missing +
                                                      "\": No such file or directory - using \"" + BUILT_IN_LOGFILE +
                                                      "\" instead.\n");
        const Parsed second = parse({"-L", folder / "log", "-L", folder.path()});
        EXPECT_EQ(second.printed, "vigmond: WARNING: option -L: \"" + folder.path().string() +
                                      "\": Is a directory - using \"" + folder / "log" + "\" instead.\n");
        EXPECT_EQ(second.options.outcome, OptionsOutcome::run);
        EXPECT_EQ(gdata_get_logfile(), folder / "log");
    });
}

TEST(Options, LogfileThatIsTheLockFileKeepsTheOldOne) {
    const ScratchFolder folder;
    in_child([&] {
        EXPECT_EQ(parse({"-L", folder / ".lock"}).printed, "vigmond: WARNING: option -L: \"" + folder / ".lock" +
                                                               "\": Invalid argument - using \"" + BUILT_IN_LOGFILE +
                                                               "\" instead.\n");
        EXPECT_FALSE(std::filesystem::exists(folder / ".lock"));
    });
}

TEST(Options, LogfileThatIsAPipeIsAcceptedIfItHasAReader) {
    const ScratchFolder folder;
    const std::string pipe = folder / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    in_child([&] {
        const HangGuard guard;
        EXPECT_EQ(parse({"-L", pipe}).printed, "vigmond: WARNING: option -L: \"" + pipe +
                                                   "\": No such device or address - using \"" + BUILT_IN_LOGFILE +
                                                   "\" instead.\n");
        EXPECT_STREQ(gdata_get_logfile(), BUILT_IN_LOGFILE);
        const Descriptor reader(open(pipe.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        EXPECT_EQ(parse({"-L", pipe}).printed, "");
        EXPECT_EQ(gdata_get_logfile(), pipe);
    });
}

TEST(Options, LogfileIsRefusedWhenOutOfMemory) {
    const ScratchFolder folder;
    in_child([&] {
        Arguments arguments({"vigmond", "-L", folder / "log"});
        testing::internal::CaptureStderr();
        {
            const MemoryFault fault(1);
            eat_arguments(arguments.count(), arguments.pointers());
            EXPECT_TRUE(MemoryFault::happened());
        }
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "vigmond: WARNING: option -L: \"" + folder / "log" +
                                                              "\": Cannot allocate memory - using \"" +
                                                              BUILT_IN_LOGFILE + "\" instead.\n");
        EXPECT_STREQ(gdata_get_logfile(), BUILT_IN_LOGFILE);
    });
}

// Once to test it and once to use it; a watcher of the folder sees both.
TEST(Options, LogfileIsOpenedTwice) {
    const ScratchFolder folder;
    in_child([&] {
        const int watcher = inotify_init1(IN_NONBLOCK);
        ASSERT_GE(inotify_add_watch(watcher, folder.path().c_str(), IN_OPEN | IN_CLOSE_WRITE), 0);
        parse({"-L", folder / "log"});
        alignas(inotify_event) std::array<char, 4096> events{};
        const ssize_t length = read(watcher, events.data(), events.size());
        int opened = 0;
        for (ssize_t at = 0; at < length;) {
            const auto *event = reinterpret_cast<const inotify_event *>(events.data() + at);
            EXPECT_STREQ(event->name, "log");
            opened += (event->mask & IN_OPEN) != 0 ? 1 : 0;
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
        EXPECT_EQ(opened, 2);
    });
}

struct OutcomeCase {
    std::vector<std::string> arguments;
    std::string printed;
    OptionsOutcome outcome;
    bool dump = false;
};

TEST(Options, OutcomeFollowsTheOptions) {
    using enum OptionsOutcome;
    const std::vector<OutcomeCase> cases{
        {{"-d"}, "", run, true},
        {{"--dump"}, "", run, true},
        {{"-h"}, "", helped},
        {{"--help"}, "", helped},
        {{"-d", "-h"}, "", helped, true},
        {{"-x"}, invalid_option('x'), failed},
        {{"-x", "-h"}, invalid_option('x'), failed}, // the error takes precedence over the help
        {{"-h", "-x"}, invalid_option('x'), failed},
        {{"-h", "-S", "5"}, invalid_value('S', "5", 10), helped}, // all is parsed before the exit
        {{"-xd", "-y"}, invalid_option('x') + invalid_option('y'), failed, true},
        {{"--nonsense"}, invalid_option('?'), failed}, // no NUL byte
        {{"--log=1"}, invalid_option('?'), failed},    // ambiguous
        {{"-x", "--nonsense"}, invalid_option('x') + invalid_option('?'), failed},
        {{"-S"}, invalid_option('S'), failed}, // without its argument
        {{"--logfile"}, invalid_option('L'), failed},
        {{"--help=3"}, invalid_option('h'), failed},
        {{"-C", "-x"}, "", run},                  // "-x" is the argument
        {{"--", "-x"}, "", run},                  // after the end of the options
        {{"file", "-d", "other"}, "", run, true}, // non-options are ignored
        {{"-"}, "", run},
        {{"", ""}, "", run},
    };
    for (const OutcomeCase &c : cases) {
        in_child([&] {
            SCOPED_TRACE(testing::PrintToString(c.arguments));
            const Parsed parsed = parse(c.arguments);
            EXPECT_EQ(parsed.printed, c.printed);
            EXPECT_EQ(parsed.options.outcome, c.outcome);
            EXPECT_EQ(parsed.options.dump_requested, c.dump);
        });
    }
}

TEST(Options, LongFormsEqualTheShortOnes) {
    const ScratchFolder folder;
    in_child([&] {
        EXPECT_EQ(parse({"--logfile=" + folder / "log", "--logfilesize=200", "--logfilecount", "7", "--loglevel=fail",
                         "--severitylevel", "critical"})
                      .printed,
                  "");
        EXPECT_EQ(gdata_get_logfile(), folder / "log");
        EXPECT_EQ(gdata_get_logsize(), 204800);
        EXPECT_EQ(gdata_get_logcount(), 7);
        EXPECT_EQ(gdata_get_loglevel(), 1);
        EXPECT_EQ(gdata_get_severitylevel(), 2);
    });
}

TEST(Options, LongFormsMayBeAbbreviated) {
    in_child([] {
        EXPECT_EQ(parse({"--logfilec=5", "--sev=failed", "--du"}).printed, "");
        EXPECT_EQ(gdata_get_logcount(), 5);
        EXPECT_EQ(gdata_get_severitylevel(), 3);
    });
}

TEST(Options, TheLastValidValueIsInForce) {
    in_child([] {
        parse({"-C", "5", "-C", "7", "-l", "fail", "-l", "nothing"});
        EXPECT_EQ(gdata_get_logcount(), 7);
        EXPECT_EQ(gdata_get_loglevel(), 1);
    });
}

TEST(Options, ArgumentsArePermuted) {
    Arguments arguments({"vigmond", "file", "-d", "-l", "OK"});
    eat_arguments(arguments.count(), arguments.pointers());
    std::vector<std::string> after(arguments.pointers(), arguments.pointers() + arguments.count());
    EXPECT_EQ(after, (std::vector<std::string>{"vigmond", "-d", "-l", "OK", "file"}));
}

TEST(Options, DebugSendsTheTracesToStderrFromThenOn) {
    for (const char *option : {"-D", "--debug"}) {
        in_child([&] {
            const CapturedTraces traces;
            const std::string printed = parse({"-C", "5", option, "-C", "6"}).printed;
            EXPECT_EQ(trace_mode, 3);
            EXPECT_EQ(traces.texts_of("gdata_set_logcount"), std::vector<std::string>{"cnt: 5"});
            EXPECT_EQ(printed.find("cnt: 5"), std::string::npos);
            EXPECT_NE(printed.find(") cnt: 6\n"), std::string::npos);
        });
    }
}

TEST(Options, VersionIsPrintedToStderrAndEndsTheParsing) {
    const std::regex line("Version Data: Revision: 0\\.14\\.0 -- GIT-ID: [0-9a-f]{40}\n");
    for (const char *option : {"-v", "--version"}) {
        in_child([&] {
            const Parsed parsed = parse({option, "-x", "-C", "5"});
            EXPECT_TRUE(std::regex_match(parsed.printed, line)) << parsed.printed;
            EXPECT_EQ(parsed.options.outcome, OptionsOutcome::version);
            EXPECT_EQ(gdata_get_logcount(), 20) << "what follows is not looked at";
        });
    }
}

TEST(Options, VersionAfterABadOptionStillSucceeds) {
    in_child([] {
        const Parsed parsed = parse({"-x", "-h", "-v"});
        EXPECT_EQ(parsed.options.outcome, OptionsOutcome::version);
        EXPECT_TRUE(parsed.printed.starts_with(invalid_option('x') + "Version Data: ")) << parsed.printed;
    });
}

TEST(Options, HelpTracesItsTwoKnownPlaces) {
    in_child([] {
        const CapturedTraces traces;
        parse({"-h"});
        ASSERT_EQ(traces.all().size(), 3U);
        std::string places;
        for (const CapturedTrace &trace : traces.all()) {
            EXPECT_EQ(trace.code_file, "CODE_FILE=vigmond.c");
            EXPECT_EQ(trace.text, " ");
            EXPECT_EQ(trace.line.substr(0, 4), "(3) ");
            places += trace.function + " ";
        }
        EXPECT_EQ(places, "eat_arguments usage eat_arguments ");
        EXPECT_EQ(traces.all()[0].code_line, "CODE_LINE=276");
        EXPECT_EQ(traces.all()[2].code_line, "CODE_LINE=278");
    });
}

} // namespace
