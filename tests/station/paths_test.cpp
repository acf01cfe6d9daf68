// Which network paths are in use: when the two settings files are read, and how they are parsed.

#include "network_paths.h"
#include "station_bus.h"
#include "station_life.h"
#include "status_log.h"

#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sstream>

using testing::Contains;
using testing::ElementsAre;
using testing::StartsWith;

namespace {

const std::vector<std::string> LAN_ISSUES{"CB10", "CB11", "CB12"};
const std::vector<std::string> WIFI_ISSUES{"CB13", "CB01", "CB02", "CB04", "CB09"};

/// Label and value of the issue's record in the last pass, "OK 0"; empty without one.
std::string last_record_of(const Station &station, const std::string &issue) {
    const std::string begin = stamp_of(station.clock()) + "\t";
    for (const std::string &line : records_in(station.read(STATUS_LOG))) {
        std::istringstream fields(line.starts_with(begin) ? line.substr(begin.size()) : "");
        std::string label;
        std::string id;
        std::string index;
        std::string value;
        if (fields >> label >> id >> index >> value && id == issue) {
            return label.append(" ").append(value);
        }
    }
    return "";
}

/// A station with both paths in use. A path is in use if its checks were recorded in the last pass.
struct PathStation : testing::Test {
    PathStation() { station.environment = {"TZ=UTC0"}; }

    /// Runs a pass; whether it read the two files.
    bool reads() {
        station.step();
        return has_read();
    }
    /// Whether they have been read since the last call.
    bool has_read() {
        const std::size_t lan = station.trace().messages_of("network_lan_handler").size();
        const std::size_t wifi = station.trace().messages_of("json_parse").size();
        EXPECT_EQ(lan - lan_seen, wifi - wifi_seen) << "both or none";
        EXPECT_LE(lan - lan_seen, 1U);
        const bool read = lan != lan_seen;
        lan_seen = lan;
        wifi_seen = wifi;
        return read;
    }

    [[nodiscard]] bool in_use(const std::vector<std::string> &issues) const {
        const bool first = !last_record_of(station, issues[0]).empty();
        for (const std::string &issue : issues) {
            EXPECT_EQ(!last_record_of(station, issue).empty(), first) << issue;
        }
        return first;
    }
    [[nodiscard]] bool lan_in_use() const { return in_use(LAN_ISSUES); }
    [[nodiscard]] bool wifi_in_use() const { return in_use(WIFI_ISSUES); }

    Station station{connected_board()};
    std::size_t lan_seen = 0;
    std::size_t wifi_seen = 0;
};

/// The same with a system bus.
struct PathsOnABus : PathStation {
    PathsOnABus() { bus.systemd.change_time("7"); }

    /// After this the files are read only after a change.
    void settle() {
        station.start();
        EXPECT_TRUE(has_read());
        EXPECT_TRUE(reads());
        checks_traced();
    }

    [[nodiscard]] int asked() { return bus.systemd.count(NETWORKD, CHANGE_TIME); }
    std::vector<std::string> checks_traced() {
        std::vector<std::string> traced = station.trace().messages_of("network_check_daemon");
        traced.erase(traced.begin(), traced.begin() + static_cast<std::ptrdiff_t>(traced_));
        traced_ += traced.size();
        return traced;
    }

    StationBus bus{&station};

  private:
    std::size_t traced_ = 0;
};

} // namespace

// --- when the files are read

TEST_F(PathsOnABus, AreReadTwiceThenOnlyWhenNetworkdHasChanged) {
    station.start();
    EXPECT_TRUE(has_read());
    EXPECT_EQ(asked(), 0) << "the first pass does not ask and stores nothing";
    EXPECT_TRUE(reads());
    EXPECT_EQ(asked(), 1);
    for (int pass = 0; pass < 10; ++pass) {
        EXPECT_FALSE(reads());
    }
    EXPECT_EQ(asked(), 11);
    for (const char *time : {"8", "4294967304", "18446744073709551615", "7"}) { // any other time stamp, later or not
        bus.systemd.change_time(time);
        EXPECT_TRUE(reads()) << time;
        EXPECT_FALSE(reads()) << time;
    }
    EXPECT_EQ(asked(), 19);
    EXPECT_EQ(station.stop(), 1);
}

TEST_F(PathsOnABus, AreReadOnceWhenNetworkdHasNeverRun) {
    bus.systemd.change_time("0");
    station.start();
    EXPECT_TRUE(has_read());
    EXPECT_FALSE(reads());
    EXPECT_FALSE(reads());
}

TEST_F(PathsOnABus, FollowTheFilesOnlyWhenNetworkdHasChanged) {
    station.start();
    samples(&station, 1, 60);
    EXPECT_TRUE(lan_in_use());
    EXPECT_TRUE(wifi_in_use());
    put(station, LAN_SETTINGS, "[Link]\nUnmanaged=yes\n");
    put(station, WIFI_SETTINGS, std::nullopt);
    samples(&station, 3, 60);
    EXPECT_TRUE(lan_in_use());
    EXPECT_TRUE(wifi_in_use());
    bus.systemd.change_time("8");
    samples(&station, 1, 60);
    EXPECT_FALSE(lan_in_use());
    EXPECT_FALSE(wifi_in_use());
    put(station, LAN_SETTINGS, "[Link]\nUnmanaged=no\n");
    put(station, WIFI_SETTINGS, "on");
    samples(&station, 3, 60);
    EXPECT_FALSE(lan_in_use());
    EXPECT_FALSE(wifi_in_use());
    bus.systemd.change_time("9");
    samples(&station, 1, 60);
    EXPECT_TRUE(lan_in_use());
    EXPECT_TRUE(wifi_in_use());
}

TEST_F(PathsOnABus, AreSwitchedOffIndependently) {
    station.start();
    put(station, LAN_SETTINGS, "[Link]\nUnmanaged=yes\n");
    bus.systemd.change_time("8");
    samples(&station, 1, 60);
    EXPECT_FALSE(lan_in_use());
    EXPECT_TRUE(wifi_in_use());
    put(station, LAN_SETTINGS, std::nullopt);
    put(station, WIFI_SETTINGS, "{}");
    bus.systemd.change_time("9");
    samples(&station, 1, 60);
    EXPECT_TRUE(lan_in_use());
    EXPECT_FALSE(wifi_in_use());
    EXPECT_EQ(last_record_of(station, "CB05"), "OK 0") << "Bluetooth has no switch";
}

TEST_F(PathsOnABus, AreReadInEveryPassWhileThePropertyFails) {
    settle();
    bus.systemd.fail(NETWORKD, CHANGE_TIME, "System.Error.EACCES", 3);
    for (int pass = 0; pass < 3; ++pass) {
        EXPECT_TRUE(reads());
        EXPECT_THAT(checks_traced(), ElementsAre(" ", "get_property FAILEd: ret : -13 (Permission denied)"));
    }
    EXPECT_FALSE(reads()) << "the previous time stamp still counts";
    EXPECT_THAT(checks_traced(), ElementsAre(" "));
}

TEST_F(PathStation, AreReadInEveryPassWithoutSystemdOnTheBus) {
    const PrivateBus bus(station.files().scratch());
    auto systemd = std::make_unique<FakeSystemd>(bus);
    systemd->change_time("7");
    station.environment.push_back(bus.variable());
    station.start();
    EXPECT_TRUE(has_read());
    EXPECT_TRUE(reads());
    EXPECT_FALSE(reads());
    systemd.reset();
    EXPECT_TRUE(reads());
    EXPECT_TRUE(reads());
    EXPECT_THAT(station.trace().messages_of("network_check_daemon"),
                Contains("get_property FAILEd: ret : -113 (No route to host)").Times(2));
    systemd = std::make_unique<FakeSystemd>(bus);
    systemd->change_time("7");
    EXPECT_FALSE(reads());
}

TEST_F(PathsOnABus, AreReadInEveryPassWhileThePropertyIsNoNumber) {
    settle();
    bus.systemd.obey(std::string("set ") + NETWORKD + " " + CHANGE_TIME + " s 7");
    EXPECT_TRUE(reads());
    EXPECT_TRUE(reads());
    EXPECT_THAT(checks_traced(), Contains("get_property FAILEd: ret : -6 (No such device or address)").Times(2));
    bus.systemd.change_time("7");
    EXPECT_FALSE(reads());
}

TEST_F(PathsOnABus, AreNotReadForASlowAnswer) {
    settle();
    bus.systemd.obey("delay 300");
    EXPECT_FALSE(reads());
    EXPECT_FALSE(reads());
}

// No service is installed here, so that nothing else waits for an answer.
TEST_F(PathsOnABus, AreReadWithoutAnAnswer) {
    settle();
    bus.systemd.obey("hold");
    EXPECT_TRUE(reads());
    EXPECT_THAT(checks_traced(), ElementsAre(" ", "get_property FAILEd: ret : -110 (Connection timed out)"));
    bus.systemd.obey("release");
    EXPECT_FALSE(reads()) << "the late answer is ignored";
    EXPECT_EQ(asked(), 3);
}

// --- a missing bus

TEST_F(PathStation, AreReadInEveryPassWithoutABus) {
    station.environment.emplace_back("DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nowhere");
    station.start();
    EXPECT_TRUE(has_read());
    EXPECT_THAT(station.trace().messages_of("network_check_daemon"), ElementsAre(" "));
    for (int pass = 0; pass < 5; ++pass) {
        EXPECT_TRUE(reads());
    }
    EXPECT_THAT(station.trace().messages_of("network_check_daemon"),
                Contains("bus_default FAILED: ret : -2 (No such file or directory)").Times(5));
}

TEST_F(PathsOnABus, AreReadWhileTheBusIsAway) {
    settle();
    bus.bus.stop();
    EXPECT_TRUE(reads());
    EXPECT_THAT(checks_traced(), ElementsAre(" ", StartsWith("get_property FAILEd: ret : -")));
    for (int pass = 0; pass < 3; ++pass) {
        EXPECT_TRUE(reads());
        EXPECT_THAT(checks_traced(), ElementsAre(" ", StartsWith("bus_default FAILED: ret : -")));
    }
    bus.bus.start();
    bus.systemd.connect();
    EXPECT_FALSE(reads()) << "the time stamp has not changed";
    bus.systemd.change_time("8");
    EXPECT_TRUE(reads());
    EXPECT_FALSE(reads());
}

TEST_F(PathsOnABus, AreReadOnceWhenTheBusRestarts) {
    settle();
    for (int time = 0; time < 5; ++time) {
        bus.bus.stop();
        bus.bus.start();
        bus.systemd.connect();
        EXPECT_TRUE(reads());
        EXPECT_FALSE(reads());
    }
}

TEST_F(PathsOnABus, SurviveABusThatDiesBetweenQuestionAndAnswer) {
    settle();
    for (int time = 0; time < 3; ++time) {
        bus.systemd.strike(bus.bus.pid(), SIGKILL, 1);
        EXPECT_TRUE(reads());
        bus.bus.stop();
        bus.bus.start();
        bus.systemd.connect();
        EXPECT_FALSE(reads());
    }
    samples(&station, 1, 60);
    EXPECT_TRUE(lan_in_use());
    EXPECT_TRUE(wifi_in_use());
}

// --- contents of the files

namespace {

struct SettingsCase {
    Content content;
    bool in_use = false;
};

const std::string KILOBYTES(100'000, 'x');

/// Whether the LAN is in use when the first pass finds this file.
bool lan_after_start(const Content &content) {
    Station station(connected_board().without(LAN_SETTINGS));
    station.environment = {"TZ=UTC0"};
    put(station, LAN_SETTINGS, content);
    station.start();
    return !last_record_of(station, "CB12").empty();
}

} // namespace

TEST(LanSettings, DecideWhetherTheLanIsInUse) {
    using namespace std::string_literals;
    const SettingsCase cases[]{
        {std::nullopt, true},
        {"", false},
        {"[Link]\n", false},
        {"[Match]\nName=eth0\n[Network]\nDHCP=yes\n", false},
        {"[Link]\nUnmanaged=no\n", true},
        {"[Link]\nUnmanaged=yes\n", false},
        {"[Link]\nActivationPolicy=always-down\n", false},
        {"[Link]\nActivationPolicy=manual\n", true},
        {"[Link]\nUnmanaged=no\nActivationPolicy=down\n", false},
        {"[Link]\nUnmanaged=true\nActivationPolicy=up\n", false},
        {"[link]\r\nunmanaged : FALSE ; wired\r\nactivationpolicy = Bound\r\n", true},
        {"[Links]\nUnmanaged=no\n", false},
        {"[Link]\nUnmanaged=1\n", false},        // not a known value
        {"[Link]\nUnmanaged=no#wired\n", false}, // nor is that a comment
        {"[Link]\nUnmanaged=yes\nbroken\n", true},
        {"[Link\n", true},
        {"garbage", true},
        {"\xEF\xBB\xBF[Link]\nUnmanaged=yes\n", true},
        {"\0\0\0\0"s, false}, // empty lines
        {"\xff\xfe\x01\x02\n", true},
        {KILOBYTES, true},
        {"[Link]\nUnmanaged=yes\nName=" + KILOBYTES + "\n", true}, // the later pieces have no separator
        {"[Link]\nUnmanaged=no\n;" + std::string(4000, 'x') + "\n", true},
        {"[Link]\nUnmanaged=n", false}, // truncated
        {"[" + std::string(60, 'L') + "]\nUnmanaged=no\n", false}};
    for (const SettingsCase &given : cases) {
        EXPECT_EQ(lan_after_start(given.content), given.in_use)
            << testing::PrintToString(given.content ? given.content->substr(0, 60) : "no file");
    }
}

TEST_F(PathStation, KeepTheLastValueOfTheLansFile) {
    station.start();
    const SettingsCase cases[]{{"[Link]\nUnmanaged=no\n", true},
                               {"[Link]\n", true},
                               {"", true},
                               {"[Link]\nActivationPolicy=down\n", false},
                               {"[Link]\nUnmanaged=no\n", false}, // "down" is remembered
                               {"[Link]\nActivationPolicy=up\nUnmanaged=yes\nbroken\n", true},
                               {"", false}, // the lines before the error count
                               {std::nullopt, true},
                               {"", false}};
    for (const SettingsCase &given : cases) {
        put(station, LAN_SETTINGS, given.content);
        samples(&station, 1, 60);
        EXPECT_EQ(lan_in_use(), given.in_use) << given.content.value_or("no file");
        EXPECT_TRUE(wifi_in_use());
    }
    std::filesystem::remove(station.files().host_path(LAN_SETTINGS));
    std::filesystem::create_directory(station.files().host_path(LAN_SETTINGS));
    samples(&station, 1, 60);
    EXPECT_TRUE(lan_in_use()) << "a folder counts as malformed";
}

TEST_F(PathStation, TreatTheWifiAsOnUnlessItsFileIsAnObject) {
    using namespace std::string_literals;
    station.start();
    const SettingsCase cases[]{{std::nullopt, false},
                               {"", true},
                               {"on", true},
                               {"true\n", true},
                               {"[]", true},
                               {"[\"enabled\", true]", true},
                               {"{}", false},
                               {"{\"enabled\":true}", false}, // the quote after the key is compared too
                               {"{\"enabled\": \"true\"}\n", false},
                               {"{\"enabled\":false}", false},
                               {"{\"ssid\":\"station\",\"enabled\":true}", false},
                               {"{\"enabled\":[true]}", true},
                               {"{\"enabled\":true", true},
                               {"{enabled:true}", true},
                               {"\xEF\xBB\xBF{}", true},
                               {"{}\0["s, false},
                               {"{\"a\":\"" + std::string(2038, 'x') + "\"}", false}, // 2046 bytes
                               {"{\"a\":\"" + std::string(2041, 'x') + "\"}", true},  // 2049
                               {"{}" + KILOBYTES, true},
                               {KILOBYTES, true},
                               {"{}" + std::string(100'000, ' '), false}};
    for (const SettingsCase &given : cases) {
        put(station, WIFI_SETTINGS, given.content);
        samples(&station, 1, 60);
        EXPECT_EQ(wifi_in_use(), given.in_use)
            << testing::PrintToString(given.content ? given.content->substr(0, 60) : "no file");
        EXPECT_TRUE(lan_in_use());
    }
    put(station, WIFI_SETTINGS, std::nullopt);
    std::filesystem::create_directory(station.files().host_path(WIFI_SETTINGS));
    samples(&station, 1, 60);
    EXPECT_TRUE(wifi_in_use()) << "a folder opens, but cannot be read";
}
