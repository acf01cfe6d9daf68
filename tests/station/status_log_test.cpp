// The status log file of the running daemon.

#include "station_life.h"
#include "status_log.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

namespace fs = std::filesystem;

const std::string START_STAMP = "2024-03-01 12:00:07";

std::string log_of(const Station &station) { return station.read(STATUS_LOG); }

void put_temperature(Station &station, const std::string &content) { station.files().write(TEMPERATURE_FILE, content); }

/// Warm, hot, unreadable and cool again: 10 + 10 + 5 + 10 samples.
std::vector<Check> feverish_checks() {
    std::vector<Check> checks = even_checks();
    replace(&checks, {.issue = "CB20\t0",
                      .period = 10,
                      .delay = 5,
                      .put = put_temperature,
                      .plateaus = {{.samples = 1, .input = "42000\n", .value = "42"},
                                   {.samples = 10, .input = "72000\n", .value = "72", .label = "WARN"},
                                   {.samples = 10, .input = "80000\n", .value = "80", .label = "FAIL"},
                                   {.samples = 5, .input = "hot\n", .value = "NaN", .label = "FAIL"},
                                   {.samples = 10, .input = "42000\n", .value = "42"}}});
    return checks;
}

struct StatusLog : testing::Test {
    StatusLog() { station.environment = {"TZ=UTC0"}; }

    Station station{even_board()};
    StationLife life{even_checks()};
};

} // namespace

TEST_F(StatusLog, BeginsWithTheHeaderOfTheBuiltInChecks) {
    station.argv0 = "/usr/bin/vigmond";
    life.start(&station, {"-S", "200"});
    EXPECT_EQ(log_of(station),
              header_text(START_STAMP, "START", "/usr/bin/vigmond \"-S\" \"200\"") + text_of(life.records()));
}

TEST_F(StatusLog, IsAppendedToByEveryStart) {
    station.start({"-D"});
    station.stop();
    const std::string before = log_of(station);
    ASSERT_THAT(before, HasSubstr("FINISHED"));
    life.start(&station, {"-D"});
    EXPECT_EQ(log_of(station), before + header_text(START_STAMP, "START", "vigmond \"-D\"") + text_of(life.records()));
}

// In the order of the checks, without those of the WiFi, which is off.
TEST_F(StatusLog, HasARecordOfEachCheckAfterTheFirstPass) {
    station.start();
    std::vector<std::string> expected;
    for (const Check &check : even_checks()) {
        expected.push_back(START_STAMP + "\tOK\t" + check.issue + "\t" + check.plateaus.front().value);
    }
    EXPECT_EQ(records_in(log_of(station)), expected);
}

TEST_F(StatusLog, HasTheRecordsOfEachHeartbeatWhenItIsOver) {
    life.start(&station, {"-D"});
    for (int beat = 0; beat < 12; ++beat) {
        life.step(&station);
        ASSERT_THAT(log_of(station), EndsWith("\n" + text_of(life.last_records())));
    }
    EXPECT_EQ(records_in(log_of(station)), life.records());
}

TEST_F(StatusLog, HasTheFailedProbesAsWarningsWithoutAValue) {
    station.files().write(TEMPERATURE_FILE, "");
    station.files().write(MEMORY_FILE, "");
    station.files().write("/proc/net/dev", "");
    station.files().write("/proc/stat", "");
    station.files().remove(EMMC_DEVICE);
    station.files().remove("/sys/class/net/eth0/operstate");
    station.files().remove("/rw-root");
    station.start();
    std::vector<std::string> failed;
    for (const std::string &record : records_in(log_of(station))) {
        if (record.ends_with("NaN")) {
            failed.push_back(record.substr(START_STAMP.size() + 1));
        }
    }
    EXPECT_THAT(failed, ElementsAre("WARN\tCB20\t0\tNaN", "WARN\tCB10\t0\tNaN", "WARN\tCB12\t0\tNaN",
                                    "WARN\tCB21\t0\tNaN", "WARN\tCB07\t0\tNaN", "WARN\tCB22\t0\tNaN",
                                    "WARN\tCB22\t2\tNaN", "WARN\tCB31\t0\tNaN", "WARN\tCB32\t0\tNaN"));
}

struct Level {
    std::vector<std::string> options;
    std::vector<std::string> labels;
};

class StatusLogLevel : public testing::TestWithParam<Level> {};

TEST_P(StatusLogLevel, SelectsTheLabels) {
    Station station(even_board());
    station.environment = {"TZ=UTC0"};
    StationLife life(feverish_checks());
    life.start(&station, GetParam().options);
    life.steps(&station, 35);
    std::vector<std::string> expected;
    for (const std::string &record : life.records()) {
        for (const std::string &label : GetParam().labels) {
            if (record.find("\t" + label + "\t") != std::string::npos) {
                expected.push_back(record);
            }
        }
    }
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(records_in(log_of(station)), expected);
    station.stop();
    EXPECT_THAT(log_of(station), HasSubstr("\tFINISHED\t")) << "at any level";
}

INSTANTIATE_TEST_SUITE_P(Names, StatusLogLevel,
                         testing::Values(Level{{"-D"}, {"OK", "WARN", "FAIL"}},
                                         Level{{"-l", "OK"}, {"OK", "WARN", "FAIL"}},
                                         Level{{"-l", "warning"}, {"WARN", "FAIL"}}, Level{{"-l", "fail"}, {"FAIL"}}));

// 72 from 12:00:10, 80 from 12:01:50, unreadable from 12:03:30, 42 from 12:04:20; the fifth sample changes each.
TEST(StatusLogRecords, FollowTheStateAndNotTheValue) {
    Station station(even_board());
    station.environment = {"TZ=UTC0"};
    StationLife life(feverish_checks());
    life.start(&station, {"-D"});
    life.steps(&station, 35);
    const std::vector<std::string> records = records_in(log_of(station));
    EXPECT_EQ(records, life.records());
    for (const char *record : {"2024-03-01 12:00:40\tOK\tCB20\t0\t72", "2024-03-01 12:00:50\tWARN\tCB20\t0\t72",
                               "2024-03-01 12:02:20\tWARN\tCB20\t0\t80", "2024-03-01 12:02:30\tFAIL\tCB20\t0\t80",
                               "2024-03-01 12:03:30\tWARN\tCB20\t0\tNaN", "2024-03-01 12:04:20\tFAIL\tCB20\t0\t42",
                               "2024-03-01 12:05:00\tOK\tCB20\t0\t42"}) {
        EXPECT_THAT(records, Contains(record));
    }
}

class StatusLogEnd : public testing::TestWithParam<int> {};

TEST_P(StatusLogEnd, IsMarkedOnce) {
    Station station(even_board());
    station.environment = {"TZ=UTC0"};
    station.start({"-l", "fail"});
    station.step(3);
    const std::string before = log_of(station);
    station.send(GetParam());
    EXPECT_EQ(station.await_exit(), 1);
    EXPECT_EQ(log_of(station), before + finished_text("2024-03-01 12:00:10", "vigmond \"-l\" \"fail\""));
}

INSTANTIATE_TEST_SUITE_P(Signals, StatusLogEnd, testing::Values(SIGTERM, SIGQUIT, SIGHUP, SIGINT));

TEST_F(StatusLog, LosesNothingInAKillAfterTheHeartbeat) {
    life.start(&station, {"-S", "200"});
    life.steps(&station, 7);
    station.send(SIGKILL);
    EXPECT_EQ(station.await_exit(), -SIGKILL);
    EXPECT_EQ(log_of(station), header_text(START_STAMP, "START", "vigmond \"-S\" \"200\"") + text_of(life.records()));
}

// --- links

namespace {

void limit_file_size(const Station &station, rlim_t bytes) {
    const rlimit limit{.rlim_cur = bytes, .rlim_max = RLIM_INFINITY};
    EXPECT_EQ(prlimit(station.pid(), RLIMIT_FSIZE, &limit, nullptr), 0);
}

} // namespace

TEST_F(StatusLog, LosesTheRecordsBeyondTheFileSizeLimit) {
    life.start(&station, {"-D"});
    const std::string before = log_of(station);
    for (const rlim_t room : {rlim_t{20}, rlim_t{0}}) { // by default SIGXFSZ would end the process
        limit_file_size(station, before.size() + room);
        life.step(&station);
        EXPECT_EQ(log_of(station), before) << room;
    }
    limit_file_size(station, RLIM_INFINITY);
    life.step(&station);
    EXPECT_EQ(log_of(station), before + text_of(life.last_records()));
}

TEST_F(StatusLog, StaysEmptyWithAFileSizeLimitOfZero) {
    station.file_size = 0;
    station.start();
    station.heartbeats(2);
    EXPECT_EQ(log_of(station), "");
    EXPECT_EQ(station.stop(), 1);
}

TEST(StatusLogLinks, AreRecordedWhileInUse) {
    const std::string network = "/var/lib/evse/etc/systemd/network/eth0.network";
    Station station(even_board().file(network, "[Link]\nUnmanaged=yes\n"));
    const auto has_link = [&station](const char *id) {
        return log_of(station).find("\t" + std::string(id) + "\t0\t") != std::string::npos;
    };
    station.start();
    for (const char *id : {"CB10", "CB11", "CB12", "CB13", "CB01", "CB02", "CB04", "CB09"}) {
        EXPECT_FALSE(has_link(id)) << id;
    }
    station.files().write(network, "[Link]\nUnmanaged=no\n");
    station.step(53);
    for (const char *id : {"CB10", "CB11", "CB12"}) {
        EXPECT_TRUE(has_link(id)) << id;
    }
    EXPECT_FALSE(has_link("CB13"));
    station.files().write(network, "[Link]\nUnmanaged=yes\n");
    const std::size_t before = log_of(station).size();
    station.step(60);
    const std::string after = log_of(station).substr(before);
    EXPECT_THAT(after, HasSubstr("CB20"));
    EXPECT_THAT(after, Not(HasSubstr("CB1")));
}

TEST(StatusLogLinks, OfTheWifiAreRecordedWhenItIsInUse) {
    Station station(even_board()
                        .file("/var/lib/evse/portapi/wifi.conf", "on")
                        .file("/sys/class/net/wlan0sta/operstate", "up\n")
                        .file("/proc/net/wireless", "wlan0sta: 0000 70. -29. -256 0 0 0 0 0 0\n"));
    station.start();
    const std::string log = log_of(station);
    for (const char *record :
         {"WARN\tCB13\t0\tNaN", "OK\tCB01\t0\t0", "OK\tCB02\t0\t0", "OK\tCB04\t0\t70", "OK\tCB09\t0\t-29"}) {
        EXPECT_THAT(log, HasSubstr(std::string("\t") + record + "\n"));
    }
}

// --- time zones

TEST(StatusLogTime, IsLocalTime) {
    Station station(even_board());
    station.environment = {"TZ=NPT-5:45"};
    station.start();
    const std::string log = log_of(station);
    EXPECT_THAT(log, HasSubstr("\n##\t2024-03-01 17:45:07\tSTART\t"));
    EXPECT_THAT(log, HasSubstr("\n2024-03-01 17:45:07\tOK\tCB20\t"));
    EXPECT_EQ(station.trace().lines().front().time, "12:00:07") << "the traces keep UTC";
    station.stop();
    EXPECT_THAT(log_of(station), HasSubstr("\n##\t2024-03-01 17:45:07\tFINISHED\t"));
}

// On 2024-03-31 at 01:00 UTC, 1711846800 seconds, the clocks go from 2 to 3.
TEST(StatusLogTime, FollowsSummerTime) {
    Station station(even_board().clock(1711846790));
    station.environment = {"TZ=CET-1CEST,M3.5.0,M10.5.0/3"};
    station.start();
    station.step();
    const Check last = even_checks().back();
    EXPECT_THAT(log_of(station), HasSubstr("2024-03-31 01:59:50\tOK\t" + last.issue + "\t" + last.plateaus[0].value +
                                           "\n2024-03-31 03:00:00\tOK\tCB20\t"));
}

// --- not a file

TEST_F(StatusLog, GoesToStderrWithoutAHeader) {
    life.start(&station, {"-L", "stderr", "-S", "10"});
    life.steps(&station, 100); // past the smallest size of a file
    EXPECT_EQ(station.trace().text(), text_of(life.records()));
    EXPECT_GT(station.trace().text().size(), 10240U);
    station.stop();
    EXPECT_THAT(station.trace().text(),
                EndsWith(finished_text(stamp_of(station.clock()), "vigmond \"-L\" \"stderr\" \"-S\" \"10\"")));
    EXPECT_EQ(read_file(station.files().scratch() + "/work/stderr"), "");
    EXPECT_EQ(log_of(station), "");
}

TEST_F(StatusLog, GoesToStdoutInAnyCase) {
    life.start(&station, {"-L", "StdOut"});
    life.steps(&station, 3);
    EXPECT_EQ(station.out(), text_of(life.records()));
    EXPECT_EQ(station.trace().text(), "");
}

TEST_F(StatusLog, IsOffOnRequest) {
    station.start({"-L", "/dev/null"});
    station.heartbeats(3);
    station.stop();
    EXPECT_EQ(station.out() + station.trace().text(), "");
    EXPECT_FALSE(fs::exists(station.files().host_path(STATUS_LOG)));
}

// --- replaced files

TEST_F(StatusLog, StaysOffWhenItsPathIsAFolder) {
    Station barred(even_board().folder(STATUS_LOG));
    barred.start();
    barred.heartbeats(3);
    EXPECT_TRUE(fs::is_directory(barred.files().host_path(STATUS_LOG)));
    barred.files().remove(STATUS_LOG);
    barred.heartbeats(3);
    EXPECT_EQ(barred.stop(), 1);
    EXPECT_FALSE(fs::exists(barred.files().host_path(STATUS_LOG)));
}

TEST_F(StatusLog, DoesNotBlockOnAFifoWithoutAReader) {
    station.files().make_fifo(STATUS_LOG);
    station.start();
    station.heartbeats(3);
    EXPECT_EQ(station.stop(), 1);
}

namespace {

/// Reads everything that is in the pipe now.
std::string waiting_in(const Descriptor &pipe) {
    std::array<char, 10240> text{};
    return {text.data(), static_cast<std::size_t>(std::max<ssize_t>(read(pipe.get(), text.data(), text.size()), 0))};
}

} // namespace

TEST_F(StatusLog, SurvivesTheReaderOfAFifoAndFeedsTheNext) {
    const std::string fifo = station.files().host_path(STATUS_LOG);
    station.files().make_fifo(STATUS_LOG);
    Descriptor reader(open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    life.start(&station, {"-D"});
    EXPECT_THAT(waiting_in(reader), EndsWith("\n" + text_of(life.records())));
    reader.reset();
    life.step(&station);
    EXPECT_THAT(station.trace().messages_of("lf_print"), Contains(std::string(STATUS_LOG) + ": Broken pipe"));
    reader.reset(open(fifo.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    life.step(&station);
    EXPECT_EQ(waiting_in(reader), text_of(life.last_records()));
    EXPECT_EQ(station.stop(), 1);
}

TEST_F(StatusLog, MixesWithTheTracesOnStderrInWholeLines) {
    life.start(&station, {"-D", "-L", "stderr"});
    life.steps(&station, 12);
    std::vector<std::string> records;
    std::istringstream lines(station.trace().text());
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("2024-")) {
            records.push_back(line);
        }
    }
    EXPECT_EQ(records, life.records());
}

/// Steps until the open file, wherever it is, has reached its 10240 bytes.
void fill(Station *station, StationLife *life, const std::string &command_line) {
    const std::size_t header = header_text(START_STAMP, "START", command_line).size();
    while (header + text_of(life->records()).size() < 10240) {
        life->step(station);
    }
}

TEST_F(StatusLog, RestartsWithTheNextHeartbeatWhenItWasMoved) {
    const std::string file = station.files().host_path(STATUS_LOG);
    life.start(&station, {"-S", "10"});
    life.step(&station);
    for (const std::string content : {"", "of another\n"}) { // of the file in its place
        fs::rename(file, file + ".moved");
        if (!content.empty()) {
            station.files().write(STATUS_LOG, content);
        }
        life.step(&station);
        EXPECT_EQ(log_of(station), content + header_text(stamp_of(station.clock()), "ROTATE", "vigmond \"-S\" \"10\"") +
                                       text_of(life.last_records()));
    }
    EXPECT_EQ(station.stop(), 1);
}

TEST_F(StatusLog, RestartsWhenItsFolderIsBack) {
    const std::string folder = station.files().host_path(STATUS_FOLDER);
    life.start(&station, {"-S", "10"});
    life.steps(&station, 3);
    fs::remove_all(folder);
    life.steps(&station, 3);
    EXPECT_FALSE(fs::exists(folder));
    fs::create_directory(folder);
    life.step(&station);
    EXPECT_EQ(log_of(station),
              header_text(stamp_of(station.clock()), "ROTATE", "vigmond \"-S\" \"10\"") + text_of(life.last_records()));
}

TEST_F(StatusLog, IsSuspendedWhileItsFolderIsMissingAtTheLimit) {
    const std::string folder = station.files().host_path(STATUS_FOLDER);
    life.start(&station, {"-S", "10"});
    fs::remove_all(folder);
    fill(&station, &life, "vigmond \"-S\" \"10\"");
    life.steps(&station, 3);
    EXPECT_FALSE(fs::exists(folder));
    fs::create_directory(folder);
    life.step(&station);
    EXPECT_EQ(log_of(station), text_of(life.last_records())) << "a file created by a record has no header";
    EXPECT_EQ(station.stop(), 1);
}

TEST_F(StatusLog, IsSuspendedWhileAFolderIsInItsPlace) {
    const std::string file = station.files().host_path(STATUS_LOG);
    life.start(&station, {"-S", "10"});
    fs::remove(file);
    fs::create_directory(file);
    station.files().write(std::string(STATUS_LOG) + "/kept", "a file in it\n");
    fill(&station, &life, "vigmond \"-S\" \"10\"");
    life.steps(&station, 3);
    EXPECT_EQ(station.read(std::string(STATUS_LOG) + "/kept"), "a file in it\n");
    fs::remove_all(file);
    life.step(&station);
    EXPECT_EQ(log_of(station), text_of(life.last_records()));
    EXPECT_EQ(station.stop(), 1);
}
