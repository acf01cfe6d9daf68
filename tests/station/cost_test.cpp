// The exact part of a heartbeat's cost: the system calls of the main thread.

#include "capture.h"
#include "station.h"
#include "station_life.h"
#include "status_log.h"
#include "system_call_count.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <vector>

#ifdef SYS_rt_sigtimedwait_time64
constexpr long TAKE_SIGNAL = SYS_rt_sigtimedwait_time64;
#else
constexpr long TAKE_SIGNAL = SYS_rt_sigtimedwait;
#endif

namespace {

struct Budget {
    long call;
    int most;
    const char *reason;
};

constexpr int FILES = 8; // opened by the probes
constexpr int DISKS = 8;

// On a board without a bus and without WiFi: five tasks (ids 1, 2, 4, 9, 13) write no record and read
// no file.
const int RECORDS = static_cast<int>(even_checks().size());
const int TASKS = static_cast<int>(names_of_checks().size());
const std::vector BUDGETS{
    Budget{SYS_writev, RECORDS, "one a record"},
    Budget{SYS_lseek, RECORDS, "one a record: is the file full"},
    Budget{TAKE_SIGNAL, TASKS + 2, "one before each task, one at the end of the pass, one after the wait"},
    Budget{SYS_rt_sigprocmask, 4, "the heartbeat is held back for the pass, let in, and held back for the wait"},
    Budget{SYS_rt_sigaction, 1, "which handler the heartbeat has"},
    Budget{SYS_openat, FILES + 2, "two with the settings of the network"},
    Budget{SYS_read, FILES + 2, "and their ends"},
    Budget{SYS_close, FILES + 3, "of all, and of the try to reach the bus"},
    Budget{SYS_newfstatat, DISKS + FILES + 3, "of each file its block size, once the zone file, once the status log"},
    Budget{SYS_access, 1, "Bluetooth"},
    Budget{SYS_capget, 2, "to raise the capability for the eMMC, and to lower it"},
    Budget{SYS_capset, 2, "the same"},
    Budget{SYS_fcntl, 1, "the stream of the LAN's settings"},
    Budget{SYS_write, 1, "the rig's own: it tells that the wait is entered"},
    // An attempt to connect to the missing bus.
    Budget{SYS_socket, 1, ""},
    Budget{SYS_connect, 1, ""},
    Budget{SYS_setsockopt, 4, ""},
    Budget{SYS_getsockopt, 4, ""},
};

int most_of(long call) {
    const auto budget =
        std::find_if(BUDGETS.begin(), BUDGETS.end(), [call](const Budget &each) { return each.call == call; });
    return budget == BUDGETS.end() ? 0 : budget->most;
}

/// The journal lines of the main thread.
int count_lines(const Station &station) {
    const std::string id = "[" + std::to_string(station.pid()) + "]";
    return static_cast<int>(
        std::count_if(station.journal().begin(), station.journal().end(),
                      [&id](const JournalRecord &record) { return record["MESSAGE"].find(id) != std::string::npos; }));
}

/// The calls of a pass with everything due, less those that are one a trace line.
SystemCalls calls_of_a_pass(Station &station) {
    station.step(3600);
    station.forget();
    const int lines_before = count_lines(station);
    SystemCallCount count(station.pid());
    station.step(3600);
    SystemCalls calls = count.until_next_wait();
    calls[SYS_sendmsg] -= count_lines(station) - lines_before;
    return calls;
}

void expect_within_budget(const SystemCalls &calls) {
    for (const auto &[call, times] : calls) {
        EXPECT_LE(times, most_of(call)) << "of call " << call;
    }
    EXPECT_EQ(calls.at(SYS_sendmsg), 0) << "one a trace line";
}

} // namespace

TEST(SystemCalls, OfAPassWithEverythingDueAreMinimal) {
    Station station;
    station.start({});
    expect_within_budget(calls_of_a_pass(station));
}

TEST(SystemCalls, OfAPassUnderAServiceManagerAreOneMore) {
    Station station{Board().folder("/run")};
    station.environment = {"NOTIFY_SOCKET=/run/notify"};
    const DatagramSocket manager{station.files().host_path("/run/notify")};
    station.start({});
    SystemCalls calls = calls_of_a_pass(station);
    EXPECT_EQ(calls[SYS_sendto], 1) << "it is alive";
    calls[SYS_sendto] = 0;
    expect_within_budget(calls);
}
