// The daemon against the model: a random life of the station without a difference between what the model
// foretells and what the daemon shows.
//     VIGMOND_SEED=n         that life instead of the usual ones
//     VIGMOND_HEARTBEATS=n   that long

#include "model/duet.h"
#include "model/script.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iostream>

using model::Duet;
using model::Script;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr unsigned HEARTBEATS = 5000; // a life

std::uint64_t number_in(const char *variable, std::uint64_t otherwise) {
    const char *text = std::getenv(variable);
    return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

/// The report of the first difference; empty when there is none.
std::string live(std::uint64_t seed, std::uint64_t heartbeats, std::vector<model::Check> checks) {
    Script script(seed, STATION_LOAD_LOGGER);
    Duet duet(script.setup(), script.settings(), std::move(checks));
    duet.start();
    while (duet.beats_done() < heartbeats && duet.difference().empty()) {
        const std::int64_t now = script.next_beat(duet.now());
        for (const model::Input &input : script.inputs(now)) {
            duet.put(input);
        }
        duet.beat(now);
        for (const model::Input &question : script.questions()) {
            duet.put(question);
        }
    }
    duet.stop();
    if (duet.difference().empty()) {
        return "";
    }
    return "seed " + std::to_string(seed) + "\n" + duet.difference() + "again: VIGMOND_SEED=" + std::to_string(seed) +
           " VIGMOND_HEARTBEATS=" + std::to_string(duet.beats_done()) +
           " station_model_test --gtest_filter='*RandomLife*'\n";
}

} // namespace

class RandomLife : public testing::TestWithParam<std::uint64_t> {};

TEST_P(RandomLife, IsAsForetold) {
    const std::uint64_t seed = number_in("VIGMOND_SEED", GetParam());
    const std::uint64_t heartbeats = number_in("VIGMOND_HEARTBEATS", HEARTBEATS);
    std::cout << "VIGMOND_SEED=" << seed << " VIGMOND_HEARTBEATS=" << heartbeats << '\n';
    EXPECT_EQ(live(seed, heartbeats, model::built_in_checks()), "");
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomLife, testing::Values(1, 2, 3, 4));
