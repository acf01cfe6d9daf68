// The daemon compared with the model: random lives of the station without a difference between the prediction and
// the daemon's output.
//     VIGMOND_SEED=n         runs that life instead of the usual ones
//     VIGMOND_HEARTBEATS=n   its length

#include "from_environment.h"
#include "model/healthy_station.h"
#include "model/life.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iostream>

using model::built_in_checks;
using model::Check;
using model::DifferentialRun;
using model::Input;
using model::removed;
using model::Script;
using model::written;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr unsigned LIFE = 2500; // heartbeats

unsigned usual_length() { return is_sanitized() ? LIFE / 10 : LIFE; }

constexpr std::uint64_t FIRST_SEED = 1;
constexpr std::uint64_t LAST_SEED = 3;

std::uint64_t number_in(const char *variable, std::uint64_t otherwise) {
    const char *text = std::getenv(variable);
    return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

/// Runs a random life of the daemon and of a model with these checks; the report of the first difference, empty
/// without one.
std::string live(std::uint64_t seed, std::uint64_t heartbeats, const std::vector<Check> &checks) {
    Script script(seed, STATION_LOAD_LOGGER);
    DifferentialRun run(script.setup(), script.settings(), checks);
    run.start();
    while (run.beats_done() < heartbeats && run.difference().empty()) {
        live_until(script.next_beat(run.now()), &script, &run);
    }
    run.stop();
    if (run.difference().empty()) {
        return "";
    }
    return "seed:          " + std::to_string(seed) + "\n" + run.difference() +
           "again: VIGMOND_SEED=" + std::to_string(seed) + " VIGMOND_HEARTBEATS=" + std::to_string(run.beats_done()) +
           " station_model_test --gtest_filter='*IsAsPredicted/0'\n";
}

} // namespace

// --- random lives

class RandomLife : public testing::TestWithParam<std::uint64_t> {};

TEST_P(RandomLife, IsAsPredicted) {
    const std::uint64_t seed = number_in("VIGMOND_SEED", GetParam());
    const std::uint64_t heartbeats = number_in("VIGMOND_HEARTBEATS", usual_length());
    std::cout << "VIGMOND_SEED=" << seed << " VIGMOND_HEARTBEATS=" << heartbeats << '\n';
    EXPECT_EQ(live(seed, heartbeats, built_in_checks()), "");
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomLife, testing::Range(FIRST_SEED, LAST_SEED + 1));

// --- the model itself

namespace {

/// The built-in table with one figure changed.
struct Alteration {
    std::string what;
    std::vector<Check> checks;
};

using Change = void(Check *check);

void alter(std::size_t row, const std::string &what, Change *change, std::vector<Alteration> *all) {
    Alteration alteration{"row " + std::to_string(row + 1) + ": " + what, built_in_checks()};
    change(&alteration.checks[row]);
    all->push_back(std::move(alteration));
}

void alter_limits(std::size_t row, const Check &check, std::vector<Alteration> *all) {
    if (check.min_fail) {
        alter(
            row, "min fail + 1", [](Check *each) { ++*each->min_fail; }, all);
        alter(
            row, "min fail - 1", [](Check *each) { --*each->min_fail; }, all);
    }
    if (check.min_warn) {
        alter(
            row, "min warn + 1", [](Check *each) { ++*each->min_warn; }, all);
        alter(
            row, "min warn - 1", [](Check *each) { --*each->min_warn; }, all);
    }
    if (check.max_warn) {
        alter(
            row, "max warn + 1", [](Check *each) { ++*each->max_warn; }, all);
        alter(
            row, "max warn - 1", [](Check *each) { --*each->max_warn; }, all);
    }
    if (check.max_fail) {
        alter(
            row, "max fail + 1", [](Check *each) { ++*each->max_fail; }, all);
        alter(
            row, "max fail - 1", [](Check *each) { --*each->max_fail; }, all);
    }
    alter(
        row, "hysteresis + 1", [](Check *each) { ++each->hysteresis; }, all);
    alter(
        row, "hysteresis - 1", [](Check *each) { --each->hysteresis; }, all);
}

/// Wear has steps of ten: a limit in between equals the next step.
void alter_wear_limits(std::size_t row, std::vector<Alteration> *all) {
    alter(
        row, "max warn + 1", [](Check *each) { ++*each->max_warn; }, all);
    alter(
        row, "max warn - 10", [](Check *each) { *each->max_warn -= 10; }, all);
    alter(
        row, "max fail + 1", [](Check *each) { ++*each->max_fail; }, all);
    alter(
        row, "max fail - 10", [](Check *each) { *each->max_fail -= 10; }, all);
    alter(
        row, "hysteresis + 5", [](Check *each) { each->hysteresis += 5; }, all);
}

std::vector<Alteration> alterations() {
    const std::vector<Check> checks = built_in_checks();
    std::vector<Alteration> all;
    for (std::size_t row = 0; row < checks.size(); ++row) {
        const Check &check = checks[row];
        if (check.probe == model::Probe::wearout) {
            alter_wear_limits(row, &all);
        } else if (check.analyzer == model::Analyzer::threshold) {
            alter_limits(row, check, &all);
        }
        if (check.delay > 1) {
            alter(
                row, "delay - 1", [](Check *each) { --each->delay; }, &all);
        }
        alter(
            row, "delay + 1", [](Check *each) { ++each->delay; }, &all);
        alter(
            row, "interval doubled", [](Check *each) { each->interval *= 2; }, &all);
        if (!check.format.empty()) {
            alter(
                row, "format", [](Check *each) { each->format += "."; }, &all);
        }
    }
    return all;
}

/// The model's daemon without a real one, and its output.
class Prediction {
  public:
    explicit Prediction(const Script &script)
        : daemon_(script.settings(), built_in_checks(),
                  model::board_after(script.setup().inputs, script.setup().has_bus), script.setup().old_log,
                  script.setup().clock) {}

    void believe(const std::vector<Check> &checks) { daemon_.believe(checks); }
    void take(const Input &input) {
        if (daemon_.can_take(input)) {
            daemon_.take(input);
        }
    }
    /// The whole output of the pass.
    std::vector<std::string> pass(std::int64_t now) {
        const model::Shown shown = daemon_.pass(now);
        std::vector<std::string> all = shown.sentences;
        all.insert(all.end(), shown.signals.begin(), shown.signals.end());
        all.insert(all.end(), shown.started.begin(), shown.started.end());
        const std::string &log = daemon_.log().text();
        all.push_back(log.substr(std::min(log_read_, log.size())));
        log_read_ = log.size();
        return all;
    }

  private:
    model::Daemon daemon_;
    std::size_t log_read_ = 0;
};

/// Removes the alterations that a random life detects.
void strike_out(std::uint64_t seed, std::vector<Alteration> *alterations) {
    Script script(seed, STATION_LOAD_LOGGER);
    Prediction right(script);
    std::vector<std::pair<Alteration, Prediction>> others;
    for (const Alteration &alteration : *alterations) {
        others.emplace_back(alteration, right).second.believe(alteration.checks);
    }
    std::int64_t now = script.setup().clock;
    for (unsigned beat = 0; beat < LIFE && !others.empty(); ++beat) {
        const std::vector<std::string> shown = right.pass(now);
        std::erase_if(others, [&shown, now](auto &other) { return other.second.pass(now) != shown; });
        now = script.next_beat(now);
        for (const Input &input : script.inputs(now)) {
            right.take(input);
            for (auto &other : others) {
                other.second.take(input);
            }
        }
        script.questions();
    }
    alterations->clear();
    for (auto &other : others) {
        alterations->push_back(std::move(other.first));
    }
}

} // namespace

// An alteration that no random life detects is a gap of the random lives.
TEST(TheModel, DetectsAChangeOfEachFigureOfTheTable) {
    std::vector<Alteration> left = alterations();
    ASSERT_GT(left.size(), 150U);
    constexpr std::uint64_t most_seeds = 8; // more than the ordinary run compares with the daemon
    for (std::uint64_t seed = FIRST_SEED; seed <= most_seeds && !left.empty(); ++seed) {
        strike_out(seed, &left);
    }
    for (const Alteration &alteration : left) {
        ADD_FAILURE() << alteration.what;
    }
}

TEST(TheModel, ReproducesADifferenceFromItsReport) {
    constexpr std::uint64_t seed = 2;
    std::vector<Check> checks = built_in_checks();
    checks[0].delay = 1;
    const std::string report = live(seed, usual_length(), checks);
    EXPECT_THAT(report, StartsWith("seed:          2\ndifference in: status log\nheartbeat:     #"));
    const std::string name = "VIGMOND_HEARTBEATS=";
    const std::size_t again = report.find("VIGMOND_SEED=2 " + name);
    ASSERT_NE(again, std::string::npos);
    const std::uint64_t heartbeats = std::stoul(report.substr(report.find(name) + name.size()));
    EXPECT_EQ(live(seed, heartbeats, checks), report);
    EXPECT_EQ(live(seed, heartbeats - 1, checks), "");
}

// --- the comparison

namespace {

void live_till_rotation(DifferentialRun *run) {
    const unsigned before = run->rotations();
    while (run->rotations() == before && run->difference().empty()) {
        run->beat();
    }
}

} // namespace

TEST(TheReport, NamesAnIncompleteOlderLog) {
    const std::string newest = std::string(model::LOG) + ".000.bz2";
    for (const Input &secret : {removed(newest), written(newest, "no bzip2")}) {
        model::RigSetup setup = model::healthy_station();
        setup.arguments = model::small_logs().arguments;
        DifferentialRun run(setup, model::small_logs());
        run.start();
        live_till_rotation(&run);
        EXPECT_EQ(run.difference(), "");
        run.put_secretly(secret);
        live_till_rotation(&run);
        EXPECT_THAT(run.difference(), StartsWith("difference in: older status logs\n"));
    }
}

TEST(TheReport, ListsTheInputsThatLedToADifference) {
    std::vector<Check> checks = built_in_checks();
    checks[0].format = "CPU heat %D %T threshold.";
    DifferentialRun run(model::healthy_station(), model::Settings(), checks);
    run.start();
    run.put(removed(model::WIFI_FILE));
    run.put(written(TEMPERATURE_FILE, "72000\n"));
    run.beats(7);
    EXPECT_EQ(
        run.difference(),
        "difference in: sentences\n"
        "heartbeat:     #5 at 2024-03-01 13:00:50 (1709294450)\n"
        "predicted:     4 [warning] ID: CB20[0]: value: 72 CPU heat above 70 threshold.\n"
        "seen:          4 [warning] ID: CB20[0]: value: 72 CPU temperature above 70 threshold.\n"
        "started as:    vigmond\n"
        "check:         CB20[0]: state 1, counts: min fail 0, min warn 0, ok 0, max warn 0, max fail 0, value 72, "
        "next run 2024-03-01 13:01:00\n"
        "inputs of this check:\n"
        "  after #0 (2024-03-01 13:00:07) write /sys/class/thermal/thermal_zone0/temp \"72000\\n\"\n"
        "the last inputs:\n"
        "  after #0 (2024-03-01 13:00:07) remove /sys/class/net/wlan0sta/operstate \"\"\n"
        "  after #0 (2024-03-01 13:00:07) write /sys/class/thermal/thermal_zone0/temp \"72000\\n\"\n");
}

namespace {

struct Secret {
    const char *what;
    std::vector<Input> inputs; ///< to the real board only
    std::int64_t period;
    const char *seen; ///< in the report
};

std::vector<Secret> secrets() {
    using enum Input::Kind;
    return {
        {"Temperature",
         {written(TEMPERATURE_FILE, "43000\n")},
         10,
         "seen:          2024-03-01 13:00:10\tOK\tCB20\t0\t43\n"},
        {"Memory", {written(MEMORY_FILE, meminfo(1000, 490))}, 10, "\tOK\tCB21\t0\t49\n"},
        {"Wear", {{emmc, EMMC_DEVICE, "7 2 1"}}, 3600, "\tOK\tCB07\t0\t20\n"},
        {"Disk", {{disk, "/run", "1000 490 490"}}, 900, "\tOK\tCB22\t4\t49\n"},
        {"Bluetooth", {removed(model::BLUETOOTH_FILE)}, 60, "\tOK\tCB05\t0\t1\n"},
        {"Ethernet", {written(model::ETHERNET_FILE, "down\n")}, 60, "\tOK\tCB12\t0\t1\n"},
        {"Traffic", {model::traffic_file("eth0: 1 0 0 0 0 0 0 0 0 50 0 0 0 0 0 0\n", "")}, 60, "\tOK\tCB10\t0\t0\n"},
        {"Wireless", {written(model::WIRELESS_FILE, "wlan0sta: 0 60. -21. -256\n")}, 10, "\tOK\tCB09\t0\t-21\n"},
        {"Unit", {{active_state, "rauc", "failed"}}, 10, "\tOK\tCB23\t0\t1\n"},
        {"Load", {written(model::CPU_FILE, "cpu 2000 0 1000 8000\n")}, 180, "\tOK\tCB31\t0\t100\n"},
        {"NetworkSwitch", {removed(model::WIFI_CONFIGURATION)}, 60, "difference in: status log"},
    };
}

} // namespace

class SecretChange : public testing::TestWithParam<Secret> {};

TEST_P(SecretChange, IsFound) {
    DifferentialRun run(model::healthy_station(), model::Settings());
    run.start();
    for (const Input &input : GetParam().inputs) {
        run.put_secretly(input);
    }
    run.beat(run.now() - run.now() % GetParam().period + GetParam().period);
    EXPECT_THAT(run.difference(), HasSubstr(GetParam().seen));
}

INSTANTIATE_TEST_SUITE_P(OfThe, SecretChange, testing::ValuesIn(secrets()),
                         [](const auto &instance) { return std::string(instance.param.what); });
