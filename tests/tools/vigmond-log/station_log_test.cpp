#include "station_log.h"

#include "bzip2_tool.h"
#include "log_text.h"
#include "scratch_folder.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Log : testing::Test {
    Log() { EXPECT_TRUE(vlog::zone_set("UTC")); }

    /// Writes the text as a generation.
    [[nodiscard]] std::string packed(const std::string &name, const std::string &text) const {
        return folder.write(name, bzip2(text, "-1"));
    }
    ScratchFolder folder;
};

const std::string AT_TEN = header("2024-05-01 10:00:00", "START");
const std::string FIRST = record("2024-05-01 10:00:00", "OK", "CB20", "42");
const std::string SECOND = record("2024-05-01 10:00:10", "WARN", "CB20", "NaN");
const std::string THIRD = record("2024-05-01 10:00:20", "FAIL", "CB20", "85");
constexpr const char *START_SEEN = "2024-05-01T10:00:00+00:00 start";
constexpr const char *FIRST_SEEN = "2024-05-01T10:00:00+00:00 OK CB20[0] 42";
constexpr const char *SECOND_SEEN = "2024-05-01T10:00:10+00:00 WARN CB20[0] NaN";
constexpr const char *THIRD_SEEN = "2024-05-01T10:00:20+00:00 FAIL CB20[0] 85";

} // namespace

TEST_F(Log, IsReadInTheOrderOfItsFiles) {
    const ReadLog log = read_log(
        {packed("logfile.001.bz2", AT_TEN + FIRST),
         packed("logfile.000.bz2", header("2024-05-01 10:00:05", "ROTATE") + SECOND),
         folder.write("logfile", header("2024-05-01 10:00:15", "ROTATE") + THIRD + finished("2024-05-01 10:00:25"))});
    EXPECT_THAT(log.events,
                ElementsAre(START_SEEN, FIRST_SEEN, "2024-05-01T10:00:05+00:00 rotate", SECOND_SEEN,
                            "2024-05-01T10:00:15+00:00 rotate", THIRD_SEEN, "2024-05-01T10:00:25+00:00 finished"));
    EXPECT_EQ(log.counts.records, 3U);
    EXPECT_EQ(log.counts.foreign_lines, 0U);
    ASSERT_EQ(log.checks.size(), 2U);
    EXPECT_EQ(log.checks[0].name, "temperature");
    EXPECT_THAT(log.problems, IsEmpty());
}

TEST_F(Log, DistinguishesAKillFromAnOrderlyEnd) {
    const std::string text = AT_TEN + FIRST + header("2024-05-01 11:00:00", "START") + finished("2024-05-01 11:00:01") +
                             header("2024-05-01 11:00:01", "ROTATE") + header("2024-05-01 12:00:00", "START") +
                             header("2024-05-01 13:00:00", "START");
    const ReadLog log = read_log({folder.write("logfile", text)});
    EXPECT_THAT(log.events, ElementsAre(START_SEEN, FIRST_SEEN, "2024-05-01T11:00:00+00:00 unclean start",
                                        "2024-05-01T11:00:01+00:00 finished", "2024-05-01T11:00:01+00:00 rotate",
                                        "2024-05-01T12:00:00+00:00 start", "2024-05-01T13:00:00+00:00 unclean start"));
    EXPECT_EQ(log.counts.starts, 4U);
    EXPECT_EQ(log.counts.unclean_ends, 2U);
}

TEST_F(Log, CountsForeignLines) {
    const std::string zeros(4096, '\0');
    const std::string text = "garbage\n" + AT_TEN + zeros + FIRST + "\n2024-05-01 10:00:05\tOK\tCB##\n" + SECOND;
    const ReadLog log = read_log({folder.write("logfile", text + "2024-05-01 10:00:20\tOK\tCB20\t0\t8")});
    EXPECT_THAT(log.events, ElementsAre(START_SEEN, SECOND_SEEN));
    EXPECT_EQ(log.counts.foreign_lines, 5U) << "garbage, zeros before a record, an empty line, two torn ones";
}

TEST_F(Log, CountsALineWithoutEndAsOne) {
    const ReadLog log = read_log({folder.write("logfile", std::string(1000000, 'x') + "\n" + FIRST)});
    EXPECT_THAT(log.events, ElementsAre(FIRST_SEEN));
    EXPECT_EQ(log.counts.foreign_lines, 1U);
    EXPECT_EQ(read_log({folder.write("logfile", std::string(1000000, 'x'))}).counts.foreign_lines, 1U);
}

TEST_F(Log, ReadsACopyWithOtherLineEnds) {
    const ReadLog log = read_log({folder.write("logfile", FIRST.substr(0, FIRST.size() - 1) + "\r\n")});
    EXPECT_THAT(log.events, ElementsAre(FIRST_SEEN));
}

TEST_F(Log, SkipsDuplicateRecords) {
    const ReadLog log = read_log({folder.write("logfile", AT_TEN + FIRST + FIRST + SECOND + SECOND)});
    EXPECT_THAT(log.events, ElementsAre(START_SEEN, FIRST_SEEN, SECOND_SEEN));
    EXPECT_EQ(log.counts.records, 2U);
    EXPECT_EQ(log.counts.repeated, 2U);
}

// A power cut between the two steps of a rotation, after which the daemon continues to write.
TEST_F(Log, ReadsALogThatIsAlsoAGenerationOnce) {
    const ReadLog log =
        read_log({packed("logfile.000.bz2", AT_TEN + FIRST + SECOND),
                  folder.write("logfile", AT_TEN + FIRST + SECOND + header("2024-05-01 10:00:15", "START") + THIRD)});
    EXPECT_THAT(log.events, ElementsAre(START_SEEN, FIRST_SEEN, SECOND_SEEN, "2024-05-01T10:00:15+00:00 unclean start",
                                        THIRD_SEEN));
}

TEST_F(Log, ReadsAFileThatOnlyBeginsLikeTheOneBefore) {
    const ReadLog log = read_log({packed("logfile.000.bz2", AT_TEN + FIRST + SECOND), // two starts on 1970's clock
                                  folder.write("logfile", AT_TEN + FIRST + THIRD)});
    EXPECT_THAT(log.events,
                ElementsAre(START_SEEN, FIRST_SEEN, SECOND_SEEN,
                            "2024-05-01T10:00:00+00:00 set back by 10 unclean start", FIRST_SEEN, THIRD_SEEN));
}

TEST_F(Log, NamesDamagedFilesAndReadsTheOthers) {
    const std::string whole = bzip2(AT_TEN + FIRST, "-1");
    std::string damaged = bzip2(log_text(300000), "-1");
    damaged[damaged.size() / 2] ^= 1;
    const ReadLog log = read_log(
        {folder.write("logfile.005.bz2", whole.substr(0, whole.size() - 20)), folder.write("logfile.004.bz2", damaged),
         folder.write("logfile.003.bz2", ""), folder.write("logfile.002.bz2", "no bzip2"),
         folder.write("logfile.001.bz2", whole + "tail"), folder / "logfile.missing", folder.write("logfile", SECOND)});
    EXPECT_THAT(log.problems,
                ElementsAre("logfile.005.bz2 is truncated", "logfile.004.bz2 is damaged", "logfile.003.bz2 is empty",
                            "logfile.002.bz2 is not packed with bzip2", "logfile.001.bz2 has something after its end",
                            "logfile.missing No such file or directory"));
    EXPECT_GT(log.counts.records, 2000U) << "the blocks before the damaged one";
    EXPECT_EQ(log.events.back(), SECOND_SEEN);
}

TEST_F(Log, ReadsSeveralStreamsOfAnyBlockSize) {
    const std::string path =
        folder.write("logfile.000.bz2", bzip2(AT_TEN, "-9") + bzip2("", "-1") + bzip2(FIRST, "-5"));
    EXPECT_THAT(read_log({path}).events, ElementsAre(START_SEEN, FIRST_SEEN));
}

TEST_F(Log, ReportsThatTheClockWasSetBack) {
    const ReadLog log = read_log({folder.write("logfile", THIRD + FIRST)});
    EXPECT_THAT(log.events, ElementsAre(THIRD_SEEN, "2024-05-01T10:00:00+00:00 set back by 20 OK CB20[0] 42"));
}

TEST_F(Log, GivesARecordWithoutTimeThePreviousTime) {
    const std::string timeless = record("0000-00-00 00:00:00", "OK", "CB21", "7");
    const ReadLog log = read_log({folder.write("logfile", timeless + FIRST + timeless)});
    EXPECT_THAT(log.events, ElementsAre(FIRST_SEEN, "2024-05-01T10:00:00+00:00 OK CB21[0] 7"));
    EXPECT_EQ(log.counts.foreign_lines, 1U);
}

TEST_F(Log, LimitsTheNumberOfChecks) {
    std::string text;
    for (int index = 0; index < 300; ++index) {
        text += "2024-05-01 10:00:00\tOK\tCBnn\t" + std::to_string(index) + "\t1\n";
    }
    const ReadLog log = read_log({folder.write("logfile", text)});
    EXPECT_EQ(log.counts.records, vlog::MOST_CHECKS);
    EXPECT_EQ(log.counts.foreign_lines, 300 - vlog::MOST_CHECKS);
}

TEST_F(Log, TakesANewTableOfChecks) {
    std::string other = header("2024-05-01 10:00:15", "START");
    other.replace(other.find("    70"), 6, "    60");
    const ReadLog log = read_log({folder.write("logfile", AT_TEN + FIRST + other)});
    EXPECT_EQ(log.checks[0].maxwarn, 60);
}
