#include "timeline.h"

#include "log_text.h"
#include "scratch_folder.h"

#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// A log of temperature and memory, both due every 10 s, and its timeline.
class Course : public testing::Test {
  public:
    Course() { EXPECT_TRUE(vlog::zone_set("UTC")); }

    /// Adds a record `seconds` after 10:00.
    void at(int seconds, const std::string &state, const std::string &value = "42", const std::string &check = "CB20") {
        text += record(stamp(seconds), state, check, value);
    }
    static std::string stamp(int seconds) { return vlog::local_text(1714557600 + seconds); }

    std::vector<std::string> follow() {
        std::vector<std::string> found;
        vlog::StationLog log({.name = "", .paths = {folder.write("logfile", text)}}, 1, nullptr,
                             [](const auto &, const auto &) { FAIL(); });
        vlog::Timeline timeline(log);
        vlog::Event event;
        while (log.next(&event)) {
            timeline.take(event);
            const std::string time = std::to_string(event.time - 1714557600) + ": ";
            const vlog::Step &step = timeline.step();
            if (timeline.pause()) {
                found.push_back(time + "pause of " + std::to_string(timeline.pause()->end - timeline.pause()->begin));
            }
            if (step.is_own_gap) {
                found.push_back(time + "gap of " + std::to_string(event.time - step.gap_begin));
            }
            if (step.held) {
                held[static_cast<std::size_t>(*step.held)] += step.seconds;
            }
            if (step.is_change) {
                found.push_back(time + (step.from ? vlog::state_label(*step.from) : "?") + " -> " +
                                vlog::state_label(event.state) + " after " + std::to_string(step.from_held));
            }
        }
        gaps = timeline.gaps();
        leaps = timeline.leaps();
        return found;
    }

    ScratchFolder folder;
    std::string text = header("2024-05-01 10:00:00", "START");
    std::array<std::int64_t, vlog::STATE_COUNT> held{};
    std::uint64_t gaps = 0;
    std::uint64_t leaps = 0;
};

} // namespace

TEST_F(Course, HoldsAStateFromRecordToRecord) {
    at(0, "OK");
    at(10, "OK");
    at(20, "WARN");
    at(30, "WARN");
    at(40, "FAIL");
    at(60, "OK");
    EXPECT_THAT(follow(),
                ElementsAre("20: OK -> WARN after 20", "40: WARN -> FAIL after 20", "60: FAIL -> OK after 20"));
    EXPECT_THAT(held, ElementsAre(20, 20, 20, 0));
    EXPECT_EQ(gaps, 0U);
}

TEST_F(Course, KeepsTheStateWhileTheValueCannotBeRead) {
    at(0, "WARN", "NaN");
    at(10, "OK");
    at(20, "WARN", "NaN");
    at(30, "OK");
    EXPECT_THAT(follow(), IsEmpty());
    EXPECT_THAT(held, ElementsAre(20, 0, 0, 0));
}

// Twice the interval is no gap, a second more is one.
TEST_F(Course, HasAGapAfterTwiceTheInterval) {
    at(0, "OK");
    at(20, "OK");
    at(41, "WARN");
    EXPECT_THAT(follow(), ElementsAre("41: pause of 21", "41: OK -> WARN after 20"));
    EXPECT_THAT(held, ElementsAre(20, 0, 0, 0));
    EXPECT_EQ(gaps, 1U);
}

TEST_F(Course, CountsAGapOfAllChecksOnce) {
    for (const char *check : {"CB20", "CB21"}) {
        at(0, "OK", "42", check);
    }
    for (const char *check : {"CB20", "CB21"}) {
        at(100, "OK", "42", check);
    }
    EXPECT_THAT(follow(), ElementsAre("100: pause of 100"));
    EXPECT_EQ(gaps, 1U);
}

TEST_F(Course, HasGapsOfOneCheck) {
    at(0, "OK", "42", "CB21");
    for (int seconds = 0; seconds <= 30; seconds += 10) {
        at(seconds, "OK");
    }
    at(30, "OK", "42", "CB21");
    EXPECT_THAT(follow(), ElementsAre("30: gap of 30"));
    EXPECT_EQ(gaps, 1U);
    EXPECT_THAT(held, ElementsAre(30, 0, 0, 0));
}

TEST_F(Course, HoldsNothingAcrossAStart) {
    at(0, "WARN");
    text += header(stamp(5), "START");
    at(10, "WARN");
    text += finished(stamp(15)) + header(stamp(4000), "START");
    at(4000, "OK");
    at(4010, "OK");
    EXPECT_THAT(follow(), ElementsAre("4000: WARN -> OK after 0"));
    EXPECT_THAT(held, ElementsAre(10, 0, 0, 0));
    EXPECT_EQ(gaps, 0U);
}

TEST_F(Course, HoldsNothingWhenTheClockIsSet) {
    at(0, "OK");
    at(10, "OK");
    at(-3600, "OK");
    at(-3590, "OK");
    at(200000, "OK");
    EXPECT_THAT(follow(), ElementsAre("200000: pause of 203590"));
    EXPECT_THAT(held, ElementsAre(20, 0, 0, 0));
    EXPECT_EQ(gaps, 0U);
    EXPECT_EQ(leaps, 2U);
}

// OK records are not written, so that silence means nothing.
TEST_F(Course, HasNoGapsWhenOnlyWarningsAreWritten) {
    text = header("2024-05-01 10:00:00", "START", "vigmond \"-l\" \"warning\"");
    at(0, "WARN");
    at(10, "WARN");
    at(500, "WARN");
    at(510, "FAIL");
    EXPECT_THAT(follow(), ElementsAre("500: ? -> WARN after 10", "510: WARN -> FAIL after 10"));
    EXPECT_THAT(held, ElementsAre(0, 20, 0, 0));
    EXPECT_EQ(gaps, 0U);
}

// A check that ends, such as WiFi that is no longer used, is not a pause of the station.
TEST_F(Course, DoesNotMistakeTheEndOfACheckForAPause) {
    text.replace(text.find("    10\t    10\t    25"), 6, "    60");
    at(0, "OK");
    for (int seconds = 0; seconds <= 240; seconds += 60) {
        at(seconds, "OK", "42", "CB21");
    }
    EXPECT_THAT(follow(), ElementsAre("60: pause of 60"));
    EXPECT_EQ(gaps, 1U);
}

TEST_F(Course, HasNoGapsWithoutATableOfChecks) {
    text.clear();
    at(0, "OK");
    at(10000, "WARN");
    EXPECT_THAT(follow(), ElementsAre("10000: OK -> WARN after 10000"));
}
