// The command line from the user's side: texts on stderr and exit statuses. Where the daemon would keep running
// after a warning, -d ends it.

#include "station.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

using Arguments = std::vector<std::string>;

struct InForce {
    std::string logfile = "/var/lib/evse/vigmond/logfile";
    std::string size = "8192";
    std::string count = "20";
    std::string loglevel = "OK";
    std::string severity = "OK";
};

std::string usage_text(const InForce &now = {}) {
    return "usage:\n"
           "vigmond [-h|--help] | [-d|--dump] [-v|--version]\n"
           "vigmond [[-D|--debug] [-s SEV|--severitylevel=SEV] [-L FILE|--logfile=FILE] "
           "[-S SIZE|--logfilesize=SIZE] [-l LEVEL|--loglevel=LEVEL]]\n"
           "    -h, --help      this message\n"
           "    -d, --dump      dump internal configuration (can be used as configuration file).\n"
           "    -D, --debug     enable tracing output - send all output to stderr.\n"
           "    -L FILE, --logfile=FILE\n"
           "                use \"FILE\" for logging (default: " +
           now.logfile +
           ")\n"
           "    -S SIZE, --logfilesize=SIZE\n"
           "                use \"SIZE\" for maximum logfile size in KB (default: " +
           now.size +
           " - min: 10, max: 102400)\n"
           "    -C CNT,  --logfilecount=CNT\n"
           "                use \"CNT\" for maximum number of logfiles preserved (default: " +
           now.count +
           " - min: 0, max: 128)\n"
           "    -l LEVEL, --loglevel=LEVEL\n"
           "                use \"LEVEL\" for logging level (default: " +
           now.loglevel +
           ")\n"
           "                valid values: fail, warning, or OK)\n"
           "    -s SEV, --severitylevel=SEV\n"
           "                use \"SEV\" for severitylevel level (default: " +
           now.severity +
           ")\n"
           "                valid values: critical, fail, warning, or OK)\n"
           "    -v, --version   print git-commit ID.\n";
}

Outcome run(const Arguments &arguments) {
    Station station;
    return station.run(arguments);
}

bool is_version_line(const std::string &text) {
    constexpr std::size_t digits = 40;
    const std::string start = "Version Data: Revision: 0.14.0 -- GIT-ID: ";
    return text.starts_with(start) && text.size() == start.size() + digits + 1 && text.ends_with('\n') &&
           text.find_first_not_of("0123456789abcdef", start.size()) == text.size() - 1;
}

int occurrences(const std::string &text, const std::string &part) {
    int count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

} // namespace

TEST(Help, PrintsTheUsageTextToStderrAndEndsWithSuccess) {
    for (const char *option : {"-h", "--help", "--he"}) {
        const Outcome help = run({option});
        EXPECT_EQ(help.err, usage_text()) << option;
        EXPECT_EQ(help.out, "");
        EXPECT_EQ(help.status, 0);
    }
}

TEST(Help, ShowsTheValuesInForceAfterAllOptions) {
    Station station;
    const std::string logfile = station.files().scratch() + "/work/status";
    const Outcome help = station.run({"-h", "-L", logfile, "-S", "200", "-C", "7", "-l", "fail", "-s", "critical"});
    EXPECT_EQ(help.err, usage_text({logfile, "200", "7", "fail", "critical"}));
    EXPECT_EQ(help.status, 0);
}

// The default is shown as "fail", though only "failed" is accepted. Kept.
TEST(Help, ShowsTheSeverityFailedAsFail) {
    EXPECT_EQ(run({"-s", "failed", "-h"}).err, usage_text({.severity = "fail"}));
    EXPECT_EQ(run({"-s", "WARNING", "-h"}).err, usage_text({.severity = "warning"}));
    EXPECT_EQ(run({"-l", "Warning", "-h"}).err, usage_text({.loglevel = "warning"}));
}

TEST(Help, EndsTheProgramBeforeADump) {
    const Outcome both = run({"-d", "-h"});
    EXPECT_EQ(both.status, 0);
    EXPECT_EQ(both.out, "");
    EXPECT_EQ(both.err, usage_text());
}

TEST(Help, IsPrintedOnce) { EXPECT_EQ(run({"-h", "-h", "--help"}).err, usage_text()); }

TEST(ProgramName, IsThePartAfterTheLastSlash) {
    Station station;
    station.argv0 = "./some/where/guard";
    const Outcome help = station.run({"-x"});
    EXPECT_THAT(help.err, StartsWith("guard: WARNING: invalid option -x - ignored.\n"
                                     "usage:\nguard [-h|--help]"));
    EXPECT_THAT(help.err, HasSubstr("\nguard [[-D|--debug]"));
}

struct Warned {
    Arguments arguments;
    std::string warning;
    InForce after;
};

class Warning : public testing::TestWithParam<Warned> {};

TEST_P(Warning, NamesTheValueUsedInstead) {
    Arguments arguments = GetParam().arguments;
    arguments.emplace_back("-d");
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.err,
              "vigmond: WARNING: option " + GetParam().warning + " instead.\n" + usage_text(GetParam().after));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.out, EndsWith("#   end tasklist\n########################################\n"));
}

INSTANTIATE_TEST_SUITE_P(
    InvalidValue, Warning,
    testing::Values(Warned{{"-C", "129"}, R"(-C: invalid value "129" - using "128")", {.count = "128"}},
                    Warned{{"-C", "-1"}, R"(-C: invalid value "-1" - using "0")", {.count = "0"}},
                    Warned{{"-C", "4294967301"}, R"(-C: invalid value "4294967301" - using "128")", {.count = "128"}},
                    Warned{{"-C", "-99999999999999999999"},
                           R"(-C: invalid value "-99999999999999999999" - using "0")",
                           {.count = "0"}},
                    Warned{{"--logfilecount=500"}, R"(-C: invalid value "500" - using "128")", {.count = "128"}},
                    Warned{{"-S", "5"}, R"(-S: invalid value "5" - using "10")", {.size = "10"}},
                    Warned{{"-S", "abc"}, R"(-S: invalid value "abc" - using "10")", {.size = "10"}},
                    Warned{{"-S", ""}, R"(-S: invalid value "" - using "10")", {.size = "10"}},
                    Warned{{"-S", "102401"}, R"(-S: invalid value "102401" - using "102400")", {.size = "102400"}},
                    Warned{{"-S", "4194304"}, R"(-S: invalid value "4194304" - using "102400")", {.size = "102400"}},
                    Warned{{"-S", "99999999999999999999"},
                           R"(-S: invalid value "99999999999999999999" - using "102400")",
                           {.size = "102400"}},
                    Warned{{"--logfilesize", "9"}, R"(-S: invalid value "9" - using "10")", {.size = "10"}}));

INSTANTIATE_TEST_SUITE_P(
    InvalidArgument, Warning,
    testing::Values(
        Warned{{"-l", "failed"}, R"(-l: invalid argument "failed" - using "OK")", {}},
        Warned{{"-l", "fail", "-l", "none"}, R"(-l: invalid argument "none" - using "fail")", {.loglevel = "fail"}},
        Warned{
            {"-l", "warning", "--loglevel="}, R"(-l: invalid argument "" - using "warning")", {.loglevel = "warning"}},
        Warned{{"-s", "fail"}, R"(-s: invalid argument "fail" - using "OK")", {}},
        Warned{{"-s", "failed", "-s", "fail"}, R"(-s: invalid argument "fail" - using "failed")", {.severity = "fail"}},
        Warned{{"-s", "critical", "-s", "crit"},
               R"(-s: invalid argument "crit" - using "critical")",
               {.severity = "critical"}},
        Warned{{"-s", "warning", "--severitylevel=5"},
               R"(-s: invalid argument "5" - using "warning")",
               {.severity = "warning"}}));

INSTANTIATE_TEST_SUITE_P(
    InvalidFile, Warning,
    testing::Values(
        Warned{{"-L", "/missing/log"},
               R"(-L: "/missing/log": No such file or directory - using "/var/lib/evse/vigmond/logfile")",
               {}},
        Warned{{"-L", "/var/lib/evse"},
               R"(-L: "/var/lib/evse": Is a directory - using "/var/lib/evse/vigmond/logfile")",
               {}},
        Warned{{"--logfile="}, R"(-L: "": No such file or directory - using "/var/lib/evse/vigmond/logfile")", {}},
        Warned{{"-L", "/tmp/x", "-L", "/missing/y"},
               R"(-L: "/missing/y": No such file or directory - using "/tmp/x")",
               {.logfile = "/tmp/x"}}));

TEST(Value, ThatIsValidCausesNoOutput) {
    const Arguments accepted[] = {
        {"-C", "abc"},      {"-C", "0"},       {"-C", "128"},          {"-S", "12abc"}, {"-S", " 10"},
        {"-S", "102400"},   {"-l", "WARNING"}, {"-l", "oK"},           {"-l", "FAIL"},  {"-s", "Failed"},
        {"-s", "CRITICAL"}, {"-s", "warning"}, {"--severitylevel=ok"}, {"-L", "x"},     {"-d"},
    };
    for (Arguments arguments : accepted) {
        arguments.emplace_back("-d");
        const Outcome outcome = run(arguments);
        EXPECT_EQ(outcome.err, "") << testing::PrintToString(arguments);
        EXPECT_EQ(outcome.status, 0);
    }
}

TEST(Value, OfNonNumericTextIsZero) {
    EXPECT_THAT(run({"-C", "abc", "-d"}).out, HasSubstr("logcount:       0\n"));
    EXPECT_THAT(run({"-S", "12abc", "-d"}).out, HasSubstr("logsize:        12K\n"));
}

TEST(Warnings, PrecedeASingleUsageText) {
    const Outcome outcome = run({"-S", "5", "-x", "-l", "all", "-C", "200"});
    EXPECT_EQ(outcome.err, "vigmond: WARNING: option -S: invalid value \"5\" - using \"10\" instead.\n"
                           "vigmond: WARNING: invalid option -x - ignored.\n"
                           "vigmond: WARNING: option -l: invalid argument \"all\" - using \"OK\" instead.\n"
                           "vigmond: WARNING: option -C: invalid value \"200\" - using \"128\" instead.\n" +
                               usage_text({.size = "10", .count = "128"}));
    EXPECT_EQ(outcome.status, 255);
}

// The daemon keeps running with the value in force.
TEST(Warnings, DoNotEndTheDaemon) {
    Station station;
    station.start({"-S", "5", "-s", "none"});
    EXPECT_EQ(station.trace().text(),
              "vigmond: WARNING: option -S: invalid value \"5\" - using \"10\" instead.\n"
              "vigmond: WARNING: option -s: invalid argument \"none\" - using \"OK\" instead.\n" +
                  usage_text({.size = "10"}));
    EXPECT_EQ(station.stop(), 1);
}

struct Rejected {
    Arguments arguments;
    char character;
};

class InvalidOption : public testing::TestWithParam<Rejected> {};

TEST_P(InvalidOption, IsNamedAndEndsTheProgramWith255) {
    const Outcome outcome = run(GetParam().arguments);
    EXPECT_EQ(outcome.err, std::string("vigmond: WARNING: invalid option -") + GetParam().character + " - ignored.\n" +
                               usage_text());
    EXPECT_EQ(outcome.err.find('\0'), std::string::npos);
    EXPECT_EQ(outcome.out, "");
    EXPECT_EQ(outcome.status, 255);
}

// An unknown or ambiguous long option has no character and shows as '?'.
INSTANTIATE_TEST_SUITE_P(All, InvalidOption,
                         testing::Values(Rejected{{"-x"}, 'x'}, Rejected{{"-d", "-x"}, 'x'}, Rejected{{"-S"}, 'S'},
                                         Rejected{{"-L"}, 'L'}, Rejected{{"-C"}, 'C'}, Rejected{{"-l"}, 'l'},
                                         Rejected{{"-s"}, 's'}, Rejected{{"--logfile"}, 'L'},
                                         Rejected{{"--unknown"}, '?'}, Rejected{{"--unknown=5"}, '?'},
                                         Rejected{{"--log=5"}, '?'}, Rejected{{"--help=5"}, 'h'}, Rejected{{"-?"}, '?'},
                                         Rejected{{"-x", "-h"}, 'x'}, Rejected{{"-h", "-x"}, 'x'},
                                         Rejected{{"-dx"}, 'x'}));

TEST(Version, IsPrintedToStderrAndEndsAtOnce) {
    for (const Arguments &arguments : {Arguments{"-v"}, Arguments{"--version"}, Arguments{"-v", "-x"},
                                       Arguments{"-v", "-h"}, Arguments{"-d", "-v"}, Arguments{"--vers", "-S", "5"}}) {
        const Outcome version = run(arguments);
        EXPECT_TRUE(is_version_line(version.err)) << version.err;
        EXPECT_EQ(version.out, "");
        EXPECT_EQ(version.status, 0);
    }
}

TEST(Version, AfterAWarningComesWithoutTheUsageText) {
    const std::string warning = "vigmond: WARNING: invalid option -x - ignored.\n";
    const Outcome version = run({"-x", "-v"});
    ASSERT_THAT(version.err, StartsWith(warning));
    EXPECT_TRUE(is_version_line(version.err.substr(warning.size()))) << version.err;
    EXPECT_EQ(version.status, 0);
}

TEST(LongOption, MayBeAbbreviatedIfUnique) {
    const Outcome outcome = run({"--logfiles=5", "--du"});
    EXPECT_THAT(outcome.err, StartsWith("vigmond: WARNING: option -S: invalid value \"5\" - using \"10\" instead.\n"));
    EXPECT_EQ(outcome.status, 0);
}

TEST(NonOptionArguments, AreIgnoredSilently) {
    const Outcome outcome = run({"some", "-d", "thing", "--", "-x"});
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, run({"-d"}).out);
}

TEST(LogFile, IsCreatedWhenItIsNamed) {
    Station station;
    EXPECT_EQ(station.run({"-L", "x", "-d"}).status, 0);
    EXPECT_TRUE(std::filesystem::exists(station.files().scratch() + "/work/x"));
}

TEST(LogFile, ThatExistsIsKept) {
    Station station;
    station.files().write("/tmp/status", "earlier\n");
    EXPECT_EQ(station.run({"-L", "/tmp/status", "-d"}).status, 0);
    EXPECT_EQ(station.read("/tmp/status"), "earlier\n");
}

struct Copied {
    Arguments arguments;
    std::string copy;
    int status;
};

class CommandLine : public testing::TestWithParam<Copied> {};

// In the parser's order: non-options follow the options.
TEST_P(CommandLine, IsCopiedAfterTheUsageTextAndBeforeTheExit) {
    const Outcome outcome = run(GetParam().arguments);
    const std::size_t copied = outcome.err.find(") gdata_commandline: '" + GetParam().copy + "'\n");
    EXPECT_NE(copied, std::string::npos) << outcome.err;
    EXPECT_LT(outcome.err.find("usage:\n"), copied);
    EXPECT_EQ(outcome.err.find("DBG TRACE"), std::string::npos);
    EXPECT_EQ(outcome.status, GetParam().status);
}

INSTANTIATE_TEST_SUITE_P(BeforeAnExit, CommandLine,
                         testing::Values(Copied{{"-D", "some", "-h"}, R"(vigmond "-D" "-h" "some")", 0},
                                         Copied{{"thing", "-Dx"}, R"(vigmond "-Dx" "thing")", 255}));

TEST(Version, EndsBeforeTheCommandLineIsCopied) {
    const Outcome outcome = run({"-D", "-v"});
    EXPECT_EQ(outcome.err.find("gdata_set_commandline"), std::string::npos);
    EXPECT_EQ(outcome.status, 0);
}

// Log filters use both places.
TEST(Help, IsTracedBetweenTwoFixedPlaces) {
    const Outcome help = run({"-D", "-h"});
    EXPECT_EQ(occurrences(help.err, "vigmond.c: eat_arguments(276)  \n"), 1);
    EXPECT_EQ(occurrences(help.err, "vigmond.c: eat_arguments(278)  \n"), 1);
    const std::size_t before = help.err.find("eat_arguments(276)");
    const std::size_t usage = help.err.find("vigmond.c: usage(");
    EXPECT_LT(before, usage);
    EXPECT_LT(usage, help.err.find("eat_arguments(278)"));
    EXPECT_LT(help.err.find("eat_arguments(278)"), help.err.find("usage:\n"));
}
