#include "bzip2_tool.h"
#include "program.h"

#include <filesystem>

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

/// Temperature: OK for 20 s, WARN for 20 s, a gap of 60 s, FAIL for 10 s and a restart; memory: once, unreadable.
const std::string LIFE =
    header("2024-05-01 10:00:00", "START") + record("2024-05-01 10:00:00", "OK", "CB20", "40") +
    record("2024-05-01 10:00:00", "WARN", "CB21", "NaN") + record("2024-05-01 10:00:10", "OK", "CB20", "41") +
    "torn\n" + record("2024-05-01 10:00:20", "WARN", "CB20", "72") +
    record("2024-05-01 10:00:30", "WARN", "CB20", "NaN") + record("2024-05-01 10:00:40", "WARN", "CB20", "72") +
    record("2024-05-01 10:01:40", "FAIL", "CB20", "85") + record("2024-05-01 10:01:50", "FAIL", "CB20", "85") +
    header("2024-05-01 10:02:00", "START") + record("2024-05-01 10:02:00", "OK", "CB20", "60");

const char *const AS_JSON =
    R"({"station":"north","first":"2024-05-01T10:00:00+00:00","last":"2024-05-01T10:02:00+00:00","records":9,)"
    R"("foreign_lines":1,"starts":2,"unclean_ends":1,"gaps":1,"checks":[)"
    R"({"issue":"CB20","index":0,"name":"temperature","samples":8,"unreadable":1,"min":40,"median":72,"p95":85,"max":85,)"
    R"("ok_seconds":20,"warn_seconds":20,"fail_seconds":10,"changes":3,"state":"OK"},)"
    R"({"issue":"CB21","index":0,"name":"memoryusage","samples":1,"unreadable":1,"min":null,"median":null,"p95":null,)"
    R"("max":null,"ok_seconds":0,"warn_seconds":0,"fail_seconds":0,"changes":0,"state":null}]})";

struct Summary : Program {
    Summary() { log = scratch.write("logfile", LIFE); }

    /// The output on a terminal of that width.
    [[nodiscard]] std::string on_terminal(int columns, const std::string &environment) const {
        const std::string script = scratch.write("script", "stty cols " + std::to_string(columns) +
                                                               "; exec " VIGMOND_LOG " summary north=" + log + "\n");
        const std::string command = "TZ=UTC TERM=xterm " + environment + " script -qec 'sh " + script + "' '" +
                                    (scratch / "typescript") + "' </dev/null >'" + (scratch / "out") + "'";
        EXPECT_EQ(std::system(command.c_str()), 0); // NOLINT(cert-env33-c): our own command line
        return read_file(scratch / "out");
    }
    std::string log;
};

} // namespace

TEST_F(Summary, IsTheDefault) {
    const Ran ran = run("north=" + log);
    EXPECT_EQ(ran.status, 0);
    EXPECT_EQ(
        ran.out,
        "north: 2024-05-01 10:00:00 to 2024-05-01 10:02:00 (2min), 9 records\n"
        "2 starts, 1 after the daemon was killed or the power was lost; 1 gap; clock set 0 times; 1 foreign line\n"
        "issue   check                 samples unread % min median p95 max OK % WARN % FAIL % changes state\n"
        "CB20[0] temperature /sys/temp       8     12.5  40     72  85  85 40.0   40.0   20.0       3 OK\n"
        "CB21[0] memoryusage                 1    100.0   -      -   -   -    -      -      -       0 -\n"
        "\n");
}

TEST_F(Summary, IsAvailableAsJson) {
    EXPECT_EQ(run("summary --json north=" + log).out, std::string("{\"stations\":[") + AS_JSON + "]}\n");
    EXPECT_EQ(run("--json north=" + log + " north=" + log).out,
              std::string("{\"stations\":[") + AS_JSON + "," + AS_JSON + "]}\n");
    EXPECT_EQ(run("--json north=" + log + " | python3 -m json.tool >/dev/null").status, 0);
}

TEST_F(Summary, HasTimesWithAnOffset) {
    EXPECT_THAT(run("summary --json --timezone CET-1CEST,M3.5.0,M10.5.0/3 north=" + log).out,
                HasSubstr("\"first\":\"2024-05-01T10:00:00+02:00\""));
}

TEST_F(Summary, IsFilteredByTimeAndIssue) {
    EXPECT_THAT(run("summary --json --issue CB21 --until '2024-05-01 10:00:05' north=" + log).out,
                AllOf(HasSubstr("\"records\":2,"), Not(HasSubstr("CB20"))));
    const Ran none = run("--since 2030-01-01 north=" + log);
    EXPECT_EQ(none.status, 0);
    EXPECT_THAT(none.out, StartsWith("north: no records\n"));
    EXPECT_THAT(run("--json --since 2030-01-01 north=" + log).out, HasSubstr("\"first\":null,\"last\":null"));
}

TEST_F(Summary, EscapesNamesInJson) {
    std::filesystem::create_directory(scratch / "a \"b\"\n\xff<");
    scratch.write("a \"b\"\n\xff</logfile", LIFE);
    EXPECT_THAT(run("--json '" + (scratch / "a \"b\"\n\xff<") + "'").out,
                StartsWith(R"({"stations":[{"station":"a \"b\"\u000a\ufffd\u003c",)"));
}

TEST_F(Summary, FitsTheTerminal) {
    const std::string narrow = on_terminal(60, "NO_COLOR=1");
    std::istringstream lines(narrow.substr(narrow.find("issue")));
    for (std::string line; std::getline(lines, line);) {
        EXPECT_LE(line.find_last_not_of("\r\n") + 1, 60U) << line;
    }
    EXPECT_THAT(narrow, HasSubstr("state"));
    EXPECT_THAT(on_terminal(200, "NO_COLOR=1"), HasSubstr("unread %"));
}

TEST_F(Summary, HasColoursOnlyOnATerminal) {
    scratch.write("logfile", LIFE + record("2024-05-01 10:02:10", "FAIL", "CB20", "85"));
    EXPECT_THAT(on_terminal(120, "NO_COLOR="), HasSubstr("\033[31mFAIL\033[0m"));
    EXPECT_THAT(on_terminal(120, "NO_COLOR=1"), Not(HasSubstr("\033")));
    EXPECT_THAT(on_terminal(120, "TERM=dumb"), Not(HasSubstr("\033")));
    EXPECT_THAT(run(log, "unset NO_COLOR;").out, Not(HasSubstr("\033")));
}

TEST_F(Summary, ReadsAClockThatSays1970) {
    scratch.write("logfile", header("1970-01-01 00:00:10", "START") +
                                 record("1970-01-01 00:00:10", "OK", "CB20", "40") +
                                 record("1970-01-01 00:00:20", "OK", "CB20", "41"));
    const Ran ran = run("--json north=" + log);
    EXPECT_EQ(ran.status, 0) << ran.err;
    EXPECT_THAT(ran.out, AllOf(HasSubstr("\"first\":\"1970-01-01T00:00:10+00:00\""), HasSubstr("\"ok_seconds\":10,"),
                               HasSubstr("\"gaps\":0")));
}

// Each value occurs once: more values than fit into memory.
TEST_F(Summary, IsExactForAnyNumberOfValues) {
    std::string text = header("2024-05-01 10:00:00", "START");
    for (int value = 0; value < 5000; ++value) {
        text += record(vlog::local_text(1714557600 + 10 * value), "OK", "CB20", std::to_string(value * 7919 % 5000));
    }
    scratch.write("logfile", text);
    EXPECT_THAT(run("--json north=" + log).out, HasSubstr("\"min\":0,\"median\":2499,\"p95\":4749,\"max\":4999,"));
    const Ran ran = run("--json north=" + log, "TMPDIR=" + (scratch / "missing"));
    EXPECT_EQ(ran.status, 1);
    EXPECT_THAT(ran.err, HasSubstr("temporary file: No such file or directory"));
    EXPECT_THAT(ran.out, HasSubstr("\"min\":0,\"median\":null,"));
}

// Many lines of the table, and checks with more values than fit into memory, in the largest blocks.
TEST_F(Summary, UsesLittleMemory) {
    std::string text;
    for (int line = 0; line < 40000; ++line) {
        text += line % 4 == 0
                    ? "##\tname " + std::to_string(line) + "\tCB20\t" + std::to_string(line % 32) + "\t10\t" + "\n"
                    : "2024-05-01 10:00:00\tOK\tCB20\t" + std::to_string(line % 32) + "\t" +
                          std::to_string(line * 7919LL % 2000003) + "\n";
    }
    for (const char *name : {"logfile.000.bz2", "logfile.001.bz2", "logfile.002.bz2", "logfile.003.bz2"}) {
        scratch.write(name, bzip2(name + ("\n" + text), "-9")); // no file begins with another
    }
    for (const char *words : {"--json ", "export --format openmetrics "}) {
        const Ran ran = run(words + ("north=" + scratch.path().string()), "", RESIDENT);
        EXPECT_EQ(ran.status, 0) << ran.err;
        const std::string last = ran.err.substr(ran.err.rfind('\n', ran.err.size() - 2) + 1);
        const long resident = std::strtol(last.c_str(), nullptr, 10);
        EXPECT_GT(resident, 1000) << ran.err;
        EXPECT_LE(resident, 32 * 1024) << "kB for " << words;
    }
}
