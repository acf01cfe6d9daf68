// A long run on a bus that is killed, stopped and flooded at random. STATION_BUS_FAULTS=n sets the number of
// faults, STATION_FLOOD_SECONDS=n the length of the flood, STATION_SEED=n repeats the random instants.

#include "bus_floods.h"
#include "busy_station.h"
#include "fake_systemd.h"
#include "from_environment.h"
#include "labels_listed.h"
#include "process_usage.h"
#include "status_log.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <functional>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <random>
#include <thread>

namespace {

using std::chrono::milliseconds;

constexpr unsigned DEFAULT_FAULTS = 4;
constexpr unsigned DEFAULT_FLOOD_SECONDS = 2;
constexpr int CLIENTS = 50;
constexpr int SAMPLES = 5; ///< the fifth changes the state of the temperature
constexpr const char *PATH = "/com/corvana/Monitoring1";
constexpr const char *INTERFACE = "com.corvana.State2.Issues";

struct Campaign : testing::Test {
    Campaign() {
        station.launch_busy({"-D", "-C", "0", "-S", "102400"});
        station.await_wait_after(0);
    }

    /// The next heartbeat.
    void beat() {
        const unsigned before = station.waits();
        station.step(10 - station.clock() % 10);
        ++beats;
        ASSERT_EQ(station.waits(), before + 1);
        take_in_updates();
    }
    /// Runs heartbeats until the temperature's state changes; `fault` strikes during the first.
    void change_state(const std::function<void()> &fault) {
        hot = !hot;
        station.temperature(hot ? 75000 : 42000);
        const std::future<void> living = std::async(std::launch::async, [this] {
            for (int sample = 0; sample < SAMPLES && !HasFailure(); ++sample) {
                beat();
            }
        });
        fault(); // on this thread: a child ends with the thread that started it
        living.wait();
        ASSERT_FALSE(HasFailure());
    }
    /// Reads from the traces what was reported to the registry.
    void take_in_updates() {
        for (const std::string &update : station.trace().messages_of("d_bus_srv_issue_update")) {
            if (update.starts_with("ID: ")) {
                const std::string label = update.substr(4, 4);
                changes[label] += 1;
                raised[label] = !update.ends_with("cnt: 0");
            }
        }
        station.forget();
    }
    [[nodiscard]] std::vector<std::string> labels_raised() const {
        std::vector<std::string> labels;
        for (const auto &[label, is_raised] : raised) {
            if (is_raised) {
                labels.push_back(label);
            }
        }
        return labels;
    }
    /// Expects that the daemon owns its name again and lists what its registry holds.
    void expect_back() {
        BusClient client(world.bus());
        ASSERT_NE(client.wait_for_owner(SERVICE_NAME), "");
        EXPECT_EQ(labels_listed(client), labels_raised());
        EXPECT_EQ(raised["CB20"], hot);
    }

    BusyWorld world;
    BusyStation station{world, busy_board().temperature(42000)};
    std::mt19937 random{seed_of_the_day()};
    std::map<std::string, int> changes;
    std::map<std::string, bool> raised;
    bool hot = false;
    int beats = 0;
};

/// Random milliseconds below `limit`.
milliseconds within(std::mt19937 &random, unsigned limit) { return milliseconds(random() % limit); }

} // namespace

TEST_F(Campaign, SurvivesABusThatDiesAndStallsAtRandom) {
    const unsigned faults = from_environment("STATION_BUS_FAULTS", DEFAULT_FAULTS);
    std::optional<ProcessUsage> before;
    for (unsigned fault = 0; fault < faults; ++fault) {
        const milliseconds instant = within(random, 30);
        const milliseconds duration = within(random, 500);
        const auto kind = static_cast<unsigned>(random() % 3);
        SCOPED_TRACE("fault " + std::to_string(fault) + " of kind " + std::to_string(kind));
        ASSERT_NO_FATAL_FAILURE(change_state([&] {
            std::this_thread::sleep_for(instant);
            if (kind == 0) { // stalls
                kill(world.bus().pid(), SIGSTOP);
                std::this_thread::sleep_for(duration);
                kill(world.bus().pid(), SIGCONT);
            } else { // dies, and returns at once or later
                world.bus().stop();
                std::this_thread::sleep_for(kind == 1 ? milliseconds(0) : duration);
                world.bus().start();
            }
        }));
        if (kind != 0) {
            world.systemd().connect();
        }
        ASSERT_NO_FATAL_FAILURE(expect_back());
        ASSERT_NO_FATAL_FAILURE(beat()); // sends what was pending
        if (fault == 1) {
            before = usage_of(station.pid());
        }
    }
    EXPECT_EQ(changes["CB20"], static_cast<int>(faults)) << "every change of the temperature's state was signalled";
    if (before) {
        expect_as_before(usage_of(station.pid()), *before);
    }
    EXPECT_EQ(station.stop(), 1);
}

// Another connection takes the name and releases it.
TEST_F(Campaign, GetsItsNameBackFromAThief) {
    ASSERT_NO_FATAL_FAILURE(beat());
    world.bus().stop();
    world.bus().start();
    {
        BusClient thief(world.bus());
        ASSERT_EQ(number_of(thief.ask_bus("RequestName", SERVICE_NAME, 0)), 1U) << "the primary owner";
        world.systemd().connect();
        ASSERT_NO_FATAL_FAILURE(change_state([] {}));
    }
    ASSERT_NO_FATAL_FAILURE(expect_back());
    EXPECT_EQ(changes["CB20"], 1);
    EXPECT_EQ(station.stop(), 1);
}

namespace {

/// Many clients that call at once, repeatedly; each round ends when every call is answered.
class Flood {
  public:
    Flood(const PrivateBus &bus, std::chrono::seconds duration) {
        for (int i = 0; i < CLIENTS; ++i) {
            clients_.push_back(std::make_unique<BusClient>(bus));
        }
        EXPECT_NE(clients_.front()->wait_for_owner(SERVICE_NAME), "");
        done_ = std::async(std::launch::async, [this, duration] { run(duration); });
    }
    [[nodiscard]] bool goes_on() const { return done_.wait_for(milliseconds(0)) != std::future_status::ready; }
    [[nodiscard]] long answered() const { return answered_; }

  private:
    void run(std::chrono::seconds duration) {
        const auto end = std::chrono::steady_clock::now() + duration;
        while (std::chrono::steady_clock::now() < end && !testing::Test::HasFailure()) {
            call_and_wait();
        }
    }
    void call_and_wait() {
        constexpr int calls = 20;
        std::vector<dbus_uint32_t> last;
        for (const auto &client : clients_) {
            for (int call = 1; call < calls; ++call) { // half of them get no reply
                client->send(method_call(PATH, INTERFACE, call % 2 == 0 ? "GetListing" : "Unknown"));
            }
            last.push_back(client->send(method_call(PATH, INTERFACE, "GetListing")));
        }
        for (std::size_t i = 0; i < clients_.size(); ++i) {
            const dbus_uint32_t serial = last[i];
            EXPECT_TRUE(clients_[i]->wait_for(
                [serial](DBusMessage *message) { return dbus_message_get_reply_serial(message) == serial; }));
            clients_[i]->forget();
            answered_ += calls / 2;
        }
    }

    std::vector<std::unique_ptr<BusClient>> clients_;
    long answered_ = 0;
    std::future<void> done_;
};

} // namespace

TEST_F(Campaign, LosesNoHeartbeatInAFloodOfCalls) {
    const std::chrono::seconds warm_up(1);
    const std::chrono::seconds duration(from_environment("STATION_FLOOD_SECONDS", DEFAULT_FLOOD_SECONDS));
    std::optional<ProcessUsage> before;
    for (const std::chrono::seconds time : {warm_up, duration}) {
        const Flood flood(world.bus(), time);
        while (flood.goes_on()) {
            ASSERT_NO_FATAL_FAILURE(change_state([] {}));
        }
        if (!before) {
            before = usage_of(station.pid());
        } else {
            std::cout << flood.answered() << " calls answered, " << beats << " heartbeats\n";
        }
    }
    ASSERT_NO_FATAL_FAILURE(expect_back());
    EXPECT_EQ(changes["CB20"], beats / SAMPLES);
    expect_as_before(usage_of(station.pid()), *before);
    EXPECT_EQ(station.stop(), 1);
}

// If the daemon replied to each, the bus would refuse and log every reply, and the calls read while waiting for
// the bus would fill the daemon's memory. The journal is not read, because its reader would set the pace.
TEST(SystemBusCampaign, BoundsMemoryInAFloodOfNoReplyCalls) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::seconds soon(5);
    const std::chrono::seconds duration(from_environment("STATION_FLOOD_SECONDS", DEFAULT_FLOOD_SECONDS));
    BusyWorld world(BusRules::system);
    BusyStation station(world);
    station.files().remove("/run/systemd/journal/socket");
    station.launch_busy();
    station.await_wait_after(0);
    BusClient client(world.bus());
    ASSERT_NE(client.wait_for_owner(SERVICE_NAME), "");
    const auto is_answered = [&client] { return client.call(method_call(PATH, INTERFACE, "GetListing")) != nullptr; };
    const BusMessage call = method_call(PATH, INTERFACE, "GetListing");
    dbus_message_set_no_reply(call.get(), TRUE);
    long most_kb = 0;
    int calls = 0;
    int answered_soon = 0;
    {
        const Blast blast(world.bus(), call);
        for (const auto end = Clock::now() + duration; Clock::now() < end; ++calls) {
            const auto start = Clock::now();
            answered_soon += is_answered() && Clock::now() - start < soon ? 1 : 0;
            station.step(); // no heartbeat is lost
            most_kb = std::max(most_kb, usage_of(station.pid()).resident_kb);
        }
        std::cout << blast.written() << " calls in the flood; " << answered_soon << " of " << calls
                  << " others answered within 5 s; at most " << most_kb << " kB resident\n";
    }
    EXPECT_TRUE(is_answered() || is_answered());
    if (!is_sanitized()) { // a sanitizer keeps freed memory
        EXPECT_LT(most_kb, 20'000);
    }
    EXPECT_THAT(world.bus().log(), testing::Not(testing::Contains(testing::HasSubstr("Rejected send message"))));
    EXPECT_EQ(station.stop(), 1);
}

TEST_F(Campaign, LosesNoHeartbeatInAFloodOfSignals) {
    const std::chrono::seconds duration(from_environment("STATION_FLOOD_SECONDS", DEFAULT_FLOOD_SECONDS));
    ASSERT_NO_FATAL_FAILURE(change_state([] {}));
    const ProcessUsage before = usage_of(station.pid());
    int states = 1;
    for (const char *size : {"10", "4000", "1000000"}) {
        const SignalFlood flood(world.bus(), station.pid(), size);
        const auto end = std::chrono::steady_clock::now() + duration;
        while (std::chrono::steady_clock::now() < end) {
            ASSERT_NO_FATAL_FAILURE(change_state([] {}));
            ++states;
        }
        SCOPED_TRACE(size);
        expect_as_before(usage_of(station.pid()), before);
    }
    ASSERT_NO_FATAL_FAILURE(expect_back());
    EXPECT_EQ(changes["CB20"], states);
    EXPECT_FALSE(raised["CB23"]) << "every question was answered";
    EXPECT_EQ(station.stop(), 1);
}
