// A long run with random inputs, a heartbeat every ten seconds: the log, its generations and all other output
// match the model, and no resource usage grows.
// STATION_HOURS=n sets the length (8760 is a year), STATION_SEED=n selects other inputs.

#include "from_environment.h"
#include "model/life.h"
#include "process_usage.h"

#include <gtest/gtest.h>
#include <iostream>

using model::DifferentialRun;
using model::Input;
using model::RigSetup;
using model::Script;
using model::small_logs;

namespace {

constexpr unsigned DEFAULT_HOURS = 3;
constexpr unsigned USUAL_SEED = 1;
constexpr unsigned BEATS_AN_HOUR = 360;
constexpr unsigned A_THOUSAND = 1000;
constexpr unsigned BEATS_PER_REPORT = 50 * A_THOUSAND;
constexpr unsigned BEATS_WITH_BUS = 10 * A_THOUSAND; // a reconnection takes a second of real time

RigSetup with_bus_and_small_logs(RigSetup setup) {
    setup.has_bus = true;
    setup.arguments = small_logs().arguments;
    return setup;
}

/// Usage after a heartbeat with a bus, when all connections exist.
ProcessUsage usage_on_the_bus(DifferentialRun *run) {
    run->put({.kind = Input::Kind::bus_back, .target = "", .text = ""});
    run->beat();
    return usage_of(run->pid());
}

void report_progress(const DifferentialRun &run) {
    std::cout << run.beats_done() << " heartbeats, " << run.rotations() << " rotations, "
              << usage_of(run.pid()).resident_kb << " kB" << std::endl;
}

} // namespace

TEST(Endurance, LeaksNothing) {
    const unsigned beats = from_environment("STATION_HOURS", DEFAULT_HOURS) * BEATS_AN_HOUR;
    Script script(from_environment("STATION_SEED", USUAL_SEED), STATION_LOAD_LOGGER);
    script.lose_bus_every(BEATS_WITH_BUS);
    DifferentialRun run(with_bus_and_small_logs(script.setup()), small_logs());
    run.start();
    ProcessUsage at_first{};
    while (run.beats_done() < beats && run.difference().empty()) {
        live_until(run.now() - run.now() % 10 + 10, &script, &run);
        if (run.beats_done() == A_THOUSAND) {
            at_first = usage_on_the_bus(&run);
        }
        if (run.beats_done() % BEATS_PER_REPORT == 0) {
            report_progress(run);
            run.forget();
        }
    }
    report_progress(run);
    ASSERT_EQ(run.difference(), "");
    expect_as_before(usage_on_the_bus(&run), at_first);
    run.stop();
    EXPECT_EQ(run.difference(), "");
    EXPECT_GT(run.rotations(), beats / 100);
}
