// The command export. promtool, from Debian's prometheus, reads the OpenMetrics text.

#include "program.h"
#include "textfile.h"

#include <filesystem>

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

const std::string TEXT = header("2024-05-01 10:00:00", "START") + record("2024-05-01 10:00:00", "OK", "CB20", "42") +
                         record("2024-05-01 10:00:00", "WARN", "CB21", "NaN") +
                         record("2024-05-01 10:00:10", "WARN", "CB20", "72") +
                         record("2024-05-01 10:00:20", "WARN", "CB20", "NaN");

struct Export : Program {
    Export() { log = scratch.write("logfile", TEXT); }
    std::string log;
};
using Textfile = Export;

} // namespace

TEST_F(Export, WritesCsv) {
    EXPECT_EQ(run("export --format csv north=" + log).out,
              "station,time,issue,index,check,state,value\n"
              "north,2024-05-01T10:00:00+00:00,CB20,0,temperature,OK,42\n"
              "north,2024-05-01T10:00:00+00:00,CB21,0,memoryusage,WARN,\n"
              "north,2024-05-01T10:00:10+00:00,CB20,0,temperature,WARN,72\n"
              "north,2024-05-01T10:00:20+00:00,CB20,0,temperature,WARN,\n");
    std::filesystem::create_directory(scratch / "a,\"b");
    scratch.write("a,\"b/logfile", TEXT);
    EXPECT_THAT(run("export --format csv --issue CB21 '" + (scratch / "a,\"b") + "'").out,
                EndsWith("\n\"a,\"\"b\",2024-05-01T10:00:00+00:00,CB21,0,memoryusage,WARN,\n"));
}

TEST_F(Export, WritesJsonLines) {
    EXPECT_EQ(run("export --format=jsonl --since '2024-05-01 10:00:10' north=" + log).out,
              R"({"station":"north","time":"2024-05-01T10:00:10+00:00","issue":"CB20","index":0,"check":"temperature",)"
              R"("state":"WARN","value":72})"
              "\n"
              R"({"station":"north","time":"2024-05-01T10:00:20+00:00","issue":"CB20","index":0,"check":"temperature",)"
              R"("state":"WARN","value":null})"
              "\n");
}

TEST_F(Export, WritesEachSeriesInOnePiece) {
    EXPECT_EQ(run("export --format openmetrics " + log).out,
              "# HELP vigmond_check_value The value of a check, in its own unit.\n"
              "# TYPE vigmond_check_value gauge\n"
              "vigmond_check_value{issue=\"CB20\",index=\"0\",check=\"temperature\"} 42 1714557600\n"
              "vigmond_check_value{issue=\"CB20\",index=\"0\",check=\"temperature\"} 72 1714557610\n"
              "vigmond_check_value{issue=\"CB20\",index=\"0\",check=\"temperature\"} NaN 1714557620\n"
              "vigmond_check_value{issue=\"CB21\",index=\"0\",check=\"memoryusage\"} NaN 1714557600\n"
              "# HELP vigmond_check_state The state of a check: 0 is OK, 1 WARN, 2 FAIL.\n"
              "# TYPE vigmond_check_state gauge\n"
              "vigmond_check_state{issue=\"CB20\",index=\"0\",check=\"temperature\"} 0 1714557600\n"
              "vigmond_check_state{issue=\"CB20\",index=\"0\",check=\"temperature\"} 1 1714557610\n"
              "vigmond_check_state{issue=\"CB20\",index=\"0\",check=\"temperature\"} 1 1714557620\n"
              "vigmond_check_state{issue=\"CB21\",index=\"0\",check=\"memoryusage\"} 1 1714557600\n"
              "# EOF\n");
}

TEST_F(Export, NamesTheStationsAndDropsRepeatedTimes) {
    scratch.write("logfile", TEXT + record("2024-05-01 10:00:05", "OK", "CB20", "40"));
    const Ran ran = run("export --format openmetrics --issue CB20 north=" + log + " south=" + log);
    EXPECT_EQ(ran.status, 0);
    EXPECT_THAT(ran.out, HasSubstr("{station=\"south\",issue=\"CB20\",index=\"0\",check=\"temperature\"} 72 "));
    EXPECT_THAT(ran.out, Not(HasSubstr("1714557605")));
    EXPECT_THAT(ran.err, HasSubstr("north: 1 records are left out, because the clock was set back"));
}

TEST_F(Export, WritesNoSeriesWithoutRoomForTemporaryFiles) {
    const Ran ran = run("export --format openmetrics " + log, "TMPDIR=" + (scratch / "missing"));
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.err, "vigmond-log: temporary file: No such file or directory\n");
    EXPECT_EQ(ran.out, "");
}

TEST_F(Export, IsReadByPrometheus) {
    const std::string blocks = scratch / "blocks";
    ASSERT_EQ(run("export --format openmetrics -o " + (scratch / "metrics") + " north=" + log).status, 0);
    ASSERT_EQ(run("--version >/dev/null; promtool tsdb create-blocks-from openmetrics " + (scratch / "metrics") + " " +
                  blocks)
                  .status,
              0)
        << read_file(scratch / "err");
    std::filesystem::create_directory(blocks + "/wal"); // without it promtool does not open them
    const Ran found =
        run("--version >/dev/null; promtool tsdb dump --match='vigmond_check_value{check=\"temperature\"}' " + blocks);
    EXPECT_EQ(found.err, "");
    EXPECT_EQ(found.out, "{__name__=\"vigmond_check_value\", check=\"temperature\", index=\"0\", issue=\"CB20\", "
                         "station=\"north\"} 42 1714557600000\n"
                         "{__name__=\"vigmond_check_value\", check=\"temperature\", index=\"0\", issue=\"CB20\", "
                         "station=\"north\"} 72 1714557610000\n"
                         "{__name__=\"vigmond_check_value\", check=\"temperature\", index=\"0\", issue=\"CB20\", "
                         "station=\"north\"} NaN 1714557620000\n");
}

TEST_F(Textfile, HasTheCurrentValues) {
    const Ran ran = run("export --textfile " + (scratch / "v.prom") + " " + scratch.path().string());
    EXPECT_EQ(ran.status, 0) << ran.err;
    const std::string text = read_file(scratch / "v.prom");
    EXPECT_EQ(text, "# HELP vigmond_check_value The value of a check, in its own unit.\n"
                    "# TYPE vigmond_check_value gauge\n"
                    "vigmond_check_value{issue=\"CB20\",index=\"0\",check=\"temperature\"} NaN\n"
                    "vigmond_check_value{issue=\"CB21\",index=\"0\",check=\"memoryusage\"} NaN\n"
                    "# HELP vigmond_check_state The state of a check: 0 is OK, 1 WARN, 2 FAIL.\n"
                    "# TYPE vigmond_check_state gauge\n"
                    "vigmond_check_state{issue=\"CB20\",index=\"0\",check=\"temperature\"} 1\n"
                    "# HELP vigmond_check_last_record_timestamp_seconds When a check was last recorded.\n"
                    "# TYPE vigmond_check_last_record_timestamp_seconds gauge\n"
                    "vigmond_check_last_record_timestamp_seconds{issue=\"CB20\",index=\"0\",check=\"temperature\"} "
                    "1714557620\n"
                    "vigmond_check_last_record_timestamp_seconds{issue=\"CB21\",index=\"0\",check=\"memoryusage\"} "
                    "1714557600\n"
                    "# HELP vigmond_up Whether the daemon runs, according to its log.\n"
                    "# TYPE vigmond_up gauge\n"
                    "vigmond_up 0\n");
    EXPECT_EQ(run("--version >/dev/null; promtool check metrics <" + (scratch / "v.prom") + "; true").err, "");
}

// After a rotation the new log has no record yet of the checks that are due once an hour.
TEST_F(Textfile, KeepsChecksThatTheLogNoLongerHas) {
    ASSERT_EQ(run("export --textfile " + (scratch / "v.prom") + " " + log).status, 0);
    scratch.write("logfile",
                  header("2024-05-01 10:00:30", "ROTATE") + record("2024-05-01 10:00:30", "OK", "CB20", "50"));
    ASSERT_EQ(run("export --textfile " + (scratch / "v.prom") + " " + log).status, 0);
    const std::string text = read_file(scratch / "v.prom");
    EXPECT_THAT(text, HasSubstr("vigmond_check_value{issue=\"CB20\",index=\"0\",check=\"temperature\"} 50\n"
                                "vigmond_check_value{issue=\"CB21\",index=\"0\",check=\"memoryusage\"} NaN\n#"));
    EXPECT_THAT(text, HasSubstr("check=\"memoryusage\"} 1714557600\n"));
}

TEST_F(Textfile, IsMadeFromTheTailOnly) {
    std::string text = header("2024-05-01 10:00:00", "START") + record("2024-05-01 10:00:00", "OK", "CB21", "7");
    for (int second = 0; second < 100000; second += 10) {
        text += record(vlog::local_text(1714557600 + second), "OK", "CB20", "42");
    }
    std::string problem;
    ASSERT_TRUE(vlog::zone_set("UTC"));
    const auto present =
        vlog::read_present(scratch.write("logfile", text + "2024-05-02 13:46:40\tFAIL\tCB2"), &problem);
    ASSERT_TRUE(present) << problem;
    ASSERT_EQ(present->checks.size(), 2U) << "the front, read for the table of checks, has a record too";
    EXPECT_EQ(present->checks[0].check.name, "temperature");
    EXPECT_EQ(present->checks[0].time, 1714557600 + 99990);
    EXPECT_EQ(present->last, 1714557600 + 99990);
}

// It is read in pieces of 16 KiB, which end within lines.
TEST_F(Textfile, ReadsEveryRecordOfTheTail) {
    ASSERT_TRUE(vlog::zone_set("UTC"));
    const std::string other = record("2024-05-01 10:00:00", "OK", "CB20", "42");
    const std::string wanted = record("2024-05-01 10:00:10", "OK", "CB21", "7");
    const std::string begin = header("2024-05-01 10:00:00", "START");
    for (std::size_t size = 16384 - wanted.size(); size <= 16384; ++size) { // of the text before the record
        std::string text = begin;
        while (text.size() + other.size() < size) {
            text += other;
        }
        text += std::string(size - text.size() - 1, '#') + "\n" + wanted;
        std::string problem;
        const auto present = vlog::read_present(scratch.write("logfile", text), &problem);
        ASSERT_TRUE(present) << problem;
        ASSERT_EQ(present->checks.size(), 2U) << size;
        EXPECT_EQ(present->checks[1].time, 1714557610) << size;
    }
}

TEST_F(Textfile, TakesNoRecordFromAnOverlongLine) {
    ASSERT_TRUE(vlog::zone_set("UTC"));
    const std::string line = std::string(16384, 'x') + "2024-05-01 10:00:10\tFAIL\tCB21\t0\t1";
    std::string problem;
    const auto present =
        vlog::read_present(scratch.write("logfile", header("2024-05-01 10:00:00", "START") + line + "\n" +
                                                        record("2024-05-01 10:00:20", "OK", "CB20", "42")),
                           &problem);
    ASSERT_TRUE(present) << problem;
    ASSERT_EQ(present->checks.size(), 1U);
    EXPECT_EQ(present->checks[0].time, 1714557620);
}

// The tail, the last 128 KiB, begins within a line, whose rest looks like a record.
TEST_F(Textfile, TakesNoRecordFromACutLine) {
    ASSERT_TRUE(vlog::zone_set("UTC"));
    const std::string rest = record("2024-05-01 10:00:10", "FAIL", "CB21", "1");
    const std::string last = record("2024-05-01 10:00:20", "OK", "CB20", "42");
    const std::string filler = std::string(131072 - rest.size() - last.size() - 1, '#') + "\n";
    std::string problem;
    const auto present = vlog::read_present(
        scratch.write("logfile", header("2024-05-01 10:00:00", "START") + "x" + rest + filler + last), &problem);
    ASSERT_TRUE(present) << problem;
    ASSERT_EQ(present->checks.size(), 1U);
    EXPECT_EQ(present->checks[0].time, 1714557620);
}

TEST_F(Textfile, ShowsWhetherTheDaemonRuns) {
    vlog::PresentLog present;
    present.last = 1000;
    present.is_running = true;
    EXPECT_THAT(vlog::textfile_text(present, "", 1060), EndsWith("\nvigmond_up 1\n"));
    EXPECT_THAT(vlog::textfile_text(present, "", 1061), EndsWith("\nvigmond_up 0\n"));
    present.level = vlog::Level::warnings;
    EXPECT_THAT(vlog::textfile_text(present, "", 1061), EndsWith("\nvigmond_up 1\n"));
    present.is_running = false;
    EXPECT_THAT(vlog::textfile_text(present, "", 1060), EndsWith("\nvigmond_up 0\n"));
    std::string problem;
    EXPECT_FALSE(vlog::read_present(scratch.write("f", TEXT + finished("2024-05-01 10:01:00")), &problem)->is_running);
    EXPECT_TRUE(vlog::read_present(log, &problem)->is_running);
}

TEST_F(Textfile, IsKeptWithoutALog) {
    const std::string kept = scratch.write("v.prom", "kept\n");
    EXPECT_EQ(run("export --textfile " + kept + " " + (scratch / "missing")).status, 1);
    EXPECT_EQ(run("export --textfile " + kept + " /dev/null").status, 1);
    EXPECT_EQ(read_file(kept), "kept\n");
}
