// The daemon's messages to the service manager.

#include "bus_station.h"
#include "capture.h"

#include <algorithm>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr const char *ALIVE = "WATCHDOG=1";
constexpr const char *NO_ISSUE = "WATCHDOG=1\nSTATUS=Raised issues: none";

class Supervision : public BusStation {
  protected:
    Supervision() : BusStation(even_board().folder("/run")) {
        station.environment.emplace_back("NOTIFY_SOCKET=/run/notify");
    }
    /// Runs heartbeats until the status message arrives.
    void expect_status(const std::string &text) {
        std::vector<std::string> messages;
        for (int i = 0; i < 1000 && std::count(messages.begin(), messages.end(), "WATCHDOG=1\nSTATUS=" + text) == 0;
             ++i) {
            station.step();
            messages = manager.take();
        }
        EXPECT_THAT(messages, Contains("WATCHDOG=1\nSTATUS=" + text));
    }

    DatagramSocket manager{station.files().host_path("/run/notify")};
};

TEST_F(Supervision, IsReadyBeforeTheFirstPassAndAliveAfterEach) {
    station.start();
    EXPECT_THAT(manager.take(), ElementsAre("READY=1", NO_ISSUE));
    station.step(3);
    EXPECT_THAT(manager.take(), ElementsAre(ALIVE));
    station.step();
    EXPECT_THAT(manager.take(), ElementsAre(ALIVE));
}

TEST_F(Supervision, NamesTheIssuesRaised) {
    station.start();
    station.temperature(90000);
    station.step(3);
    station.heartbeats(3);
    static_cast<void>(manager.take());
    station.step(); // the fifth hot sample raises CB20
    EXPECT_THAT(manager.take(), ElementsAre("WATCHDOG=1\nSTATUS=Raised issues: CB20"));
}

TEST_F(Supervision, ReportsThatTheBusIsLostAndBack) {
    station.start();
    BusClient(bus).wait_for_owner(SERVICE_NAME);
    bus.stop();
    expect_status("Raised issues: none; not on the bus");
    EXPECT_THAT(station.trace().messages_with("not on the bus"), SizeIs(1));
    bus.start();
    BusClient(bus).wait_for_owner(SERVICE_NAME);
    expect_status("Raised issues: none");
    EXPECT_THAT(station.trace().messages_with("on the bus again"), SizeIs(1));
}

TEST_F(Supervision, ReportsAMissingBus) {
    bus.stop();
    station.start();
    expect_status("Raised issues: none; not on the bus");
}

TEST_F(Supervision, ReportsThatTheStatusLogCannotBeWritten) {
    station.file_size = 2000; // less than its header
    station.start();
    EXPECT_THAT(manager.take(), Contains("WATCHDOG=1\nSTATUS=Raised issues: none; status log cannot be written: "
                                         "No space left on device"));
    EXPECT_THAT(station.trace().messages_with("status log cannot be written"), SizeIs(1));
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
    EXPECT_THAT(manager.take(), ElementsAre(ALIVE));
}

TEST_F(Supervision, ReportsThatItStopsWhenASignalEndsIt) {
    station.start();
    static_cast<void>(manager.take());
    EXPECT_EQ(station.stop(), 1);
    EXPECT_THAT(manager.take(), ElementsAre("STOPPING=1"));
}

TEST_F(Supervision, IsNotReadyWhenTheStartFails) {
    EXPECT_EQ(station.run({"-D", "-h"}).status, 0);
    station.start();
    static_cast<void>(manager.take());
    EXPECT_EQ(station.run({"-D"}).status, 255); // a second daemon
    EXPECT_THAT(manager.take(), IsEmpty());
}

TEST_F(Supervision, IsSilentWithoutAServiceManager) {
    std::erase(station.environment, "NOTIFY_SOCKET=/run/notify");
    bus.stop();
    station.start();
    station.step(3);
    station.stop();
    EXPECT_THAT(manager.take(), IsEmpty());
    EXPECT_THAT(station.trace().messages_with("not on the bus"), IsEmpty());
}

} // namespace
