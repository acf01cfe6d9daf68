// Fails one system or library call of the daemon per run, through a start, ten heartbeats with a rotation, and a
// stop. STATION_FAULTS=n tries n calls of each kind, "all" every one, "n-m" those.

#include "busy_station.h"
#include "from_environment.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iostream>
#include <limits>
#include <numeric>

using testing::IsEmpty;

namespace {

constexpr unsigned DEFAULT_INSTANTS = 4;

/// What may be missing in the log after one failed call.
enum class Loss : std::uint8_t {
    nothing,
    one_write, ///< a record, or a block
    a_file,    ///< the file to be rotated, or everything when the log could not be opened at the start
};

struct Kind {
    const char *name;
    StationCall call;
    int error;
    Loss loss;
};

constexpr std::array<Kind, 25> KINDS{{
    {"Open", StationCall::open, EMFILE, Loss::a_file},
    {"Fopen", StationCall::fopen, EMFILE, Loss::a_file},
    {"Read", StationCall::read, EIO, Loss::nothing},
    {"Write", StationCall::write, ENOSPC, Loss::one_write},
    {"TornWrite", StationCall::torn_write, 0, Loss::one_write},
    {"Fread", StationCall::fread, EIO, Loss::a_file},
    {"Fwrite", StationCall::fwrite, ENOSPC, Loss::a_file},
    {"Fclose", StationCall::fclose, ENOSPC, Loss::a_file},
    {"Lseek", StationCall::lseek, EIO, Loss::nothing},
    {"Sync", StationCall::sync, EIO, Loss::a_file},
    {"Memory", StationCall::memory, ENOMEM, Loss::a_file},
    {"Fork", StationCall::fork, EAGAIN, Loss::nothing},
    {"Thread", StationCall::thread, EAGAIN, Loss::nothing},
    {"Rename", StationCall::rename, EACCES, Loss::a_file},
    {"Remove", StationCall::remove, EACCES, Loss::nothing},
    {"Stat", StationCall::stat, EACCES, Loss::a_file},
    {"Ioctl", StationCall::ioctl, EIO, Loss::nothing},
    {"Statvfs", StationCall::statvfs, EIO, Loss::nothing},
    {"Socket", StationCall::socket, EMFILE, Loss::nothing},
    {"Connect", StationCall::connect, ECONNREFUSED, Loss::nothing},
    {"Send", StationCall::send, ECONNRESET, Loss::nothing},
    {"Receive", StationCall::receive, ECONNRESET, Loss::nothing},
    {"Poll", StationCall::poll, ENOMEM, Loss::nothing},
    {"Control", StationCall::control, EMFILE, Loss::nothing},
    {"Timer", StationCall::timer, EINVAL, Loss::nothing},
}};

constexpr unsigned FOR_EVER = std::numeric_limits<unsigned>::max();

/// The sanitizer aborts if it has no memory to start a thread.
bool spares_threads() { return is_sanitized(); }

StationFault fault_of(const Kind &kind, unsigned first, unsigned last) {
    return {.call = kind.call,
            .first = first,
            .last = last,
            .error = kind.error,
            .threads =
                spares_threads() && kind.call == StationCall::memory ? StationThreads::main : StationThreads::all};
}

struct Life {
    bool started = false;
    int status = 0;
    unsigned calls = 0;
    LogContent log;
    std::string err;
};

/// Whether the daemon keeps asking systemd at the start, which it does until it gets an answer.
bool keeps_asking(Station &station) {
    constexpr std::size_t often = 4;
    return station.trace().messages_with("GET PROPERTY FAILED").size() > often;
}

std::string last_part(const std::string &text) {
    constexpr std::size_t most = 2000;
    return text.substr(text.size() - std::min(text.size(), most));
}

/// A start, ten heartbeats and a stop, whatever fails in between.
Life live(const BusyWorld &world, const StationFault &fault, const std::vector<std::string> &further = {}) {
    BusyStation station(world);
    station.fault = fault;
    station.note = "calls " + std::to_string(fault.first) + " to " + std::to_string(fault.last) + " failing";
    station.launch_busy(further);
    station.await("the first pass",
                  [&station] { return station.waits() > 0 || !station.is_running() || keeps_asking(station); });
    Life life;
    life.started = station.is_running();
    for (int beat = 0; station.waits() > 0 && beat < BusyStation::BEATS; ++beat) {
        station.beat();
    }
    life.status = life.started ? station.stop() : station.await_exit();
    life.calls = station.calls();
    life.err = last_part(station.trace().text());
    life.log = take_apart(station.recorded(), station.command_line());
    if (fault.call == StationCall::memory && !life.log.torn.empty()) { // none was left for the command line
        life.log = take_apart(station.recorded(), "");
    }
    EXPECT_FALSE(station.is_locked());
    return life;
}

/// Whether `all` contains `some` in the same order.
bool stand_in_order(const std::vector<std::string> &some, const std::vector<std::string> &all) {
    auto at = all.begin();
    for (const std::string &each : some) {
        at = std::find(at, all.end(), each);
        if (at == all.end()) {
            return false;
        }
        ++at;
    }
    return true;
}

std::vector<std::string> of_last_pass(const std::vector<std::string> &records) {
    std::vector<std::string> last;
    for (const std::string &record : records) {
        if (record.starts_with(records.back().substr(0, 19))) {
            last.push_back(record);
        }
    }
    return last;
}

/// The calls to fail: evenly spread, or those requested.
std::vector<unsigned> instants(unsigned all) {
    const char *given = std::getenv("STATION_FAULTS");
    const std::string wanted = given == nullptr ? std::to_string(DEFAULT_INSTANTS) : given;
    std::vector<unsigned> result;
    if (const std::size_t dash = wanted.find('-'); dash != std::string::npos) {
        result.resize(std::stoul(wanted.substr(dash + 1)) - std::stoul(wanted) + 1);
        std::iota(result.begin(), result.end(), static_cast<unsigned>(std::stoul(wanted)));
        return result;
    }
    const unsigned count = wanted == "all" ? all : std::min(all, static_cast<unsigned>(std::stoul(wanted)));
    for (unsigned i = 0; i < count; ++i) {
        result.push_back(1 + i * all / count);
    }
    std::cout << count << " of " << all << " calls\n";
    return result;
}

} // namespace

class Fault : public testing::TestWithParam<Kind> {
  protected:
    void expect_survived(const Life &life, const Life &usual) const {
        EXPECT_THAT(life.log.torn, IsEmpty());
        if (!life.started) {
            EXPECT_EQ(life.status, 255) << life.err;
            EXPECT_THAT(life.log.records, IsEmpty());
            return;
        }
        EXPECT_EQ(life.status, 1);
        expect_records(life.log, usual.log);
    }

    void expect_records(const LogContent &log, const LogContent &usual) const {
        switch (GetParam().loss) {
        case Loss::nothing:
            EXPECT_EQ(without_repetitions(log.records), usual.records);
            EXPECT_GE(log.starts, 1);
            EXPECT_TRUE(log.ends_closed);
            EXPECT_EQ(log.closings, 1);
            break;
        case Loss::one_write: // without its first header the file may stay below the rotation size
            EXPECT_TRUE(stand_in_order(log.records, usual.records));
            EXPECT_GE(log.records.size() + static_cast<std::size_t>(log.closings),
                      usual.records.size() - (log.starts + log.rotations == 2 ? 0 : 1));
            break;
        case Loss::a_file:
            EXPECT_TRUE(stand_in_order(log.records, usual.records));
            EXPECT_TRUE(log.records.empty() || of_last_pass(log.records) == of_last_pass(usual.records));
            EXPECT_LE(log.closings, 1);
            break;
        }
    }

    /// A file that cannot be removed after compression is compressed again with the next record.
    [[nodiscard]] std::vector<std::string> without_repetitions(const std::vector<std::string> &records) const {
        std::vector<std::string> result;
        std::copy_if(records.begin(), records.end(), std::back_inserter(result), [&](const std::string &record) {
            return GetParam().call != StationCall::remove ||
                   std::find(result.begin(), result.end(), record) == result.end();
        });
        return result;
    }

    BusyWorld world;
};

TEST_P(Fault, LeavesTheDaemonAliveAndItsLogWhole) {
    const Kind kind = GetParam();
    const Life usual = live(world, fault_of(kind, 0, 0));
    ASSERT_TRUE(usual.started);
    ASSERT_EQ(usual.log.rotations, 1);
    ASSERT_GT(usual.calls, 0U);
    for (const unsigned instant : instants(usual.calls)) {
        SCOPED_TRACE("call " + std::to_string(instant) + " of " + std::to_string(usual.calls));
        expect_survived(live(world, fault_of(kind, instant, instant)), usual);
        if (HasFailure()) {
            break;
        }
    }
}

TEST_P(Fault, ThatLastsLeavesTheDaemonAliveAndItsLogWhole) {
    const Kind kind = GetParam();
    const Life usual = live(world, fault_of(kind, 0, 0));
    for (const unsigned instant : instants(usual.calls)) {
        SCOPED_TRACE("from call " + std::to_string(instant) + " of " + std::to_string(usual.calls) + " on");
        const Life life = live(world, fault_of(kind, instant, FOR_EVER), {"-D"});
        EXPECT_THAT(life.log.torn, IsEmpty());
        EXPECT_EQ(life.status, life.started ? 1 : 255) << life.err;
        if (HasFailure()) {
            break;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Of, Fault, testing::ValuesIn(KINDS),
                         [](const testing::TestParamInfo<Kind> &kind) { return std::string(kind.param.name); });

// Not for a sanitized daemon; see spares_threads().
TEST(BusThreads, OutOfMemoryFromAnyCallOnEndNothing) {
    constexpr unsigned calls = 30; // the listener's, until it is connected
    const BusyWorld world;
    for (unsigned call = 1; call <= calls; ++call) {
        SCOPED_TRACE("from call " + std::to_string(call) + " on");
        const Life life = live(world,
                               {.call = StationCall::memory,
                                .first = call,
                                .last = FOR_EVER,
                                .error = ENOMEM,
                                .threads = StationThreads::others},
                               {"-D"});
        EXPECT_EQ(life.status, 1) << life.err;
        EXPECT_EQ(life.log.closings, 1);
    }
}
