// All attacks at once in a random order, for STATION_ATTACK_SECONDS=n; STATION_SEED=n repeats the order.

#include "bus_floods.h"
#include "busy_station.h"
#include "bzip2_tool.h"
#include "fake_systemd.h"
#include "from_environment.h"
#include "labels_listed.h"
#include "log_disk.h"
#include "process_usage.h"
#include "station_life.h"
#include "status_log.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <random>
#include <thread>

namespace {

using std::chrono::steady_clock;

constexpr unsigned DEFAULT_SECONDS = 4;
constexpr unsigned ROUNDS_OF_A_LIFE = 10;  ///< after which the daemon is killed
constexpr int WARM_UP = 10;                ///< heartbeats
constexpr long MORE_KB = 1024;             ///< than after the warm-up is too much
constexpr int CONFIRMED = 11;              ///< samples of each check, one more than any delay
constexpr std::int64_t START = 1709294410; ///< 2024-03-01 12:00:10
constexpr std::int64_t HOUR = 3600;

struct AttackCampaign : testing::Test {
    AttackCampaign() {
        station.shown[disk.path()] = STATUS_FOLDER;
        station.temperature(42000);
        launch();
    }

    void launch() {
        station.launch_busy();
        station.await_wait_after(0);
        station.set_clock(latest);
        beats_of_life = 0;
        first_kb.reset();
    }
    void beat(std::int64_t seconds = 10) {
        if (is_full) {
            disk.fill(); // also what a log that is gone has left
        }
        const unsigned before = station.waits();
        station.step(seconds);
        ASSERT_EQ(station.waits(), before + 1);
        latest = std::max(latest, station.clock());
        station.forget();
        ++beats;
        if (++beats_of_life >= WARM_UP) {
            expect_memory_flat();
        }
    }
    void expect_memory_flat() {
        const long now = usage_of(station.pid()).resident_kb;
        first_kb = first_kb.value_or(now);
        most_kb = std::max(most_kb, now - *first_kb);
        const long limit = !is_sanitized() ? *first_kb + MORE_KB : now;
        ASSERT_LE(now, limit) << "resident after " << beats_of_life << " heartbeats";
    }

    // The attacks; one that lasts ends with its next turn.

    void flood_with_calls() {
        if (calls) {
            return calls.reset();
        }
        const BusMessage call = method_call("/com/corvana/Monitoring1", "com.corvana.State2.Issues",
                                            random() % 2 == 0 ? "GetListing" : "Unknown");
        dbus_message_set_no_reply(call.get(), TRUE);
        calls.emplace(world.bus(), call);
    }
    /// Not while the daemon waits for its name: until it is answered it takes in up to 64 MiB.
    void flood_with_signals() {
        if (signals) {
            return signals.reset();
        }
        const std::size_t size = random() % 3;
        // A connection that will own the name reads each message whole: one of the last size would reach the limit.
        if (size == 2) {
            ASSERT_NE(BusClient(world.bus()).wait_for_owner(SERVICE_NAME), "");
        }
        signals.emplace(world.bus(), station.pid(), std::array{"10", "4000", "1000000"}[size]);
    }
    void stall_journal() {
        station.reads_journal = station.reads_syslog = !station.reads_journal;
        if (!station.reads_journal) {
            fill_socket(station.files().host_path("/run/systemd/journal/socket"));
        }
    }
    void fill_disk() {
        is_full = !is_full; // each heartbeat fills it up
        disk.free();
    }
    void move_log() {
        std::error_code none; // it may be gone already
        std::filesystem::rename(disk.path() + "/logfile", disk.path() + "/moved." + std::to_string(++moved), none);
    }
    // NOLINTNEXTLINE(readability-make-member-function-const): the attacks have one type
    void delete_log() { std::filesystem::remove(disk.path() + "/logfile"); }
    void leap() { station.advance(static_cast<std::int64_t>(random() % (48 * HOUR)) - 24 * HOUR); }
    void restart_bus() {
        calls.reset(); // they do not come back to it
        signals.reset();
        world.bus().stop();
        beat();
        world.bus().start();
        world.systemd().connect();
    }
    void change_state() {
        if (random() % 2 == 0) {
            hot = !hot;
            station.temperature(hot ? 75000 : 42000);
        } else {
            short_of_memory = !short_of_memory;
            station.files().write(MEMORY_FILE, meminfo(512000, short_of_memory ? 76800 : 256000));
        }
    }
    /// In a pass.
    void kill_daemon() {
        signals.reset(); // knows its process
        station.advance(10);
        station.send(SIGALRM);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 5000));
        station.send(SIGKILL);
        ASSERT_EQ(station.await_exit(), -SIGKILL);
        ++kills;
        launch();
    }

    void play_round(unsigned round);
    /// Ends all attacks, and lives until the state of each check is confirmed.
    void calm_down() {
        calls.reset();
        signals.reset();
        station.reads_journal = station.reads_syslog = true;
        disk.free();
        is_full = false;
        station.set_clock(latest);
        beat(HOUR);
        calm_since = station.clock();
        for (int sample = 0; sample < CONFIRMED && !HasFatalFailure(); ++sample) {
            beat(HOUR);
        }
    }
    void expect_listing_right() {
        BusClient client(world.bus());
        ASSERT_NE(client.wait_for_owner(SERVICE_NAME), "");
        std::vector<std::string> raised(hot ? 1 : 0, "CB20");
        raised.insert(raised.end(), short_of_memory ? 1 : 0, "CB21");
        EXPECT_EQ(labels_listed(client), raised);
    }
    /// Nothing is torn, and all that was recorded since the attacks ended is there.
    void expect_log_whole() {
        std::vector<std::string> records;
        for (const auto &entry : std::filesystem::directory_iterator(disk.path())) {
            const std::string name = entry.path().filename();
            EXPECT_NE(name, "logfile.packing");
            const std::string text = name.ends_with(".bz2") ? bunzip2(entry.path()) : read_file(entry.path());
            const LogContent content = take_apart(name == ".lock" ? "" : text, station.command_line());
            EXPECT_EQ(content.torn, "") << name;
            records.insert(records.end(), content.records.begin(), content.records.end());
        }
        for (; moved > 0; --moved) {
            std::filesystem::remove(disk.path() + "/moved." + std::to_string(moved));
        }
        for (int sample = 1; sample <= CONFIRMED; ++sample) {
            EXPECT_THAT(records, testing::Contains(stamp_of(calm_since + sample * HOUR) + " CB20 0"));
        }
    }

    BusyWorld world;
    LogDisk disk;
    BusyStation station{world};
    std::optional<Blast> calls;
    std::optional<SignalFlood> signals;
    std::mt19937 random{seed_of_the_day()};
    std::int64_t latest = START;
    std::int64_t calm_since = 0;
    bool hot = false;
    bool short_of_memory = false;
    bool is_full = false;
    int moved = 0;
    int beats = 0;
    int beats_of_life = 0; ///< of this process
    int kills = 0;
    std::optional<long> first_kb; ///< of this process, after its warm-up
    long most_kb = 0;
};

struct Attack {
    const char *name;
    void (AttackCampaign::*operation)();
};

constexpr std::array ATTACKS{
    Attack{"calls that want no reply", &AttackCampaign::flood_with_calls},
    Attack{"signals to the unnamed connection", &AttackCampaign::flood_with_signals},
    Attack{"journal and syslog stalled", &AttackCampaign::stall_journal},
    Attack{"disk full", &AttackCampaign::fill_disk},
    Attack{"log moved", &AttackCampaign::move_log},
    Attack{"log deleted", &AttackCampaign::delete_log},
    Attack{"clock leaps", &AttackCampaign::leap},
    Attack{"bus restarted", &AttackCampaign::restart_bus},
    Attack{"state changed", &AttackCampaign::change_state},
};
constexpr Attack KILL{"daemon killed", &AttackCampaign::kill_daemon};

void AttackCampaign::play_round(unsigned round) {
    std::vector<Attack> deck(ATTACKS.begin(), ATTACKS.end());
    deck.insert(deck.end(), ATTACKS.begin(), ATTACKS.end()); // a second turn, so that some end while others last
    if (round % ROUNDS_OF_A_LIFE == 0) {
        deck.push_back(KILL);
    }
    std::shuffle(deck.begin(), deck.end(), random);
    for (const Attack &attack : deck) {
        SCOPED_TRACE(attack.name);
        ASSERT_NO_FATAL_FAILURE((this->*attack.operation)());
        for (auto count = random() % 3; count > 0; --count) {
            ASSERT_NO_FATAL_FAILURE(beat(random() % 2 == 0 ? 10 : HOUR));
        }
    }
}

} // namespace

TEST_F(AttackCampaign, StopsNoHeartbeatAndTearsNoRecord) {
    const auto end =
        steady_clock::now() + std::chrono::seconds(from_environment("STATION_ATTACK_SECONDS", DEFAULT_SECONDS));
    unsigned round = 0;
    do {
        SCOPED_TRACE("round " + std::to_string(round));
        ASSERT_NO_FATAL_FAILURE(play_round(round));
        ASSERT_NO_FATAL_FAILURE(calm_down());
        ASSERT_NO_FATAL_FAILURE(expect_listing_right());
        expect_log_whole();
        ++round;
    } while (steady_clock::now() < end && !HasFailure());
    std::cout << round << " rounds, " << beats << " heartbeats, " << kills << " kills; at most " << most_kb
              << " kB more resident than after the warm-up of the same process\n";
    EXPECT_EQ(station.stop(), 1);
}
