// The watched units on a station with systemd: sentences and records when they stop, and passes with a failing
// bus.

#include "station_bus.h"
#include "station_life.h"
#include "status_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::SizeIs;
using testing::StartsWith;

namespace {

using Texts = std::vector<std::string>;

constexpr const char *NGINX = "nginx_2eservice";
constexpr const char *OCPPD = "ocppd_2eservice";

/// In the order of the questions: the last of the parameter first.
const Texts UNITS{"corvana_2dportapi_2eservice",
                  "wpa_5fsupplicant_2eservice",
                  "stationd_2eservice",
                  "rauc_2eservice",
                  OCPPD,
                  NGINX,
                  "hostapd_2eservice"};

/// A station with a private bus on which all units run.
struct StationWithBus {
    StationWithBus() {
        for (const std::string &unit : UNITS) {
            systemd.load(unit);
            systemd.activate(unit);
        }
    }

    /// The check's records in this heartbeat and the next `count` - 1: "OK 0".
    Texts records_of(int count) {
        const std::size_t before = records().size();
        station.heartbeats(count);
        const Texts all = records();
        return {all.begin() + static_cast<std::ptrdiff_t>(before), all.end()};
    }
    [[nodiscard]] Texts records() const {
        Texts found;
        for (const std::string &record : records_in(station.read(STATUS_LOG))) {
            const std::size_t issue = record.find("\tCB23\t0\t");
            if (issue != std::string::npos) {
                const std::size_t label = record.find('\t') + 1;
                found.push_back(record.substr(label, issue - label) + " " + record.substr(issue + 8));
            }
        }
        return found;
    }
    /// The sentences about the units, each with its priority.
    [[nodiscard]] Texts sentences() const {
        Texts found = sentences_of(station);
        std::erase_if(found, [](const std::string &text) {
            return text.find("CB23") == std::string::npos && text.find("service \"") == std::string::npos;
        });
        return found;
    }
    int asked(const char *unit) { return systemd.count(unit, ACTIVE_STATE); }

    Station station{even_board()};
    StationBus system_bus{&station};
    PrivateBus &bus = system_bus.bus;
    FakeSystemd &systemd = system_bus.systemd;
};

Texts repeated(const std::string &text, int count) {
    Texts texts(static_cast<std::size_t>(count), text);
    return texts;
}

Texts joined(Texts first, const Texts &second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

constexpr const char *NOT_LOADED_NGINX = R"(4 [warning] service "nginx" not loaded/installed)";
constexpr const char *TWO_STOPPED = "3 [failed] ID: CB23[0]: value: 1 Services: ocppd, nginx are not running";
constexpr const char *ONE_STOPPED = "3 [failed] ID: CB23[0]: value: 1 Service: nginx is not running";
constexpr const char *NONE_NAMED = "3 [failed] ID: CB23[0]: value: 1 Services: are not running";
constexpr const char *ALL_UP = "5 [notice] ID: CB23[0]: value: 0 all services are up and running";

} // namespace

TEST(Services, AreNamedInTheTenthHeartbeatAfterTheyStopped) {
    StationWithBus rig;
    rig.station.start();
    EXPECT_THAT(rig.records(), ElementsAre("OK 0"));
    rig.systemd.activate(NGINX, "failed");
    rig.systemd.activate(OCPPD, "inactive");
    EXPECT_EQ(rig.records_of(10), joined(repeated("OK 1", 9), {"FAIL 1"}));
    EXPECT_THAT(rig.sentences(), ElementsAre(TWO_STOPPED));
    rig.systemd.activate(OCPPD);
    EXPECT_EQ(rig.records_of(5), repeated("FAIL 1", 5)) << "the second unit causes no change";
    rig.systemd.activate(NGINX, "activating");
    EXPECT_EQ(rig.records_of(10), joined(repeated("FAIL 0", 9), {"OK 0"}));
    rig.systemd.activate(NGINX, "reloading");
    EXPECT_EQ(rig.records_of(10), joined(repeated("OK 1", 9), {"FAIL 1"}));
    EXPECT_THAT(rig.sentences(), ElementsAre(TWO_STOPPED, ALL_UP, ONE_STOPPED));
}

TEST(Services, AreAskedForNewestFirstInEachHeartbeat) {
    StationWithBus rig;
    rig.station.start();
    rig.station.forget();
    rig.station.step();
    Texts asked = rig.station.trace().messages_of("service_read");
    std::erase_if(asked, [](const std::string &text) { return !text.ends_with(" running (active)"); });
    EXPECT_THAT(asked, ElementsAre("service: corvana-portapi - running (active)",
                                   "service: wpa_supplicant - running (active)", "service: stationd - running (active)",
                                   "service: rauc - running (active)", "service: ocppd - running (active)",
                                   "service: nginx - running (active)", "service: hostapd - running (active)"));
}

TEST(Services, AreGoodAndSilentWithoutABus) {
    Station station(even_board());
    station.start();
    station.heartbeats(12);
    EXPECT_THAT(station.trace().messages_of("service_init"),
                ElementsAre(" ", "FAILED: ret : -2 (No such file or directory)"));
    EXPECT_THAT(records_in(station.read(STATUS_LOG)), Contains(EndsWith("\tOK\tCB23\t0\t0")).Times(13));
    EXPECT_THAT(sentences_of(station), IsEmpty());
}

TEST(Services, NotLoadedAreReportedOnceAndNeverAskedForAgain) {
    StationWithBus rig;
    rig.systemd.load(NGINX, "not-found");
    rig.station.start();
    rig.systemd.load(NGINX);
    rig.systemd.activate(NGINX, "failed");
    EXPECT_EQ(rig.records_of(11), repeated("OK 0", 11));
    EXPECT_THAT(rig.sentences(), ElementsAre(NOT_LOADED_NGINX));
    EXPECT_EQ(rig.systemd.count(NGINX, LOAD_STATE), 1);
    EXPECT_EQ(rig.asked(NGINX), 0);
}

// --- failing questions

struct Refusal {
    const char *error;
    const char *trace;
};

void PrintTo(const Refusal &refusal, std::ostream *out) { *out << refusal.error; }

constexpr Refusal INTERRUPTED{.error = "System.Error.EINTR", .trace = "-4 (Interrupted system call)"};
constexpr Refusal INVALID{.error = "System.Error.EINVAL", .trace = "-22 (Invalid argument)"};
constexpr Refusal UNREACHABLE{.error = "System.Error.EHOSTUNREACH", .trace = "-113 (No route to host)"};
constexpr Refusal TIMED_OUT{.error = "System.Error.ETIMEDOUT", .trace = "-110 (Connection timed out)"};
constexpr Refusal UNCONNECTED{.error = "System.Error.ENOTCONN", .trace = "-107 (Transport endpoint is not connected)"};

std::string failed_trace(const Refusal &refusal) {
    return std::string("GET PROPERTY FAILED: ret : ") + refusal.trace + " -- err.name: " + refusal.error +
           " err.message: as told";
}

class RefusedQuestion : public testing::TestWithParam<Refusal> {};

TEST_P(RefusedQuestion, IsRepeatedAtTheStartUnlessItIsInvalid) {
    const bool is_final = std::string_view(GetParam().error) == INVALID.error;
    StationWithBus rig;
    rig.systemd.fail(NGINX, LOAD_STATE, GetParam().error, 2);
    rig.station.start();
    EXPECT_THAT(rig.station.trace().messages_of("service_is_loaded"),
                Contains(failed_trace(GetParam())).Times(is_final ? 1 : 2));
    EXPECT_EQ(rig.systemd.count(NGINX, LOAD_STATE), is_final ? 1 : 3);
    EXPECT_EQ(rig.sentences(), is_final ? Texts{NOT_LOADED_NGINX} : Texts{});
    EXPECT_EQ(rig.asked(NGINX), is_final ? 0 : 1);
}

TEST_P(RefusedQuestion, IsRepeatedInAHeartbeatOnlyIfInterrupted) {
    const bool is_repeated = std::string_view(GetParam().error) == INTERRUPTED.error;
    StationWithBus rig;
    rig.station.start();
    const int before = rig.asked(NGINX);
    rig.systemd.fail(NGINX, ACTIVE_STATE, GetParam().error, 1);
    EXPECT_THAT(rig.records_of(1), ElementsAre(is_repeated ? "OK 0" : "OK 1"));
    EXPECT_EQ(rig.asked(NGINX), before + (is_repeated ? 2 : 1));
    EXPECT_THAT(rig.station.trace().messages_of("service_read"), Contains(failed_trace(GetParam())).Times(1));
    EXPECT_THAT(rig.records_of(1), ElementsAre("OK 0"));
}

INSTANTIATE_TEST_SUITE_P(Errors, RefusedQuestion,
                         testing::Values(INTERRUPTED, INVALID, UNREACHABLE, TIMED_OUT, UNCONNECTED));

class RefusedForEver : public testing::TestWithParam<Refusal> {};

TEST_P(RefusedForEver, IsAFailureThatNamesNoUnitUntilItIsAnswered) {
    StationWithBus rig;
    rig.station.start();
    rig.systemd.fail(NGINX, ACTIVE_STATE, GetParam().error);
    EXPECT_EQ(rig.records_of(10), joined(repeated("OK 1", 9), {"FAIL 1"}));
    EXPECT_THAT(rig.sentences(), ElementsAre(NONE_NAMED));
    rig.systemd.activate(NGINX);
    EXPECT_EQ(rig.records_of(10), joined(repeated("FAIL 0", 9), {"OK 0"}));
    EXPECT_THAT(rig.sentences(), ElementsAre(NONE_NAMED, ALL_UP));
}

INSTANTIATE_TEST_SUITE_P(Errors, RefusedForEver, testing::Values(INVALID, UNREACHABLE, TIMED_OUT, UNCONNECTED));

class RefusedStart : public testing::TestWithParam<Refusal> {
  protected:
    /// Starts the daemon, refuses its questions about nginx and waits for a few of them.
    void launch_and_await_questions() {
        rig.systemd.fail(NGINX, LOAD_STATE, GetParam().error);
        rig.station.launch({"-D"});
        rig.station.await("the fifth question", [this] {
            const auto traces = rig.station.trace().messages_of("service_is_loaded");
            return std::count(traces.begin(), traces.end(), failed_trace(GetParam())) >= 5;
        });
    }

    StationWithBus rig;
};

TEST_P(RefusedStart, ContinuesWhenItIsAnswered) {
    launch_and_await_questions();
    rig.systemd.load(NGINX);
    rig.station.await_wait_after(0);
    EXPECT_THAT(rig.records(), ElementsAre("OK 0"));
    EXPECT_EQ(rig.asked(NGINX), 1);
}

TEST_P(RefusedStart, EndsOnATermination) {
    launch_and_await_questions();
    EXPECT_EQ(rig.station.stop(), 1);
    EXPECT_THAT(rig.station.trace().messages_of("scheduler"), IsEmpty());
    EXPECT_THAT(rig.station.read(STATUS_LOG), EndsWith("\tFINISHED\tvigmond \"-D\"\n##\n"));
}

INSTANTIATE_TEST_SUITE_P(Errors, RefusedStart, testing::Values(INTERRUPTED, UNREACHABLE, TIMED_OUT, UNCONNECTED));

/// Starts the daemon, interrupts the questions of its second pass and waits for many of them.
void interrupt_for_ever(StationWithBus &rig) {
    rig.station.start();
    rig.systemd.fail(NGINX, ACTIVE_STATE, INTERRUPTED.error);
    rig.station.advance(10);
    rig.station.send(SIGALRM);
    rig.station.await("a hundred questions",
                      [&] { return rig.station.trace().messages_with(INTERRUPTED.error).size() > 100; });
}

TEST(InterruptedForEver, BlocksThePassUntilItIsAnswered) {
    StationWithBus rig;
    interrupt_for_ever(rig);
    const unsigned before = rig.station.waits();
    rig.systemd.activate(NGINX);
    rig.station.await_wait_after(before);
    EXPECT_THAT(rig.records(), ElementsAre("OK 0", "OK 0"));
}

TEST(InterruptedForEver, EndsOnATermination) {
    StationWithBus rig;
    interrupt_for_ever(rig);
    EXPECT_EQ(rig.station.stop(), 1);
    EXPECT_THAT(rig.station.read(STATUS_LOG), EndsWith("\tFINISHED\tvigmond \"-D\"\n##\n"));
}

// --- a silent systemd and a dying bus

TEST(SilentSystemd, DoesNotDelayATerminationOfTheStart) {
    StationWithBus rig;
    rig.systemd.obey("hold");
    rig.station.launch({"-D"});
    rig.station.await_trace("service_is_loaded");
    EXPECT_EQ(rig.station.stop(), 1);
    EXPECT_THAT(rig.station.trace().messages_of("service_add"), IsEmpty());
    EXPECT_THAT(rig.station.read(STATUS_LOG), EndsWith("\tFINISHED\tvigmond \"-D\"\n##\n"));
}

// Each question takes five seconds, so one unit is enough.
TEST(SilentSystemd, EndsThePassAtATimeoutAndIsAskedAgainInTheNext) {
    StationWithBus rig;
    for (const std::string &unit : UNITS) {
        rig.systemd.load(unit, unit == NGINX ? "loaded" : "masked");
    }
    rig.station.start();
    rig.systemd.obey("hold");
    EXPECT_THAT(rig.records_of(1), ElementsAre("OK 1"));
    EXPECT_THAT(rig.station.trace().messages_of("service_read"),
                Contains(StartsWith("GET PROPERTY FAILED: ret : -110 (Connection timed out)")));
    rig.systemd.obey("release");
    EXPECT_THAT(rig.records_of(2), ElementsAre("OK 0", "OK 0"));
}

TEST(DeadBus, FailsTheRestOfThePassAndRecoversWhenItReturns) {
    StationWithBus rig;
    rig.station.start();
    rig.station.forget();
    rig.systemd.strike(rig.bus.pid(), SIGKILL, 4); // networkd's question, then the third unit's
    EXPECT_THAT(rig.records_of(1), ElementsAre("OK 1"));
    Texts outcomes = rig.station.trace().messages_of("service_read");
    std::erase_if(outcomes, [](const std::string &text) {
        return !text.starts_with("GET PROPERTY FAILED") && text.find(" running (") == std::string::npos;
    });
    ASSERT_THAT(outcomes, SizeIs(7)) << "one question per unit";
    EXPECT_EQ(outcomes[0], "service: corvana-portapi - running (active)");
    EXPECT_EQ(outcomes[1], "service: wpa_supplicant - running (active)");
    EXPECT_THAT(outcomes[2], StartsWith("GET PROPERTY FAILED: ret : -104 (Connection reset by peer)"));
    EXPECT_THAT(Texts(outcomes.begin() + 3, outcomes.end()), Each(StartsWith("GET PROPERTY FAILED: ret : -")));
    EXPECT_EQ(rig.records_of(9), joined(repeated("OK 1", 8), {"FAIL 1"})) << "the bus is still down";
    EXPECT_THAT(rig.sentences(), ElementsAre(NONE_NAMED));
    rig.bus.stop();
    rig.bus.start();
    rig.systemd.connect();
    EXPECT_EQ(rig.records_of(10), joined(repeated("FAIL 0", 9), {"OK 0"}));
    EXPECT_THAT(rig.sentences(), ElementsAre(NONE_NAMED, ALL_UP));
}

TEST(DeadBus, AtTheStartIsAskedUntilItReturns) {
    StationWithBus rig;
    rig.systemd.strike(rig.bus.pid(), SIGKILL, 3); // the third unit's question: rauc, after nginx and ocppd
    rig.station.launch({"-D"});
    rig.station.await("questions without a bus", [&] {
        const auto traces = rig.station.trace().messages_of("service_is_loaded");
        return std::count_if(traces.begin(), traces.end(),
                             [](const std::string &text) { return text.starts_with("GET PROPERTY FAILED"); }) >= 4;
    });
    rig.bus.stop();
    rig.bus.start();
    rig.systemd.connect();
    rig.station.await_wait_after(0);
    EXPECT_THAT(rig.station.trace().messages_of("service_add"), SizeIs(14)) << "two for each unit";
    EXPECT_THAT(rig.sentences(), IsEmpty());
    EXPECT_THAT(rig.records(), ElementsAre("OK 0"));
}
