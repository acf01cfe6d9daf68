#include "line.h"

#include "scratch_folder.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <sstream>

using vlog::CommentReader;
using vlog::Level;
using vlog::level_of;
using vlog::Record;
using vlog::RecordReader;
using vlog::State;

namespace {

constexpr vlog::LocalTime MAY_FIRST = 1714557600; // 2024-05-01 10:00:00

Record read(const std::string &line) {
    RecordReader reader;
    Record record;
    EXPECT_TRUE(reader.read(line, &record)) << line;
    return record;
}

bool is_record(const std::string &line) {
    RecordReader reader;
    Record record;
    return reader.read(line, &record);
}

} // namespace

TEST(RecordLine, HasTimeStateIssueIndexAndValue) {
    const Record record = read("2024-05-01 10:00:00\tWARN\tCB05\t7\t-42");
    EXPECT_EQ(record.local, MAY_FIRST);
    EXPECT_EQ(record.state, State::warn);
    EXPECT_EQ(record.check.issue, 5);
    EXPECT_EQ(record.check.index, 7);
    EXPECT_TRUE(record.readable);
    EXPECT_EQ(record.value, -42);
}

TEST(RecordLine, HasNoValueIfItCouldNotBeRead) {
    const Record record = read("2024-05-01 10:00:00\tWARN\tCB05\t0\tNaN");
    EXPECT_FALSE(record.readable);
    EXPECT_EQ(record.value, 0);
}

TEST(RecordLine, MayBeOfAnUnsetIssueAnUnknownStateAndTheLargestValues) {
    const Record record = read("2024-05-01 10:00:00\tINV\tCBnn\t65535\t-2147483648");
    EXPECT_EQ(record.check.issue, vlog::UNSET_ISSUE);
    EXPECT_EQ(record.state, State::invalid);
    EXPECT_EQ(record.value, INT32_MIN);
    EXPECT_EQ(read("2024-05-01 10:00:00\tOK\tCB123\t0\t2147483647").value, INT32_MAX);
}

TEST(RecordLine, IsReadQuicklyWhenItLooksLikeMost) {
    const std::string front = "2024-05-01 10:00:00\t";
    const std::string following = "\n" + std::string(64, 'x');
    for (const char *const rest : {"OK\tCB20\t0\t45", "WARN\tCB05\t7\t-42", "FAIL\tCB00\t9\t999999999"}) {
        const std::string line = front + rest;
        RecordReader reader;
        Record record;
        EXPECT_EQ(reader.read_usual(line + following, &record), line.size() + 1) << rest;
        const Record careful = read(line);
        EXPECT_EQ(record.local, MAY_FIRST);
        EXPECT_EQ(record.state, careful.state) << rest;
        EXPECT_EQ(record.check, careful.check) << rest;
        EXPECT_EQ(record.readable, careful.readable) << rest;
        EXPECT_EQ(record.value, careful.value) << rest;
    }
}

TEST(RecordLine, IsLeftToTheCarefulReaderWhenItLooksUnusual) {
    const std::string more(64, 'x');
    for (const char *const line :
         {"2024-05-01 10:00:00\tOK\tCB20\t0\t1234567890\n", "2024-05-01 10:00:00\tOK\tCB20\t0\t-\n",
          "2024-05-01 10:00:00\tOK\tCB20\t0\t\n", "2024-05-01 10:00:00\tOK\tCB20\t0\t5\r\n",
          "2024-05-01 10:00:00\tOK\tCB20\t0\tNaN\n", "2024-05-01 10:00:00\tOK\tCB20\t10\t5\n",
          "2024-05-01 10:00:00\tOK\tCB123\t0\t5\n", "2024-05-01 10:00:00\tOK\tCBnn\t0\t5\n",
          "2024-05-01 10:00:00\tINV\tCB20\t0\t5\n", "2024-05-01 10:00:61\tOK\tCB20\t0\t5\n",
          "2024-05-01 10:00:00 OK\tCB20\t0\t5\n", "## text\n", "\n"}) {
        RecordReader reader;
        Record record;
        EXPECT_EQ(reader.read_usual(line + more, &record), 0U) << line;
    }
    RecordReader reader;
    Record record;
    EXPECT_EQ(reader.read_usual("2024-05-01 10:00:00\tOK\tCB20\t0\t5\n", &record), 0U); // too near the end of the text
}

// Days from the calendar, by hand: 1970-01-01, the leap days of 2000 and 2024, the ends of 32-bit times.
TEST(RecordLine, HasTheCalendarsTime) {
    EXPECT_EQ(read("1970-01-01 00:00:07\tOK\tCB20\t0\t1").local, 7);
    EXPECT_EQ(read("2000-02-29 00:00:00\tOK\tCB20\t0\t1").local, 951782400);
    EXPECT_EQ(read("2024-02-29 23:59:60\tOK\tCB20\t0\t1").local, 1709251200);
    EXPECT_EQ(read("2038-01-19 03:14:08\tOK\tCB20\t0\t1").local, 2147483648);
    EXPECT_EQ(read("2106-02-07 06:28:16\tOK\tCB20\t0\t1").local, 4294967296);
}

TEST(RecordLine, OfTheSameMinuteIsReadAgain) {
    RecordReader reader;
    Record record;
    ASSERT_TRUE(reader.read("2024-05-01 10:00:59\tOK\tCB20\t0\t1", &record));
    ASSERT_TRUE(reader.read("2024-05-01 10:00:07\tOK\tCB20\t0\t1", &record));
    EXPECT_EQ(record.local, MAY_FIRST + 7);
    EXPECT_FALSE(reader.read("2024-05-01 10:00:61\tOK\tCB20\t0\t1", &record));
    EXPECT_FALSE(reader.read("2024-05-01 10:00-07\tOK\tCB20\t0\t1", &record));
    ASSERT_TRUE(reader.read("2024-05-01 10:01:00\tOK\tCB20\t0\t1", &record));
    EXPECT_EQ(record.local, MAY_FIRST + 60);
}

TEST(RecordLine, WithoutATimeIsARecord) {
    EXPECT_EQ(read("0000-00-00 00:00:00\tOK\tCB20\t0\t42").local, vlog::NO_TIME);
}

TEST(RecordLine, IsNothingElse) {
    for (const char *line : {"",
                             "2024-05-01 10:00:00",
                             "2024-05-01 10:00:00\t",
                             "2024-05-01 10:00:00\tOK\tCB20\t0",
                             "2024-05-01 10:00:00\tOK\tCB20\t0\t",
                             "2024-05-01 10:00:00\tOK\tCB20\t0\t4##",
                             "2024-05-01 10:00:00\tOK\tCB20\t0\t4\t",
                             "2024-05-01 10:00:00\tOK\tCB20\t0\t2147483648",
                             "2024-05-01 10:00:00\tOK\tCB20\t-1\t4",
                             "2024-05-01 10:00:00\tOK\tCB20\t65536\t4",
                             "2024-05-01 10:00:00\tok\tCB20\t0\t4",
                             "2024-05-01 10:00:00\tOK\tCB\t0\t4",
                             "2024-05-01 10:00:00\tOK\tCB2\t0\t4",
                             "2024-05-01 10:00:00\tOK\tCB99999\t0\t4",
                             "2024-05-01 10:00:00\tOK\tCBnm\t0\t4",
                             "2023-02-29 10:00:00\tOK\tCB20\t0\t4",
                             "2024-13-01 10:00:00\tOK\tCB20\t0\t4",
                             "2024-05-01 24:00:00\tOK\tCB20\t0\t4",
                             "2024-05-01T10:00:00\tOK\tCB20\t0\t4",
                             "2024-05-0a 10:00:00\tOK\tCB20\t0\t4",
                             "2024-05-01 10:00:00 OK CB20 0 4",
                             "Mar  1 10:00:00 station kernel: something else"}) {
        EXPECT_FALSE(is_record(line)) << line;
    }
    EXPECT_FALSE(is_record(std::string(30, '\0')));
}

namespace {

struct Header : testing::Test {
    /// Passes the lines to the reader and collects the table.
    std::vector<vlog::Definition> table(const std::string &text) {
        std::vector<vlog::Definition> found;
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            if (reader.read(line) == CommentReader::Found::definition) {
                found.push_back(reader.definition());
            }
        }
        return found;
    }
    CommentReader reader;
};

} // namespace

TEST_F(Header, HasTheTableOfChecks) {
    const std::string text = read_file(GOLDEN_HEADER);
    const std::vector<vlog::Definition> found = table(text);
    constexpr int lines_without_a_check = 6; // the empty ones, the command line, the headings
    ASSERT_EQ(found.size(), std::count(text.begin(), text.end(), '\n') - lines_without_a_check);
    EXPECT_EQ(found[0], (vlog::Definition{.check = {20, 0},
                                          .name = "temperature",
                                          .parameter = "/sys/class/thermal/thermal_zone0/temp",
                                          .interval = 10,
                                          .minfail = -40,
                                          .minwarn = -30,
                                          .maxwarn = 70,
                                          .maxfail = 80}));
    EXPECT_EQ(found[6].name, "memoryusage");
    EXPECT_EQ(found[6].parameter, "");
    EXPECT_EQ(found[6].minwarn, 25);
    EXPECT_EQ(found[6].maxwarn, std::nullopt);
    EXPECT_EQ(found[19].check, (vlog::CheckId{22, 7}));
    EXPECT_EQ(found[20].parameter, "hostapd nginx ocppd rauc stationd wpa_supplicant corvana-portapi");
}

TEST_F(Header, OfAnotherVersionIsReadByItsHeadings) {
    const std::vector<vlog::Definition> found = table("##\tname\tunit\tID\tID\tinter-\tmax\tmin\tparam\n"
                                                      "##\t\t\t\tindex\tval\tfail\twarn\t\n"
                                                      "##\tfan\trpm\tCBnn\t3\t30\t9000\t-5\t/dev/fan\ta\n");
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0], (vlog::Definition{.check = {vlog::UNSET_ISSUE, 3},
                                          .name = "fan",
                                          .parameter = "/dev/fan",
                                          .interval = 30,
                                          .minfail = std::nullopt,
                                          .minwarn = -5,
                                          .maxwarn = std::nullopt,
                                          .maxfail = 9000}));
}

TEST_F(Header, IsNotReadFromDamagedLines) {
    EXPECT_TRUE(table("##\n##\tname\n##\n##\ttemperature\n##\ttemperature\tCB20\n##\tx\tCB20\t-1\n##\t\t\t\t\t\t\t\n"
                      "## date    time    \tstate\tID\tindex\tvalue\n" +
                      ("##" + std::string(100, '\t')) + "\n")
                    .empty());
}

TEST(MarkerLine, HasTimeOccasionAndCommandLine) {
    CommentReader reader;
    ASSERT_EQ(reader.read("##\t2024-05-01 10:00:00\tFINISHED\tvigmond \"-L\" \"a\tb\""), CommentReader::Found::marker);
    EXPECT_EQ(reader.marker().local, MAY_FIRST);
    EXPECT_EQ(reader.marker().occasion, vlog::Occasion::finished);
    EXPECT_EQ(reader.marker().command_line, "vigmond \"-L\" \"a\tb\"");
    ASSERT_EQ(reader.read("##\t2024-05-01 10:00:00\tSTART"), CommentReader::Found::marker);
    EXPECT_EQ(reader.marker().command_line, "");
    EXPECT_EQ(reader.read("##\t2024-05-01 10:00:00\tSTAR"), CommentReader::Found::nothing);
    EXPECT_EQ(reader.read("##\t2024-05-01 10:00\tSTART\tvigmond"), CommentReader::Found::nothing);
}

TEST(CommandLine, SetsTheLevel) {
    EXPECT_EQ(level_of("vigmond"), Level::all);
    EXPECT_EQ(level_of(R"(vigmond "-l" "fail")"), Level::failures);
    EXPECT_EQ(level_of(R"(vigmond "-lWARNING" "-S" "10")"), Level::warnings);
    EXPECT_EQ(level_of(R"(vigmond "--loglevel=warning")"), Level::warnings);
    EXPECT_EQ(level_of(R"(vigmond "--loglevel" "fail" "--loglevel=OK")"), Level::all);
    EXPECT_EQ(level_of(R"(vigmond "-l" "nonsense")"), Level::all);
    EXPECT_EQ(level_of(R"(vigmond "-l)"), Level::all);
    EXPECT_EQ(level_of(R"(vigmond "-L" "fail")"), Level::all);
}
