// The daemon against the model: random lives of the station without a difference between what the model
// foretells and what the daemon shows, and what chance would rarely bring about.
//     VIGMOND_SEED=n         that life instead of the usual ones
//     VIGMOND_HEARTBEATS=n   so long a life

#include "model/duet.h"
#include "model/script.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iostream>

using model::built_in_checks;
using model::Check;
using model::Duet;
using model::Input;
using model::Script;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr unsigned HEARTBEATS = 300;
#else
constexpr unsigned HEARTBEATS = 2500; // a life
#endif

constexpr std::uint64_t FIRST_SEED = 1;
constexpr std::uint64_t LAST_SEED = 8;

std::uint64_t number_in(const char *variable, std::uint64_t otherwise) {
    const char *text = std::getenv(variable);
    return text == nullptr ? otherwise : std::strtoull(text, nullptr, 10);
}

/// A random life of the daemon beside a model with these checks: the report of the first difference, empty
/// when there is none.
std::string live(std::uint64_t seed, std::uint64_t heartbeats, const std::vector<Check> &checks) {
    Script script(seed, STATION_LOAD_LOGGER);
    Duet duet(script.setup(), script.settings(), checks);
    duet.start();
    while (duet.beats_done() < heartbeats && duet.difference().empty()) {
        const std::int64_t now = script.next_beat(duet.now());
        for (const Input &input : script.inputs(now)) {
            duet.put(input);
        }
        duet.beat(now);
        for (const Input &question : script.questions()) {
            duet.put(question);
        }
    }
    duet.stop();
    if (duet.difference().empty()) {
        return "";
    }
    return "seed:          " + std::to_string(seed) + "\n" + duet.difference() +
           "again: VIGMOND_SEED=" + std::to_string(seed) + " VIGMOND_HEARTBEATS=" + std::to_string(duet.beats_done()) +
           " station_model_test --gtest_filter='*IsAsForetold/0'\n";
}

} // namespace

// --- random lives

class RandomLife : public testing::TestWithParam<std::uint64_t> {};

TEST_P(RandomLife, IsAsForetold) {
    const std::uint64_t seed = number_in("VIGMOND_SEED", GetParam());
    const std::uint64_t heartbeats = number_in("VIGMOND_HEARTBEATS", HEARTBEATS);
    std::cout << "VIGMOND_SEED=" << seed << " VIGMOND_HEARTBEATS=" << heartbeats << '\n';
    EXPECT_EQ(live(seed, heartbeats, built_in_checks()), "");
}

INSTANTIATE_TEST_SUITE_P(Seeds, RandomLife, testing::Range(FIRST_SEED, LAST_SEED + 1));

// --- the model itself

namespace {

/// A table with one figure in it that is not the built-in one.
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

/// The wear comes in steps of ten: a limit in between is the same as the next one.
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

/// A model's daemon alone, and what it shows.
class Foretelling {
  public:
    explicit Foretelling(const Script &script)
        : daemon_(script.settings(), built_in_checks(), model::board_after(script.setup().inputs),
                  script.setup().old_log, script.setup().clock) {}

    void believe(const std::vector<Check> &checks) { daemon_.believe(checks); }
    void take(const Input &input) {
        if (daemon_.can_take(input)) {
            daemon_.take(input);
        }
    }
    /// All that the pass shows.
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

/// Whether a life shows that these are not the checks.
bool tells_apart(std::uint64_t seed, const std::vector<Check> &checks) {
    Script script(seed, STATION_LOAD_LOGGER);
    Foretelling right(script);
    Foretelling wrong(script);
    wrong.believe(checks);
    std::int64_t now = script.setup().clock;
    for (unsigned beat = 0; beat < HEARTBEATS; ++beat) {
        if (right.pass(now) != wrong.pass(now)) {
            return true;
        }
        now = script.next_beat(now);
        for (const Input &input : script.inputs(now)) {
            right.take(input);
            wrong.take(input);
        }
        script.questions();
    }
    return false;
}

bool some_life_tells_apart(const std::vector<Check> &checks) {
    for (std::uint64_t seed = FIRST_SEED; seed <= LAST_SEED; ++seed) {
        if (tells_apart(seed, checks)) {
            return true;
        }
    }
    return false;
}

} // namespace

// What the random lives leave out would be no one's to find.
TEST(TheModel, WouldShowEachFigureOfTheTableIfItWereAnother) {
    for (const Alteration &alteration : alterations()) {
        EXPECT_TRUE(some_life_tells_apart(alteration.checks)) << alteration.what;
    }
}

TEST(TheModel, TellsOfADifferenceHowItCameAbout) {
    std::vector<Check> checks = built_in_checks();
    checks[0].format = "CPU heat %D %T threshold.";
    const std::string report = live(2, HEARTBEATS, checks);
    EXPECT_THAT(report, AllOf(StartsWith("seed:          2\ndifference in: sentences\nheartbeat:     #"),
                              HasSubstr("] ID: CB20[0]: value: "), HasSubstr(" CPU heat "),
                              HasSubstr(" CPU temperature "), HasSubstr("write /sys/class/thermal/thermal_zone0/temp"),
                              HasSubstr("check:         CB20[0]: state ")));
    const std::size_t again = report.find("VIGMOND_HEARTBEATS=");
    ASSERT_NE(again, std::string::npos);
    const std::uint64_t heartbeats = std::stoul(report.substr(again + std::string("VIGMOND_HEARTBEATS=").size()));
    EXPECT_EQ(live(2, heartbeats, checks), report);
    EXPECT_EQ(live(2, heartbeats - 1, checks), "");
}

// --- what chance rarely brings about

namespace {

constexpr std::int64_t NOON = 1709294400; // 2024-03-01 12:00:00 UTC

model::RigSetup healthy() {
    return {.inputs = model::healthy_board(),
            .arguments = {},
            .old_log = "",
            .clock = NOON + 7,
            .has_bus = true,
            .load_logger = STATION_LOAD_LOGGER};
}

Input written(const std::string &path, const std::string &text) {
    return {.kind = Input::Kind::write, .target = path, .text = text};
}

Input removed(const std::string &path) { return {.kind = Input::Kind::remove, .target = path, .text = ""}; }

struct Rare : testing::Test {
    Rare() { duet.start(); }

    ~Rare() override {
        duet.stop();
        EXPECT_EQ(duet.difference(), "");
    }

    void samples(int count, std::int64_t period) {
        for (int i = 0; i < count; ++i) {
            duet.beat(duet.now() - duet.now() % period + period);
        }
    }
    void heat(const std::string &millidegrees) {
        duet.put(written(TEMPERATURE_FILE, millidegrees));
        samples(5, 10);
    }
    /// Five samples with the CPU busy for so many hundredths of the time.
    void load(std::int64_t percent) {
        for (int i = 0; i < 5; ++i) {
            user += 180 * percent;
            idle += 180 * (100 - percent);
            duet.put(written(model::CPU_FILE, "cpu " + std::to_string(user) + " 0 0 " + std::to_string(idle) + "\n"));
            samples(1, 180);
        }
    }
    void configure_lan(const std::string &text, const std::string &networkd_time) {
        duet.put(written(model::LAN_CONFIGURATION, text));
        duet.put({.kind = Input::Kind::networkd_time, .target = "networkd", .text = networkd_time});
    }
    void signal() { duet.put({.kind = Input::Kind::sigusr1, .target = "", .text = ""}); }
    void end_load_logger(const std::string &issue) {
        duet.put({.kind = Input::Kind::child_ends, .target = issue, .text = ""});
    }
    /// How many records of the issue there are.
    std::size_t records_of(const std::string &issue) {
        const std::string log = duet.log();
        std::size_t count = 0;
        for (std::size_t at = log.find("\t" + issue + "\t0\t"); at != std::string::npos; ++count) {
            at = log.find("\t" + issue + "\t0\t", at + 1);
        }
        return count;
    }

    Duet duet{healthy(), model::Settings()};
    std::int64_t user = 1000; // as the healthy board's; it has 1000 of system
    std::int64_t idle = 8000;
};

const std::string CALL_31 = "load_logger -c 120 -t 10 -d /var/lib/evse/vigmond/ -i CB31[0] "
                            "PATH=/usr/bin:/usr/sbin:/home/tovik/bin";
const std::string CALL_32 = "load_logger -c 120 -t 10 -d /var/lib/evse/vigmond/ -i CB32[0] "
                            "PATH=/usr/bin:/usr/sbin:/home/tovik/bin";

} // namespace

// The warning and the failure are two reports; one recovery leaves one of them.
TEST_F(Rare, AWarningThatBecomesAFailureStaysRaised) {
    heat("72000");
    heat("80000");
    heat("42000");
    EXPECT_THAT(duet.sentences(),
                ElementsAre("4 [warning] ID: CB20[0]: value: 72 CPU temperature above 70 threshold.",
                            "3 [failed] ID: CB20[0]: value: 80 CPU temperature above 80 threshold.",
                            "5 [notice] ID: CB20[0]: value: 42 CPU temperature at normal threshold."));
    EXPECT_THAT(duet.signals(), ElementsAre("1709294450 NewIssues CB20"));
    EXPECT_THAT(duet.listing(), ElementsAre("1709294450 CB20"));
    heat("-30500");
    heat("42000");
    EXPECT_THAT(duet.listing(), ElementsAre("1709294450 CB20"));
    EXPECT_THAT(duet.signals(), SizeIs(1));
}

TEST_F(Rare, AFailureAtOnceIsClearedByOneRecovery) {
    heat("80000");
    EXPECT_THAT(duet.listing(), ElementsAre("1709294450 CB20"));
    heat("42000");
    EXPECT_THAT(duet.listing(), IsEmpty());
    EXPECT_THAT(duet.signals(), ElementsAre("1709294450 NewIssues CB20", "1709294500 ClearedIssues CB20"));
}

TEST_F(Rare, NineSamplesAreNoIssueTenAre) {
    duet.put(removed(model::BLUETOOTH_FILE));
    samples(9, 60);
    duet.put(written(model::BLUETOOTH_FILE, ""));
    samples(1, 60);
    duet.put(removed(model::BLUETOOTH_FILE));
    samples(9, 60);
    EXPECT_THAT(duet.sentences(), IsEmpty());
    EXPECT_THAT(duet.listing(), IsEmpty());
    samples(1, 60);
    EXPECT_THAT(duet.sentences(), ElementsAre("3 [failed] ID: CB05[0]: value: 1 Bluetooth hardware is not available."));
    EXPECT_THAT(duet.signals(), ElementsAre("1709295600 NewIssues CB05")); // the twentieth minute
    samples(300, 60);                                                      // a byte that counts has turned over
    EXPECT_THAT(duet.sentences(), SizeIs(1));
}

TEST_F(Rare, TwoUnitsDownForTenSamplesAreNamedTheLastFirst) {
    duet.put({.kind = Input::Kind::active_state, .target = "nginx", .text = "inactive"});
    duet.put({.kind = Input::Kind::active_state, .target = "ocppd", .text = "failed"});
    duet.beats(9);
    EXPECT_THAT(duet.sentences(), IsEmpty());
    duet.beats(1);
    EXPECT_THAT(duet.sentences(),
                ElementsAre("3 [failed] ID: CB23[0]: value: 1 Services: ocppd, nginx are not running"));
}

TEST_F(Rare, APathSwitchedOffInMidFailureKeepsItsIssueAndLeavesNoRecord) {
    duet.put(written(model::ETHERNET_FILE, "down\n"));
    samples(10, 60);
    EXPECT_THAT(duet.listing(), ElementsAre("1709295000 CB12"));
    configure_lan("[Link]\nUnmanaged=yes\n", "2000");
    const std::size_t records = records_of("CB12");
    EXPECT_EQ(records, 11U);
    samples(30, 60);
    EXPECT_EQ(records_of("CB12"), records);
    EXPECT_EQ(records_of("CB11"), records);
    EXPECT_EQ(records_of("CB10"), records);
    EXPECT_THAT(duet.listing(), ElementsAre("1709295000 CB12"));
    configure_lan("[Link]\nUnmanaged=no\n", "3000");
    duet.put(written(model::ETHERNET_FILE, "up\n"));
    samples(9, 60);
    EXPECT_THAT(duet.listing(), ElementsAre("1709295000 CB12"));
    samples(1, 60);
    EXPECT_THAT(duet.listing(), IsEmpty());
    EXPECT_THAT(duet.signals(), ElementsAre("1709295000 NewIssues CB12", "1709297400 ClearedIssues CB12"));
}

TEST_F(Rare, AHighLoadStartsOneLoadLoggerForBothChecks) {
    load(95);
    EXPECT_THAT(duet.sentences(),
                ElementsAre("4 [warning] ID: CB31[0]: value: 95 is above maximum warning threshold 75",
                            "3 [failed] ID: CB32[0]: value: 95 is above maximum failure threshold 90"));
    EXPECT_THAT(duet.started(), ElementsAre(CALL_31));
    EXPECT_THAT(duet.signals(), ElementsAre(EndsWith(" NewIssues CB31 CB32")));
}

TEST_F(Rare, ALoadLoggerOutlivesTheLoadAndIsFollowedByAnotherAfterItsEnd) {
    load(80);
    load(20);
    load(80);
    EXPECT_THAT(duet.started(), ElementsAre(CALL_31));
    load(20);
    end_load_logger("CB31[0]");
    EXPECT_THAT(duet.started(), SizeIs(1));
    load(80);
    EXPECT_THAT(duet.started(), ElementsAre(CALL_31, CALL_31));
}

// Its end is known to its own check only when that runs; the other check's run does not ask for it.
TEST_F(Rare, TheSignalLetsTheOtherCheckStartASecondLoadLogger) {
    load(80);
    signal();
    load(95);
    EXPECT_THAT(duet.started(), ElementsAre(CALL_31, CALL_32));
    end_load_logger("CB31[0]");
    end_load_logger("CB32[0]");
}

TEST_F(Rare, AClockSetBackBeforeTheStartClearsEveryIssueInEachPass) {
    duet.beats(1);
    duet.beat(NOON - 20);
    duet.beat(NOON);
    duet.beat(NOON + 7);
    EXPECT_THAT(duet.signals(),
                ElementsAre(AllOf(StartsWith("1709294380 ClearedIssues CB00 CB01 "), EndsWith(" CB31 CB32 CBnn")),
                            AllOf(StartsWith("1709294400 ClearedIssues CB00 CB01 "), EndsWith(" CB31 CB32 CBnn"))));
}

TEST_F(Rare, APassInTheSameSecondAnnouncesTheChangeAgain) {
    heat("72000");
    duet.beat(duet.now());
    EXPECT_THAT(duet.signals(), ElementsAre("1709294450 NewIssues CB20", "1709294450 NewIssues CB20"));
    EXPECT_EQ(records_of("CB20"), 6U); // no check is due twice
}

// --- what the comparison sees

namespace {

struct Secret {
    const char *what;
    std::vector<Input> inputs; ///< done to the real board only
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
    Duet duet(healthy(), model::Settings());
    duet.start();
    for (const Input &input : GetParam().inputs) {
        duet.put_secretly(input);
    }
    duet.beat(duet.now() - duet.now() % GetParam().period + GetParam().period);
    EXPECT_THAT(duet.difference(), HasSubstr(GetParam().seen));
}

INSTANTIATE_TEST_SUITE_P(OfThe, SecretChange, testing::ValuesIn(secrets()),
                         [](const auto &instance) { return std::string(instance.param.what); });
