#include "vigmond/options.h"

#include "captured_traces.h"
#include "command_line.h"
#include "gdata.h"
#include "in_child.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

constexpr const char *BUILT_IN_LOGFILE = "/var/lib/evse/vigmond/logfile";

// The count of the calls only grows, so every case runs in its own child.

// The exact usage text for the program "prog".
std::string usage_text(const std::string &logfile, const std::string &size, const std::string &count,
                       const std::string &level, const std::string &severity) {
    return "usage:\n"
           "prog [-h|--help] | [-d|--dump] [-v|--version]\n"
           "prog [[-D|--debug] [-s SEV|--severitylevel=SEV] [-L FILE|--logfile=FILE] [-S SIZE|--logfilesize=SIZE] "
           "[-l LEVEL|--loglevel=LEVEL]]\n"
           "    -h, --help      this message\n"
           "    -d, --dump      dump internal configuration (can be used as configuration file).\n"
           "    -D, --debug     enable tracing output - send all output to stderr.\n"
           "    -L FILE, --logfile=FILE\n"
           "                use \"FILE\" for logging (default: " +
           logfile +
           ")\n"
           "    -S SIZE, --logfilesize=SIZE\n"
           "                use \"SIZE\" for maximum logfile size in KB (default: " +
           size +
           " - min: 10, max: 102400)\n"
           "    -C CNT,  --logfilecount=CNT\n"
           "                use \"CNT\" for maximum number of logfiles preserved (default: " +
           count +
           " - min: 0, max: 128)\n"
           "    -l LEVEL, --loglevel=LEVEL\n"
           "                use \"LEVEL\" for logging level (default: " +
           level +
           ")\n"
           "                valid values: fail, warning, or OK)\n"
           "    -s SEV, --severitylevel=SEV\n"
           "                use \"SEV\" for severitylevel level (default: " +
           severity +
           ")\n"
           "                valid values: critical, fail, warning, or OK)\n"
           "    -v, --version   print git-commit ID.\n";
}

TEST(Usage, ShowsTheBuiltInSettings) {
    in_child([] {
        EXPECT_EQ(printed_by([] { usage(1, "prog", nullptr); }),
                  usage_text(BUILT_IN_LOGFILE, "8192", "20", "OK", "OK"));
    });
}

TEST(Usage, ShowsTheSettingsInForce) {
    struct Case {
        int level, severity;
        const char *level_name, *severity_name;
    };
    for (const Case &c : {Case{1, 2, "fail", "critical"},
                          {2, 3, "warning", "fail"}, // not "failed"
                          {3, 4, "OK", "warning"},
                          {3, 5, "OK", "OK"}}) {
        in_child([&] {
            gdata_record().logfile = "/tmp/x";
            gdata_set_logsize(204799); // 199.999 KB
            gdata_set_logcount(0);
            gdata_set_loglevel(c.level);
            gdata_set_severitylevel(c.severity);
            EXPECT_EQ(printed_by([] { usage(1, "prog", nullptr); }),
                      usage_text("/tmp/x", "199", "0", c.level_name, c.severity_name));
        });
    }
}

TEST(Usage, Mode0PrintsTheMessageOnly) {
    in_child([] {
        EXPECT_EQ(printed_by([] { usage(0, "prog", "number %d, text %s", 7, "x"); }), "prog: number 7, text x\n");
        EXPECT_EQ(printed_by([] { usage(0, "prog", nullptr); }), "");
    });
}

TEST(Usage, Mode1PrintsTheMessageThenTheText) {
    in_child([] {
        EXPECT_EQ(printed_by([] { usage(1, "prog", "%s", "message"); }),
                  "prog: message\n" + usage_text(BUILT_IN_LOGFILE, "8192", "20", "OK", "OK"));
    });
}

TEST(Usage, Mode2PrintsTheTextOnlyAfterAnEarlierCall) {
    const std::string text = usage_text(BUILT_IN_LOGFILE, "8192", "20", "OK", "OK");
    in_child([&] {
        EXPECT_EQ(printed_by([] { usage(2, "prog", nullptr); }), "");
        EXPECT_EQ(printed_by([] { usage(2, "prog", nullptr); }), text) << "the first one counts";
    });
    in_child([&] {
        usage(0, "prog", nullptr);
        EXPECT_EQ(printed_by([] { usage(2, "prog", nullptr); }), text);
    });
}

TEST(Usage, TracesItsEntry) {
    in_child([] {
        const CapturedTraces traces;
        printed_by([] { usage(0, "prog", "x"); });
        ASSERT_EQ(traces.all().size(), 1U);
        EXPECT_EQ(traces.all()[0].function, "usage");
        EXPECT_EQ(traces.all()[0].text, " ");
        EXPECT_EQ(traces.all()[0].line.substr(0, 4), "(3) ");
    });
}

TEST(Usage, IsPrintedOnceAfterAllWarnings) {
    struct Case {
        std::vector<std::string> arguments;
        std::string warnings;
        bool usage;
    };
    const std::vector<Case> cases{
        {{}, "", false},
        {{"-d", "-C", "5"}, "", false},
        {{"-h"}, "", true},
        {{"-h", "-h"}, "", true},
        {{"-x", "-h"}, invalid_option('x'), true},
        {{"-C", "500", "-l", "?", "-h"}, invalid_value('C', "500", 128) + invalid_argument('l', "?", "OK"), true},
    };
    for (const Case &c : cases) {
        in_child([&] {
            SCOPED_TRACE(testing::PrintToString(c.arguments));
            EXPECT_EQ(parse(c.arguments).printed, c.warnings);
            const std::string count = std::to_string(gdata_get_logcount());
            const std::string text = usage_text(BUILT_IN_LOGFILE, "8192", count, "OK", "OK");
            EXPECT_EQ(printed_by([] { usage(2, "prog", nullptr); }), c.usage ? text : "");
        });
    }
}

TEST(Usage, GoesToStderr) {
    in_child([] {
        testing::internal::CaptureStdout();
        EXPECT_NE(printed_by([] { usage(1, "prog", nullptr); }), "");
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    });
}

} // namespace
