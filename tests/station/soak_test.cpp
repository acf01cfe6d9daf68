// Thousands of heartbeats without a growth of resources.

#include "from_environment.h"
#include "network_paths.h"
#include "station_bus.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

/// The smallest leak, 32 bytes a heartbeat, exceeds PAGES after 768. Under a sanitizer, whose memory cannot be
/// compared, the descriptors show within few heartbeats.
const int MANY = is_sanitized() ? 200 : 1'200;
const int SETTLED = is_sanitized() ? 100 : 500; ///< heartbeats after which all buffers have their final size
/// Allowed growth in kB for pages touched late; a sanitizer keeps freed memory for a while.
const long PAGES = is_sanitized() ? 1'000'000 : 24;

std::size_t descriptors_of(pid_t pid) {
    const std::filesystem::directory_iterator entries("/proc/" + std::to_string(pid) + "/fd");
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

/// Private memory in kB.
long memory_of(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/smaps_rollup");
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("Anonymous:")) {
            return std::stol(line.substr(line.find(':') + 1));
        }
    }
    return -1;
}

struct Soak : testing::Test {
    Soak() {
        station.environment = {"TZ=UTC0"};
        station.files().remove("/run/systemd/journal/socket"); // nobody reads a day of traces
    }

    /// Runs heartbeats, each after `prepare`.
    void expect_nothing_kept(
        int heartbeats, const std::function<void(int)> &prepare = [](int) {}) {
        live(SETTLED, prepare);
        const std::size_t descriptors = descriptors_of(station.pid());
        const long memory = memory_of(station.pid());
        ASSERT_GT(memory, 0);
        live(heartbeats, prepare);
        EXPECT_EQ(descriptors_of(station.pid()), descriptors);
        EXPECT_LE(memory_of(station.pid()), memory + PAGES);
        RecordProperty("memory_kb", static_cast<int>(memory));
        RecordProperty("memory_kb_after", static_cast<int>(memory_of(station.pid())));
    }

    void live(int heartbeats, const std::function<void(int)> &prepare) {
        for (int heartbeat = 0; heartbeat < heartbeats; ++heartbeat) {
            prepare(heartbeat);
            station.step();
        }
    }

    Station station{connected_board()};
};

constexpr const char *SERVICES[]{"hostapd",          "nginx", "ocppd", "rauc", "stationd", "wpa_5fsupplicant",
                                 "corvana_2dportapi"};

struct SoakOnABus : Soak {
    SoakOnABus() {
        bus.systemd.change_time("7");
        for (const std::string service : SERVICES) {
            bus.systemd.load(service + "_2eservice");
            bus.systemd.activate(service + "_2eservice");
        }
    }

    /// Restarts the bus and waits until the daemon owns its name again.
    void restart_bus() {
        bus.bus.stop();
        bus.bus.start();
        bus.systemd.connect();
    }
    void await_name() const { EXPECT_NE(BusClient(bus.bus).wait_for_owner(SERVICE_NAME), ""); }

    StationBus bus{&station};
};

} // namespace

TEST_F(SoakOnABus, WhileNothingChanges) {
    station.start({"-S", "102400"});
    await_name();
    expect_nothing_kept(MANY);
    EXPECT_EQ(bus.systemd.count(NETWORKD, CHANGE_TIME), SETTLED + MANY);
    EXPECT_EQ(bus.systemd.total(), 7 + (1 + SETTLED + MANY) * 7 + SETTLED + MANY) << "and each service once a pass";
    EXPECT_TRUE(station.syslog().empty());
    // No reference to the connection was left; libdbus would keep returning the dead connection.
    restart_bus();
    const int before = bus.systemd.total();
    station.step();
    station.step();
    EXPECT_GE(bus.systemd.total(), before + 8);
}

TEST_F(SoakOnABus, WhileNetworkdChangesAllTheTime) {
    station.start({"-S", "102400"});
    await_name();
    int time = 100;
    expect_nothing_kept(MANY, [this, &time](int /*heartbeat*/) {
        bus.systemd.change_time(std::to_string(++time));
        station.files().write(LAN_SETTINGS, time % 2 == 0 ? "[Link]\nUnmanaged=no\n" : "[Link]\nUnmanaged=yes\n");
        station.files().write(WIFI_SETTINGS, time % 3 == 0 ? "on" : "{\"enabled\": true}");
    });
}

TEST_F(SoakOnABus, WhileTheBusIsAway) {
    station.start({"-S", "102400"});
    await_name();
    bus.bus.stop();
    expect_nothing_kept(MANY);
}

TEST_F(SoakOnABus, WhileTheBusComesAndGoes) {
    constexpr int often = 100;
    station.start({"-S", "102400"});
    await_name();
    expect_nothing_kept(MANY, [this](int heartbeat) {
        if (heartbeat % often == 0) {
            restart_bus();
        }
        if (heartbeat % often == often - 1) {
            await_name();
        }
    });
}

TEST_F(Soak, WithoutABus) {
    station.start({"-S", "102400"});
    expect_nothing_kept(MANY);
}
