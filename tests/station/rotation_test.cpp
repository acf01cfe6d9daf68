// A full status log is rotated into generations, which together contain all records.

#include "bzip2_tool.h"
#include "station_life.h"
#include "status_log.h"

#include <csignal>
#include <deque>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

namespace fs = std::filesystem;

constexpr std::size_t LIMIT = 10240; // -S 10

/// The expected files, computed from the records and their times only.
class Generations {
  public:
    Generations(std::string command_line, std::size_t count, const std::string &start)
        : command_line_(std::move(command_line)), count_(count), current_(header_text(start, "START", command_line_)) {}

    /// A record that reaches the limit rotates the file at once; the next file begins with its header.
    void take(const std::string &record) {
        current_ += record + "\n";
        if (current_.size() >= LIMIT) {
            packed_.push_front(current_);
            packed_.resize(std::min(packed_.size(), count_));
            const std::string stamp = record.substr(0, record.find('\t'));
            current_ = header_text(stamp, "ROTATE", command_line_);
            ++rotations_;
        }
    }
    [[nodiscard]] const std::string &current() const { return current_; }
    [[nodiscard]] const std::deque<std::string> &packed() const { return packed_; }
    [[nodiscard]] std::size_t rotations() const { return rotations_; }

  private:
    std::string command_line_;
    std::size_t count_;
    std::string current_;
    std::deque<std::string> packed_; ///< the newest first
    std::size_t rotations_ = 0;
};

std::string generation_path(const Station &station, std::size_t number) {
    return station.files().host_path(STATUS_LOG) + ".00" + std::to_string(number) + ".bz2";
}

std::string names_in(const std::string &folder) {
    std::vector<std::string> names;
    for (const auto &entry : fs::directory_iterator(folder)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return text_of(names);
}

std::string expected_names(std::size_t generations) {
    std::string names = ".lock\nlogfile\n";
    for (std::size_t number = 0; number < generations; ++number) {
        names += "logfile.00" + std::to_string(number) + ".bz2\n";
    }
    return names;
}

struct Rotation : testing::Test {
    Rotation() { station.environment = {"TZ=UTC0"}; }

    /// Runs `beats` heartbeats; returns the predicted files.
    Generations run(const std::vector<std::string> &arguments, std::size_t count, int beats) {
        std::string command_line = "vigmond";
        for (const std::string &argument : arguments) {
            command_line += " \"" + argument + "\"";
        }
        const std::string start = stamp_of(1709294407);
        life.start(&station, arguments);
        life.steps(&station, beats);
        Generations predicted(command_line, count, start);
        for (const std::string &record : life.records()) {
            predicted.take(record);
        }
        return predicted;
    }

    Station station{even_board()};
    StationLife life{even_checks()};
};

class RotationCount : public Rotation, public testing::WithParamInterface<std::size_t> {};

} // namespace

// After its header a file has room for about 240 records; each heartbeat writes three to eighteen.
TEST_P(RotationCount, KeepsTheNewestGenerationsWhole) {
    const std::size_t count = GetParam();
    const Generations predicted = run({"-S", "10", "-C", std::to_string(count)}, count, 1000);
    ASSERT_GT(predicted.rotations(), 6U);
    ASSERT_EQ(predicted.packed().size(), std::min(count, predicted.rotations()));
    EXPECT_EQ(names_in(station.files().host_path(STATUS_FOLDER)), expected_names(predicted.packed().size()));
    for (std::size_t number = 0; number < predicted.packed().size(); ++number) {
        EXPECT_EQ(bunzip2(generation_path(station, number)), predicted.packed()[number]) << number;
    }
    EXPECT_EQ(station.read(STATUS_LOG), predicted.current());
    EXPECT_THAT(predicted.current(), HasSubstr("\tROTATE\t"));
}

INSTANTIATE_TEST_SUITE_P(Counts, RotationCount, testing::Values(0, 1, 3));

// About five files, none of which is dropped.
TEST_F(Rotation, LosesNoRecordBelowTheMaximumNumber) {
    const Generations predicted = run({"-S", "10"}, 20, 300);
    ASSERT_GT(predicted.rotations(), 2U);
    ASSERT_LE(predicted.rotations(), 10U);
    std::string all;
    for (std::size_t number = predicted.packed().size(); number-- > 0;) {
        all += bunzip2(generation_path(station, number));
    }
    EXPECT_EQ(records_in(all + station.read(STATUS_LOG)), life.records());
    EXPECT_THAT(all, StartsWith("##\n##\t2024-03-01 12:00:07\tSTART\t"));
}

TEST_F(Rotation, LeavesGenerationsAboveAGapAlone) {
    station.files().write(std::string(STATUS_LOG) + ".001.bz2", "of old\n");
    const Generations predicted = run({"-S", "10", "-C", "3"}, 3, 80);
    ASSERT_EQ(predicted.rotations(), 1U);
    EXPECT_EQ(bunzip2(generation_path(station, 0)), predicted.packed()[0]);
    EXPECT_EQ(station.read(std::string(STATUS_LOG) + ".001.bz2"), "of old\n");
}

TEST_F(Rotation, RotatesAFileThatWasTooLargeAtTheStartWithTheFirstRecord) {
    const std::string old(LIMIT, '#');
    station.files().write(STATUS_LOG, old);
    station.start({"-S", "10"});
    const std::string command_line = "vigmond \"-S\" \"10\"";
    EXPECT_EQ(bunzip2(generation_path(station, 0)), old + header_text("2024-03-01 12:00:07", "START", command_line) +
                                                        "2024-03-01 12:00:07\tOK\tCB20\t0\t42\n");
    EXPECT_THAT(station.read(STATUS_LOG), StartsWith(header_text("2024-03-01 12:00:07", "ROTATE", command_line) +
                                                     "2024-03-01 12:00:07\tOK\tCB05\t0\t0\n"));
}

// The size is checked whether or not the record was written.
TEST_F(Rotation, HappensEvenIfTheLevelSuppressesTheRecord) {
    const std::string old(LIMIT, '#');
    station.files().write(STATUS_LOG, old);
    station.start({"-S", "10", "-l", "fail"});
    const std::string command_line = "vigmond \"-S\" \"10\" \"-l\" \"fail\"";
    EXPECT_EQ(bunzip2(generation_path(station, 0)), old + header_text("2024-03-01 12:00:07", "START", command_line));
    EXPECT_EQ(station.read(STATUS_LOG), header_text("2024-03-01 12:00:07", "ROTATE", command_line));
}

TEST_F(Rotation, CanHappenAtTheClosingBlock) {
    station.start({"-S", "10", "-l", "fail"});
    const std::string before = station.read(STATUS_LOG);
    const std::string ballast(LIMIT - 1 - before.size(), '#'); // leaves one byte
    std::ofstream(station.files().host_path(STATUS_LOG), std::ios::app) << ballast;
    station.step(3);
    ASSERT_FALSE(fs::exists(generation_path(station, 0)));
    EXPECT_EQ(station.stop(), 1);
    const std::string command_line = "vigmond \"-S\" \"10\" \"-l\" \"fail\"";
    EXPECT_EQ(bunzip2(generation_path(station, 0)),
              before + ballast + finished_text("2024-03-01 12:00:10", command_line));
    EXPECT_EQ(station.read(STATUS_LOG), header_text("2024-03-01 12:00:10", "ROTATE", command_line));
}

// Somebody else has made the file so large that its compression takes many seconds.
TEST_F(Rotation, IsBrokenOffByATermination) {
    station.files().write(STATUS_LOG, "");
    fs::resize_file(station.files().host_path(STATUS_LOG), 1U << 30U);
    station.launch({"-D", "-S", "10"});
    station.await_trace("file_compress");
    station.send(SIGTERM);
    EXPECT_EQ(station.await_exit(), 1);
    EXPECT_EQ(names_in(station.files().host_path(STATUS_FOLDER)), expected_names(0));
    std::ifstream log(station.files().host_path(STATUS_LOG));
    log.seekg(1U << 30U);
    const std::string command_line = "vigmond \"-D\" \"-S\" \"10\"";
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(log), {}),
              header_text("2024-03-01 12:00:07", "START", command_line) + "2024-03-01 12:00:07\tOK\tCB20\t0\t42\n" +
                  finished_text("2024-03-01 12:00:07", command_line));
}

// --- a full disk

namespace {

/// The log on a disk of 64 KiB, visible to the daemon only.
struct SmallDisk : testing::Test {
    SmallDisk() { station.environment = {"TZ=UTC0"}; }

    [[nodiscard]] std::string seen(const std::string &path) const {
        return "/proc/" + std::to_string(station.pid()) + "/root" + path;
    }
    /// Fills the disk to the last page.
    void fill() const {
        std::ofstream ballast(seen("/var/lib/evse/vigmond/ballast"));
        ballast << noise(1U << 20U) << std::flush;
        ASSERT_FALSE(ballast) << "the disk is not full";
    }
    void make_room() const { fs::remove(seen("/var/lib/evse/vigmond/ballast")); }

    Station station{even_board().small_disk(STATUS_FOLDER, 65536)};
    StationLife life{even_checks()};
};

} // namespace

TEST_F(SmallDisk, LosesWholeRecordsOnlyWhileItIsFull) {
    life.start(&station, {"-D"});
    life.steps(&station, 5);
    const std::string before = read_file(seen(STATUS_LOG));
    ASSERT_EQ(before, header_text("2024-03-01 12:00:07", "START", "vigmond \"-D\"") + text_of(life.records()));
    fill();
    const std::size_t recorded = life.records().size();
    life.steps(&station, 100);
    const std::string full = read_file(seen(STATUS_LOG));
    EXPECT_LT(full.size(), before.size() + 4096) << "the rest of its last page";
    const std::string all =
        text_of({life.records().begin() + static_cast<std::ptrdiff_t>(recorded), life.records().end()});
    EXPECT_LT(full.size(), before.size() + all.size());
    make_room();
    life.step(&station);
    EXPECT_EQ(read_file(seen(STATUS_LOG)), full + text_of(life.last_records()));
    std::size_t at = 0;
    for (const std::string &record : records_in(full.substr(before.size()))) {
        at = all.find(record + "\n", at);
        ASSERT_NE(at, std::string::npos) << record << " is torn or out of order";
        at += record.size();
    }
}

// Neither the file nor a partial generation is left; the freed pages have room for the next header.
TEST_F(SmallDisk, LosesAFileThatCannotBeCompressed) {
    life.start(&station, {"-S", "10", "-C", "3"});
    while (fs::file_size(seen(STATUS_LOG)) < LIMIT - 100) {
        life.step(&station);
    }
    fill();
    while (fs::exists(seen(STATUS_LOG)) && fs::file_size(seen(STATUS_LOG)) >= LIMIT - 100) {
        life.step(&station);
    }
    EXPECT_FALSE(fs::exists(seen(std::string(STATUS_LOG) + ".000.bz2")));
    EXPECT_THAT(read_file(seen(STATUS_LOG)), HasSubstr("\tROTATE\tvigmond \"-S\" \"10\" \"-C\" \"3\"\n"));
    make_room();
    life.step(&station);
    EXPECT_THAT(read_file(seen(STATUS_LOG)), EndsWith("\n" + text_of(life.last_records())));
    EXPECT_EQ(station.stop(), 1);
}
