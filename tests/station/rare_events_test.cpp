// Events that are rare in random lives: compared with the model and with expected values written by hand.

#include "model/differential_run.h"
#include "model/healthy_station.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using model::DifferentialRun;
using model::Input;
using model::NOON;
using model::removed;
using model::written;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace {

struct Rare : testing::Test {
    Rare() { run.start(); }

    ~Rare() override {
        run.stop();
        EXPECT_EQ(run.difference(), "");
    }

    void samples(int count, std::int64_t period) {
        for (int i = 0; i < count; ++i) {
            run.beat(run.now() - run.now() % period + period);
        }
    }
    void heat(const std::string &millidegrees) {
        run.put(written(TEMPERATURE_FILE, millidegrees));
        samples(5, 10);
    }
    /// Runs `count` samples at a CPU load of `percent`.
    void load(std::int64_t percent, int count = 5) {
        for (int i = 0; i < count; ++i) {
            user += 180 * percent;
            idle += 180 * (100 - percent);
            run.put(written(model::CPU_FILE, "cpu " + std::to_string(user) + " 0 0 " + std::to_string(idle) + "\n"));
            samples(1, 180);
        }
    }
    void configure_lan(const std::string &text, const std::string &networkd_time) {
        run.put(written(model::LAN_CONFIGURATION, text));
        run.put({.kind = Input::Kind::networkd_time, .target = "networkd", .text = networkd_time});
    }
    void signal() { run.put({.kind = Input::Kind::sigusr1, .target = "", .text = ""}); }
    void end_load_logger(const std::string &issue) {
        run.put({.kind = Input::Kind::child_ends, .target = issue, .text = ""});
    }
    /// The number of records of the issue.
    [[nodiscard]] std::size_t records_of(const std::string &issue) const {
        const std::string log = run.log();
        std::size_t count = 0;
        for (std::size_t at = log.find("\t" + issue + "\t0\t"); at != std::string::npos; ++count) {
            at = log.find("\t" + issue + "\t0\t", at + 1);
        }
        return count;
    }

    DifferentialRun run{model::healthy_station(), model::Settings()};
    std::int64_t user = 1000; // as on the healthy board, which also has 1000 of system
    std::int64_t idle = 8000;
};

const std::string CALL_31 = "load_logger -c 120 -t 10 -d /var/lib/evse/vigmond/ -i CB31[0] "
                            "PATH=/usr/bin:/usr/sbin:/home/tovik/bin";
const std::string CALL_32 = "load_logger -c 120 -t 10 -d /var/lib/evse/vigmond/ -i CB32[0] "
                            "PATH=/usr/bin:/usr/sbin:/home/tovik/bin";

} // namespace

// The warning and the failure are two reports; the recovery undoes one.
TEST_F(Rare, AWarningThatBecomesAFailureStaysRaised) {
    heat("72000");
    heat("80000");
    heat("42000");
    EXPECT_THAT(run.sentences(), ElementsAre("4 [warning] ID: CB20[0]: value: 72 CPU temperature above 70 threshold.",
                                             "3 [failed] ID: CB20[0]: value: 80 CPU temperature above 80 threshold.",
                                             "5 [notice] ID: CB20[0]: value: 42 CPU temperature at normal threshold."));
    EXPECT_THAT(run.signals(), ElementsAre("1709294450 NewIssues CB20"));
    EXPECT_THAT(run.listing(), ElementsAre("1709294450 CB20"));
    heat("-30500");
    heat("42000");
    EXPECT_THAT(run.listing(), ElementsAre("1709294450 CB20"));
    EXPECT_THAT(run.signals(), SizeIs(1));
}

TEST_F(Rare, AFailureAtOnceIsClearedByOneRecovery) {
    heat("80000");
    EXPECT_THAT(run.listing(), ElementsAre("1709294450 CB20"));
    heat("42000");
    EXPECT_THAT(run.listing(), IsEmpty());
    EXPECT_THAT(run.signals(), ElementsAre("1709294450 NewIssues CB20", "1709294500 ClearedIssues CB20"));
}

TEST_F(Rare, TenSamplesRaiseAnIssueNineDoNot) {
    run.put(removed(model::BLUETOOTH_FILE));
    samples(9, 60);
    run.put(written(model::BLUETOOTH_FILE, ""));
    samples(1, 60);
    run.put(removed(model::BLUETOOTH_FILE));
    samples(9, 60);
    EXPECT_THAT(run.sentences(), IsEmpty());
    EXPECT_THAT(run.listing(), IsEmpty());
    samples(1, 60);
    EXPECT_THAT(run.sentences(), ElementsAre("3 [failed] ID: CB05[0]: value: 1 Bluetooth hardware is not available."));
    EXPECT_THAT(run.signals(), ElementsAre("1709295600 NewIssues CB05")); // after twenty minutes
    samples(300, 60);                                                     // more than a byte can count
    EXPECT_THAT(run.sentences(), SizeIs(1));
}

TEST_F(Rare, TwoUnitsDownForTenSamplesAreNamedLastFirst) {
    run.put({.kind = Input::Kind::active_state, .target = "nginx", .text = "inactive"});
    run.put({.kind = Input::Kind::active_state, .target = "ocppd", .text = "failed"});
    run.beats(9);
    EXPECT_THAT(run.sentences(), IsEmpty());
    run.beats(1);
    EXPECT_THAT(run.sentences(),
                ElementsAre("3 [failed] ID: CB23[0]: value: 1 Services: ocppd, nginx are not running"));
}

TEST_F(Rare, APathSwitchedOffDuringAFailureKeepsItsIssueAndLeavesNoRecord) {
    run.put(written(model::ETHERNET_FILE, "down\n"));
    samples(10, 60);
    EXPECT_THAT(run.listing(), ElementsAre("1709295000 CB12"));
    configure_lan("[Link]\nUnmanaged=yes\n", "2000");
    const std::size_t records = records_of("CB12");
    EXPECT_EQ(records, 11U);
    samples(30, 60);
    EXPECT_EQ(records_of("CB12"), records);
    EXPECT_EQ(records_of("CB11"), records);
    EXPECT_EQ(records_of("CB10"), records);
    EXPECT_THAT(run.listing(), ElementsAre("1709295000 CB12"));
    configure_lan("[Link]\nUnmanaged=no\n", "3000");
    run.put(written(model::ETHERNET_FILE, "up\n"));
    samples(9, 60);
    EXPECT_THAT(run.listing(), ElementsAre("1709295000 CB12"));
    samples(1, 60);
    EXPECT_THAT(run.listing(), IsEmpty());
    EXPECT_THAT(run.signals(), ElementsAre("1709295000 NewIssues CB12", "1709297400 ClearedIssues CB12"));
}

TEST_F(Rare, AHighLoadStartsOneLoadLoggerForBothChecks) {
    load(95);
    EXPECT_THAT(run.sentences(),
                ElementsAre("4 [warning] ID: CB31[0]: value: 95 is above maximum warning threshold 75",
                            "3 [failed] ID: CB32[0]: value: 95 is above maximum failure threshold 90"));
    EXPECT_THAT(run.started(), ElementsAre(CALL_31));
    EXPECT_THAT(run.signals(), ElementsAre(EndsWith(" NewIssues CB31 CB32")));
}

TEST_F(Rare, ALoadLoggerOutlivesTheLoadAndCanBeStartedAgainAfterItsEnd) {
    load(80);
    load(20);
    load(80);
    EXPECT_THAT(run.started(), ElementsAre(CALL_31));
    load(20);
    end_load_logger("CB31[0]");
    EXPECT_THAT(run.started(), SizeIs(1));
    load(80);
    EXPECT_THAT(run.started(), ElementsAre(CALL_31, CALL_31));
}

// A check learns of its load logger's end in its own run only, not in that of the other check.
TEST_F(Rare, TheSignalLetsTheOtherCheckStartASecondLoadLogger) {
    load(80);
    signal();
    load(95);
    EXPECT_THAT(run.started(), ElementsAre(CALL_31, CALL_32));
    end_load_logger("CB31[0]");
    end_load_logger("CB32[0]");
}

// Each check's run allows its own load logger.
TEST_F(Rare, AfterTheSignalBothChecksStartALoadLoggerInOnePass) {
    for (int i = 0; i < 5; ++i) {
        EXPECT_THAT(run.started(), IsEmpty());
        signal();
        load(95, 1);
    }
    EXPECT_THAT(run.started(), ElementsAre(CALL_31, CALL_32));
}

// Issues raised and cleared without the bus are queued in order; a unit that cannot be asked is not named.
TEST_F(Rare, ABusThatReturnsGetsTheQueuedSignals) {
    run.beats(3);
    run.put({.kind = Input::Kind::bus_lost, .target = "", .text = ""});
    heat("80000");
    heat("42000");
    EXPECT_THAT(run.sentences(), Contains("3 [failed] ID: CB23[0]: value: 1 Services: are not running"));
    EXPECT_THAT(run.signals(), IsEmpty());
    run.put({.kind = Input::Kind::bus_back, .target = "", .text = ""});
    EXPECT_THAT(run.signals(),
                ElementsAre("1709294480 NewIssues CB20", "1709294530 NewIssues CB23", "1709294530 ClearedIssues CB20"));
    EXPECT_THAT(run.listing(), ElementsAre("1709294530 CB23"));
    run.beats(10);
    EXPECT_THAT(run.listing(), IsEmpty());
}

// A pass notices the loss with its first question.
TEST_F(Rare, ABusThatRestartsBetweenTwoPassesIsNoFailureOfTheUnits) {
    run.beats(3);
    run.put({.kind = Input::Kind::bus_lost, .target = "", .text = ""});
    run.put({.kind = Input::Kind::bus_back, .target = "", .text = ""});
    run.beats(12);
    EXPECT_THAT(run.sentences(), IsEmpty());
    EXPECT_THAT(run.signals(), IsEmpty());
}

TEST_F(Rare, AClockSetBackBeforeTheStartClearsEveryIssueInEachPass) {
    run.beats(1);
    run.beat(NOON - 20);
    run.beat(NOON);
    run.beat(NOON + 7);
    EXPECT_THAT(run.signals(),
                ElementsAre(AllOf(StartsWith("1709294380 ClearedIssues CB00 CB01 "), EndsWith(" CB31 CB32 CBnn")),
                            AllOf(StartsWith("1709294400 ClearedIssues CB00 CB01 "), EndsWith(" CB31 CB32 CBnn"))));
}

TEST_F(Rare, APassInTheSameSecondAnnouncesTheChangeAgain) {
    heat("72000");
    run.beat(run.now());
    EXPECT_THAT(run.signals(), ElementsAre("1709294450 NewIssues CB20", "1709294450 NewIssues CB20"));
    EXPECT_EQ(records_of("CB20"), 6U); // no check is due twice
}
