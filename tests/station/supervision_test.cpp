// What the service manager hears of the daemon.

#include "capture.h"
#include "station.h"

#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class Supervision : public testing::Test {
  protected:
    void SetUp() override { station.environment = {"NOTIFY_SOCKET=/run/notify"}; }
    static std::string after_pass(const std::string &time, int raised) {
        return "WATCHDOG=1\nSTATUS=Last heartbeat at " + time + " UTC, raised issues: " + std::to_string(raised);
    }

    Station station{Board().folder("/run")};
    DatagramSocket manager{station.files().host_path("/run/notify")};
};

TEST_F(Supervision, IsReadyBeforeTheFirstPassAndAliveAfterEach) {
    station.start();
    EXPECT_THAT(manager.take(), ElementsAre("READY=1", after_pass("12:00:07", 0)));
    station.step(3);
    EXPECT_THAT(manager.take(), ElementsAre(after_pass("12:00:10", 0)));
    station.step();
    EXPECT_THAT(manager.take(), ElementsAre(after_pass("12:00:20", 0)));
}

TEST_F(Supervision, CountsTheIssuesRaised) {
    station.start();
    station.temperature(90000);
    station.step(3);
    station.heartbeats(3);
    static_cast<void>(manager.take());
    station.step(); // the fifth hot one, with which CB20 is raised
    EXPECT_THAT(manager.take(), ElementsAre(after_pass("12:00:50", 1)));
}

TEST_F(Supervision, IsNotAliveBeforeAPassIsOver) {
    station.start();
    const HeldFile held(station, TEMPERATURE_FILE);
    static_cast<void>(manager.take());
    station.advance(3);
    const unsigned before = station.waits();
    station.send(SIGALRM);
    station.await_trace("temperature_exec");
    EXPECT_THAT(manager.take(), IsEmpty());
    held.release("42000\n");
    station.await_wait_after(before);
    EXPECT_THAT(manager.take(), ElementsAre(after_pass("12:00:10", 0)));
}

TEST_F(Supervision, SaysThatItStopsWhenASignalEndsIt) {
    station.start();
    static_cast<void>(manager.take());
    EXPECT_EQ(station.stop(), 1);
    EXPECT_THAT(manager.take(), ElementsAre("STOPPING=1"));
}

TEST_F(Supervision, IsNotReadyWhereItDoesNotRun) {
    EXPECT_EQ(station.run({"-D", "-h"}).status, 0);
    station.start();
    static_cast<void>(manager.take());
    EXPECT_EQ(station.run({"-D"}).status, 255); // the second of its kind
    EXPECT_THAT(manager.take(), IsEmpty());
}

TEST_F(Supervision, IsSilentWhereNobodyAsks) {
    station.environment = {};
    station.start();
    station.step(3);
    station.stop();
    EXPECT_THAT(manager.take(), IsEmpty());
}

} // namespace
