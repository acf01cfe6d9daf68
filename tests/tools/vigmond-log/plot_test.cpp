// The content of the page of plot; page_test.py tests the page in a browser.

#include "plot.h"

#include "bzip2_tool.h"
#include "program.h"
#include "zone.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <random>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using vlog::SpooledRecord;

namespace {

/// Decodes base64 with the system's tool.
std::string base64_decoded(const std::string &text) {
    const ScratchFolder folder;
    const std::string command = "base64 -d '" + folder.write("in", text) + "' >'" + (folder / "out") + "'";
    EXPECT_EQ(std::system(command.c_str()), 0); // NOLINT(cert-env33-c): our own command line
    return read_file(folder / "out");
}

std::string packed(const std::vector<SpooledRecord> &records) {
    std::string text;
    vlog::RecordPacker packer;
    for (const SpooledRecord &record : records) {
        packer.add(record, &text);
    }
    packer.finish(&text);
    return base64_decoded(text);
}

std::vector<vlog::Moment> thinned(const std::vector<SpooledRecord> &records, std::uint64_t group) {
    std::vector<vlog::Moment> times;
    vlog::Thinner thinner(group);
    const auto keep = [&times](const SpooledRecord &record) { times.push_back(record.time); };
    for (const SpooledRecord &record : records) {
        thinner.add(record, keep);
    }
    thinner.finish(keep);
    return times;
}

struct Plot : Program {};

} // namespace

// By hand: 16 times the change of the step (8 less if negative, by its absolute value), plus 2 times the state, plus 1
// without a value.
TEST(RecordPacker, PacksAUsualRecordInTwoBytes) {
    EXPECT_EQ(packed({{.time = 1000, .value = 42, .state = 0, .readable = 1},
                      {.time = 1010, .value = 42, .state = 0, .readable = 1},
                      {.time = 1020, .value = 41, .state = 1, .readable = 1},
                      {.time = 1030, .value = 0, .state = 1, .readable = 0},
                      {.time = 1035, .value = 43, .state = 2, .readable = 1}}),
              std::string({0, 84, '\xA0', 1, 0, 2, 1, 3, 4 + 9 * 8, 4}));
}

TEST(RecordPacker, PacksTheLargestNumbers) {
    EXPECT_EQ(packed({{.time = 0, .value = INT32_MIN, .state = 0, .readable = 1},
                      {.time = 4294967296, .value = INT32_MAX, .state = 0, .readable = 1}}),
              std::string("\x00\xFF\xFF\xFF\xFF\x0F\x80\x80\x80\x80\x80\x02\xFE\xFF\xFF\xFF\x1F", 17));
}

TEST(Thinner, KeepsOutliers) {
    std::vector<SpooledRecord> records;
    records.reserve(30);
    for (int number = 0; number < 30; ++number) {
        records.push_back({.time = number, .value = 42, .state = 0, .readable = 1});
    }
    records[3].value = 99;
    records[14].value = -7;
    records[16] = {.time = 16, .value = 0, .state = 2, .readable = 0};
    records[25].state = 1;
    EXPECT_THAT(thinned(records, 1), testing::SizeIs(30));
    EXPECT_THAT(thinned(records, 5), ElementsAre(0, 3, 14, 15, 16));
    EXPECT_THAT(thinned({records.begin() + 20, records.end()}, 3), ElementsAre(20, 25, 29));
}

TEST(HtmlText, HasNoElements) {
    EXPECT_EQ(vlog::html_text("<b a=\"1\">&\n\xff"), "&lt;b a=&quot;1&quot;&gt;&amp;?\xEF\xBF\xBD");
}

TEST_F(Plot, ListsChangesAsTextAndSkipsAnUnsetClock) {
    scratch.write("logfile", header("1970-01-01 00:00:10", "START") + record("1970-01-01 00:00:20", "OK", "CB20", "1") +
                                 record("2024-05-01 10:00:00", "OK", "CB20", "42") +
                                 record("2024-05-01 10:00:10", "FAIL", "CB20", "85") +
                                 record("2024-05-01 10:00:05", "FAIL", "CB20", "85"));
    const Ran ran = run("plot -o " + (scratch / "page.html") + " north=" + (scratch / "logfile"));
    EXPECT_EQ(ran.status, 0) << ran.err;
    EXPECT_THAT(ran.err, HasSubstr("north: 1 records are left out, because the clock was set back"));
    const std::string page = read_file(scratch / "page.html");
    EXPECT_THAT(page, HasSubstr("<title>north: 2024-05-01 10:00:00 to 2024-05-01 10:00:10</title>"));
    EXPECT_THAT(page, HasSubstr("data-time=\"1714557610\" data-strip=\"strip-0-0\">2024-05-01 10:00:10</button></td>"
                                "<td>CB20[0] temperature</td><td>OK \xE2\x86\x92 FAIL, value 85, after 10s</td>"));
    EXPECT_THAT(page, HasSubstr("\"begin\":1714557600,\"count\":2}"));
    EXPECT_THAT(page, Not(HasSubstr("http://")));
}

// A browser needs a second for the layout of thousands of rows.
TEST_F(Plot, FoldsMoreThanFiveHundredChanges) {
    std::string log = header("2024-05-01 10:00:00", "START");
    ASSERT_TRUE(vlog::zone_set("UTC"));
    const auto add = [&log](int i) { // a change every ten seconds
        const std::string time = vlog::local_text(1714557600 + 10 * i);
        log += record(time, i % 2 == 0 ? "OK" : "FAIL", "CB20", i % 2 == 0 ? "42" : "85");
    };
    const auto page = [&] {
        const Ran ran = run("plot -o " + (scratch / "page.html") + " " + scratch.write("logfile", log));
        EXPECT_EQ(ran.status, 0) << ran.err;
        const std::string text = read_file(scratch / "page.html");
        return text.substr(std::min(text.find("<details"), text.size()), 60);
    };
    for (int i = 0; i < 500; ++i) { // the first is no change
        add(i);
    }
    EXPECT_THAT(page(), HasSubstr("<details open><summary>500 changes and events</summary>")); // with the start
    add(500);
    EXPECT_THAT(page(), HasSubstr("<details><summary>501 changes and events</summary>"));
}

TEST_F(Plot, LeavesNoPartialPageOnAFullDisk) {
    const std::string log = scratch.write("logfile", header("2024-05-01 10:00:00", "START") +
                                                         record("2024-05-01 10:00:00", "OK", "CB20", "42"));
    std::filesystem::create_directory(scratch / "full");
    const std::string words = "plot -o " + (scratch / "full/page.html") + " " + log;
    Ran ran = run(words, "ulimit -f 100; trap '' XFSZ;");
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.err, "vigmond-log: " + (scratch / "full/page.html") + ": File too large\n");
    EXPECT_TRUE(std::filesystem::is_empty(scratch / "full"));
    ran = run(words, "TMPDIR=" + (scratch / "missing"));
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.err, "vigmond-log: temporary file: No such file or directory\n");
    EXPECT_TRUE(std::filesystem::is_empty(scratch / "full"));
}

TEST_F(Plot, WritesNoPageWithoutRecords) {
    const std::string log = scratch.write("logfile", header("2024-05-01 10:00:00", "START"));
    const Ran ran = run("plot -o " + (scratch / "page.html") + " " + log);
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.err, "vigmond-log: there are no records to plot\n");
    EXPECT_FALSE(std::filesystem::exists(scratch / "page.html"));
}
