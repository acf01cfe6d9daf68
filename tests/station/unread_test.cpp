// A journal or syslog daemon that has stopped reading stops no heartbeat, and the lost messages are reported.

#include "datagram_queue.h"
#include "passes.h"
#include "station.h"
#include "station_life.h"
#include "status_log.h"
#include "system_call_count.h"

#include <algorithm>
#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <regex>
#include <sys/resource.h>
#include <sys/syscall.h>

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

namespace {

/// The number of unread messages that the kernel keeps.
std::size_t room_in_a_socket() { return std::stoul(read_file("/proc/sys/net/unix/max_dgram_qlen")) + 1; }

/// Queues as long as systemd makes them, which hold more sentences than the send buffer of one socket.
struct LongQueues {
    LongQueues() { EXPECT_TRUE(lengthen_datagram_queues(512)) << "needs the right to create a network namespace"; }
};

struct Unread : LongQueues, testing::Test {
    Unread() { station.environment = {"TZ=UTC0"}; }

    /// Runs three minutes and ends without losing a record.
    void live_on() {
        life.steps(&station, 18);
        EXPECT_EQ(station.stop(), 1);
        EXPECT_EQ(records_in(station.read(STATUS_LOG)), life.records());
        EXPECT_THAT(station.read(STATUS_LOG), HasSubstr("\tFINISHED\t"));
    }

    void fill_journal() {
        station.reads_journal = false;
        fill_socket(station.files().host_path("/run/systemd/journal/socket"));
    }

    /// Reads the sockets empty.
    void read_all() {
        station.reads_journal = true;
        station.reads_syslog = true;
        station.await("nothing", [] { return true; });
        station.forget();
    }

    [[nodiscard]] std::vector<std::string> journal_messages() const {
        std::vector<std::string> messages;
        for (const JournalRecord &record : station.journal()) {
            messages.push_back(record["MESSAGE"]);
        }
        return messages;
    }

    /// Whether a trace of level 0 reports the number of lost traces.
    [[nodiscard]] bool tells_lost_traces() const {
        const std::regex shape(R"(\(0\) \[\d+\] \S+ trace\.c: trace_write\(\d+\) [1-9]\d* traces lost)");
        const std::vector<std::string> messages = journal_messages();
        return std::any_of(messages.begin(), messages.end(),
                           [&shape](const std::string &message) { return std::regex_match(message, shape); });
    }

    /// Causes one sentence.
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
    fill_journal();
    live_on();
}

TEST_F(Unread, JournalFullDuringAPassStopsNoTermination) {
    station.start({});
    fill_journal();
    station.advance(3);
    station.send(SIGALRM);
    station.send(SIGTERM);
    EXPECT_EQ(station.await_exit(), 1);
}

TEST_F(Unread, JournalGetsTheNextHeartbeatAndTheNumberOfLostTraces) {
    station.start({});
    fill_journal();
    station.step();
    read_all();
    station.step();
    EXPECT_TRUE(tells_lost_traces());
    EXPECT_THAT(journal_messages(), Contains(HasSubstr("RUN: at 12:00:27")));
}

TEST_F(Unread, JournalThatIsFullAtTheStartStopsNoStart) {
    fill_journal();
    EXPECT_THAT(station.run({"-v"}).err, HasSubstr("Version Data"));
    EXPECT_EQ(station.run({"-d"}).status, 0);
    station.start({});
    read_all();
    station.step();
    EXPECT_TRUE(tells_lost_traces());
}

// The library blocks and cannot try again without a descriptor.
TEST_F(Unread, JournalIsTriedOnceAHeartbeatThoughNoDescriptorIsLeft) {
    station.start({});
    rlimit before{};
    ASSERT_EQ(prlimit(station.pid(), RLIMIT_NOFILE, nullptr, &before), 0);
    const rlimit none_more{.rlim_cur = 3, .rlim_max = before.rlim_max};
    ASSERT_EQ(prlimit(station.pid(), RLIMIT_NOFILE, &none_more, nullptr), 0);
    fill_journal();
    SystemCallCount count(station.pid());
    station.step();
    EXPECT_LE(count.until_next_wait()[SYS_sendmsg], 2) << "one of them before the heartbeat";
    EXPECT_EQ(prlimit(station.pid(), RLIMIT_NOFILE, &before, nullptr), 0); // a sanitizer needs some at the exit
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
    read_all();
    change_temperature();
    EXPECT_THAT(station.syslog(), SizeIs(1));
    EXPECT_THAT(station.trace().messages_with("sentences lost"), ElementsAre("2 sentences lost, syslog was not read"));
}
