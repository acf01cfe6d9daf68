// A long life with random inputs: what the daemon holds stays the same, and every generation of its log is
// whole. STATION_HOURS=n lives so long (8760 is a year), STATION_SEED=n repeats the inputs.

#include "busy_station.h"
#include "bzip2_tool.h"
#include "from_environment.h"
#include "process_usage.h"
#include "status_log.h"

#include <array>
#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <sys/stat.h>

using testing::IsEmpty;

namespace {

constexpr unsigned DEFAULT_HOURS = 3;
constexpr int BEATS_AN_HOUR = 360;
constexpr int A_THOUSAND = 1000;
constexpr std::size_t STAMP = 19;

class Inputs {
  public:
    Inputs(BusyStation &station, unsigned seed) : station_(station), random_(seed) {}

    /// Every input changes now and then, so that states hold for some samples and change.
    void change() {
        counters_[0] += below(900);
        counters_[1] += below(300);
        counters_[2] += below(900);
        station_.files().write("/proc/stat", "cpu  " + std::to_string(counters_[0]) + " 0 " +
                                                 std::to_string(counters_[1]) + " " + std::to_string(counters_[2]) +
                                                 " 0 0 0 0 0 0\n");
        switch (below(60)) {
        case 0:
            return station_.files().write(TEMPERATURE_FILE, below(9) == 0 ? noise(5) : number(-60000, 99000) + "\n");
        case 1:
            return station_.files().write(MEMORY_FILE, below(9) == 0 ? "" : meminfo(1000, below(1000)));
        case 2:
            return station_.disk("/tmp", {.blocks = 100, .free = below(100), .available = below(100)});
        case 3:
            return station_.files().write("/sys/class/net/eth0/operstate", below(2) == 0 ? "up\n" : "down\n");
        case 4:
            return station_.files().write("/proc/net/dev", "  eth0: 1 " + number(0, 2000) + " " + number(0, 99) +
                                                               " 0 0 0 0 0 1 100 0 0 0 0 0 0\n");
        case 5:
            return station_.disk("/run", {.fails = below(2) == 0, .error = EIO});
        case 6:
            return put_emmc(&station_.emmc(), 7, static_cast<std::uint8_t>(below(12)), 0);
        case 7:
            return station_.signal(SIGUSR1);
        default:
            return;
        }
    }

  private:
    unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
    std::string number(int least, int most) {
        return std::to_string(least + static_cast<int>(below(static_cast<unsigned>(most - least + 1))));
    }

    BusyStation &station_;
    std::mt19937 random_;
    std::array<std::uint64_t, 3> counters_{1000, 1000, 8000};
};

/// Looks at each new generation of the log.
class Rotations {
  public:
    explicit Rotations(const BusyStation &station)
        : station_(station), newest_(station.files().host_path(STATUS_LOG) + ".000.bz2"), seen_(time_of_change()) {}

    void look() {
        const std::int64_t now = time_of_change();
        if (now == seen_) {
            return;
        }
        seen_ = now;
        ++count_;
        const std::string text = bunzip2(newest_);
        const LogContent log = take_apart(count_ == 1 ? text.substr(text.find("##")) : text, station_.command_line());
        ASSERT_THAT(log.torn, IsEmpty()) << "in generation " << count_;
        ASSERT_EQ(log.starts + log.rotations, 1);
        ASSERT_GE(log.records.front().substr(0, STAMP), last_time_) << "in generation " << count_;
        last_time_ = log.records.back().substr(0, STAMP);
    }
    [[nodiscard]] int count() const { return count_; }

  private:
    [[nodiscard]] std::int64_t time_of_change() const {
        struct stat file {};
        stat(newest_.c_str(), &file);
        return file.st_mtim.tv_sec * 1'000'000'000 + file.st_mtim.tv_nsec;
    }

    const BusyStation &station_;
    std::string newest_;
    std::int64_t seen_;
    int count_ = 0;
    std::string last_time_;
};

} // namespace

TEST(Endurance, HoldsNoMoreAtItsEndThanAtItsStart) {
    const int beats = static_cast<int>(from_environment("STATION_HOURS", DEFAULT_HOURS)) * BEATS_AN_HOUR;
    BusyWorld world;
    BusyStation station(world, busy_board().temperature(42000));
    station.files().remove("/run/systemd/journal/socket"); // or the journal's reader would be the slowest
    Rotations rotations(station);
    Inputs inputs(station, seed_of_the_day());
    station.launch_busy();
    station.await_wait_after(0);
    ProcessUsage at_first{};
    for (int beat = 1; beat <= beats; ++beat) {
        inputs.change();
        station.step(10 - station.clock() % 10);
        ASSERT_NO_FATAL_FAILURE(rotations.look());
        if (beat % A_THOUSAND == 0) {
            station.forget();
        }
        if (beat == A_THOUSAND) {
            at_first = usage_of(station.pid());
        }
    }
    expect_as_before(usage_of(station.pid()), at_first);
    std::cout << beats << " heartbeats, " << rotations.count() << " rotations\n";
    EXPECT_GT(rotations.count(), beats / 100);
    EXPECT_EQ(station.stop(), 1);
}
