// Reads back what a daemon wrote on random input, record for record. VIGMOND_SEED=n selects another input.

#include "from_environment.h"
#include "log_folder.h"
#include "log_text.h"
#include "model/life.h"
#include "status_log.h"

#include <gtest/gtest.h>

using model::Rig;
using model::RigSetup;
using model::Script;

namespace {

constexpr std::int64_t AN_HOUR_BEFORE_WINTER = 1729987200; // 2024-10-27 00:00:00 UTC
constexpr int BEATS = 80;                                  // a minute apart

/// What the station is known to have recorded.
struct Life {
    std::vector<std::string> records; ///< in all files, oldest first
    std::vector<std::int64_t> beats;
};

/// Runs a daemon from the setup's clock and reads its files before it ends.
ReadLog live(Script *script, const RigSetup &setup, Life *life, std::string *log) {
    Rig rig(setup);
    rig.start();
    std::int64_t now = setup.clock;
    life->beats.push_back(now);
    for (int beat = 0; beat < BEATS; ++beat) {
        now += 60 - now % 10;
        for (const model::Input &input : script->inputs(now)) {
            if (input.kind <= model::Input::Kind::emmc_error) { // the others need a bus
                rig.apply(input);
            }
        }
        rig.beat(now);
        life->beats.push_back(now);
    }
    std::string text;
    for (const auto &[number, generation] : rig.generations()) { // newest first
        text.insert(0, generation);
    }
    *log = rig.log_from(0);
    life->records = records_in(text + *log);
    return read_log(vlog::log_paths("/proc/" + std::to_string(rig.pid()) + "/root/var/lib/evse/vigmond").value());
}

/// The text of a record read back at that moment.
std::string line_of(const std::string &record, std::int64_t moment) {
    std::istringstream fields(record.substr(20));
    std::string state;
    std::string issue;
    std::string index;
    std::string value;
    fields >> state >> issue >> index >> value;
    return vlog::iso_text(moment) + " " + state + " " + issue + "[" + index + "] " + value;
}

/// The records with the moments of their heartbeats.
std::vector<std::string> expected(const Life &life) {
    std::vector<std::string> lines;
    auto beat = life.beats.begin();
    for (const std::string &record : life.records) {
        while (beat != life.beats.end() && model::local_stamp(*beat) != record.substr(0, 19)) {
            ++beat;
        }
        lines.push_back(beat == life.beats.end() ? "no beat at " + record : line_of(record, *beat));
    }
    return lines;
}

std::vector<std::string> records_of(const ReadLog &log) {
    std::vector<std::string> records;
    for (const std::string &event : log.events) {
        if (event.find("CB") != std::string::npos) {
            records.push_back(event);
        }
    }
    return records;
}

class DaemonsLog : public testing::TestWithParam<unsigned> {};

} // namespace

// Runs through the end of summer time, twice: the second daemon finds the log of a killed one.
TEST_P(DaemonsLog, ComesBackRecordForRecord) {
    ASSERT_TRUE(vlog::zone_set(std::string(model::TIME_ZONE).substr(3)));
    Script script(from_environment("VIGMOND_SEED", GetParam()), STATION_LOAD_LOGGER);
    RigSetup setup = script.setup();
    setup.arguments = {"-S", "10", "-C", "128"};
    setup.has_bus = false;
    setup.clock = AN_HOUR_BEFORE_WINTER + 7;
    setup.old_log.clear();
    Life life;
    std::string log;
    ReadLog seen = live(&script, setup, &life, &log);
    EXPECT_EQ(records_of(seen), expected(life));
    EXPECT_GT(life.records.size(), 400U);
    EXPECT_EQ(seen.counts.foreign_lines, 0U);
    EXPECT_EQ(seen.counts.starts, 1U);
    EXPECT_EQ(seen.checks.size(), model::built_in_checks().size());

    setup.old_log = log;
    setup.clock = life.beats.back() + 60;
    life.beats.push_back(setup.clock);
    seen = live(&script, setup, &life, &log);
    EXPECT_EQ(records_of(seen), expected(life));
    EXPECT_EQ(seen.counts.unclean_ends, 1U);
}

INSTANTIATE_TEST_SUITE_P(Seeds, DaemonsLog, testing::Values(1U));
