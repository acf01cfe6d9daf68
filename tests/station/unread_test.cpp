// A journal or a syslog daemon that has stopped reading does not stop the heart.

#include "passes.h"
#include "station.h"
#include "station_life.h"
#include "status_log.h"

#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::SizeIs;

namespace {

/// Messages that the kernel keeps for a reader.
std::size_t room_in_a_socket() { return std::stoul(read_file("/proc/sys/net/unix/max_dgram_qlen")) + 1; }

struct Unread : testing::Test {
    Unread() { station.environment = {"TZ=UTC0"}; }

    /// Lives a quarter of an hour and ends, without a record lost.
    void live_on() {
        life.steps(&station, 90);
        EXPECT_EQ(station.stop(), 1);
        EXPECT_EQ(records_in(station.read(STATUS_LOG)), life.records());
        EXPECT_THAT(station.read(STATUS_LOG), testing::HasSubstr("\tFINISHED\t"));
    }

    /// Says one sentence.
    void change_temperature() {
        hot = !hot;
        station.temperature(hot ? 99000 : 42000);
        station.heartbeats(5);
    }

    bool hot = false;
    Station station{even_board()};
    StationLife life{even_checks()};
};

} // namespace

TEST_F(Unread, JournalFromTheFirstPassOnStopsNoHeartbeat) {
    life.start(&station, {});
    station.reads_journal = false;
    live_on();
}

TEST_F(Unread, JournalFullDuringAPassStopsNoTermination) {
    station.start({});
    station.reads_journal = false;
    station.advance(3);
    station.send(SIGALRM);
    station.send(SIGTERM);
    EXPECT_EQ(station.await_exit(), 1);
}

TEST_F(Unread, SyslogStopsNoHeartbeatAndIsWrittenToAgain) {
    station.start();
    station.reads_syslog = false;
    const std::string lost = "syslog is not read, the message is lost";
    while (station.trace().messages_with(lost).empty()) {
        ASSERT_LE(station.trace().messages_with("=======").size(), room_in_a_socket() + 1);
        change_temperature();
    }
    change_temperature();
    EXPECT_THAT(station.trace().messages_with(lost), SizeIs(2));
    station.reads_syslog = true;
    station.heartbeats(1); // in which what waited is read
    station.forget();
    change_temperature();
    EXPECT_THAT(station.syslog(), SizeIs(1));
}
