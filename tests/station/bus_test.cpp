// What clients see on the bus: byte for byte, and through common tools.

#include "bus_station.h"

#include <gmock/gmock.h>

using testing::HasSubstr;

namespace {

class Issues : public BusStation {
  protected:
    explicit Issues(Board board = even_board()) : BusStation(std::move(board)) {}

    /// Starts the daemon; `client` receives its signals.
    void start() {
        watch_issues(&client);
        station.start();
        EXPECT_NE(client.wait_for_owner(SERVICE_NAME), "");
    }
    BusMessage list() { return client.call(listing_call()); }

    BusClient client{bus};
};

struct IssuesOfAWornBoard : Issues {
    IssuesOfAWornBoard() : Issues(even_board().emmc(7, 5, 5)) {}
};

} // namespace

TEST_F(Issues, AreNoneOnAHealthyStation) {
    start();
    const BusMessage listing = list();
    ASSERT_TRUE(is_return(listing));
    EXPECT_STREQ(dbus_message_get_signature(listing.get()), "");
    EXPECT_EQ(body_bytes(listing.get()), "");
}

// The fifth sample comes 50 s after the first pass, the fifth good one 50 s after that.
TEST_F(Issues, AreRaisedAndClearedWithTheFifthSample) {
    start();
    station.temperature(72000);
    station.heartbeats(8);
    EXPECT_EQ(next_signal(&client), new_issues(FIRST_PASS + 50, {"CB20"}));
    const BusMessage listing = list();
    ASSERT_TRUE(is_return(listing));
    EXPECT_STREQ(dbus_message_get_signature(listing.get()), "a(us)");
    EXPECT_EQ(body_bytes(listing.get()), listing_bytes({{FIRST_PASS + 50, "CB20"}}));
    station.temperature(42000);
    station.heartbeats(8);
    EXPECT_EQ(next_signal(&client), cleared_issues(FIRST_PASS + 130, {"CB20"}));
    EXPECT_STREQ(dbus_message_get_signature(list().get()), "");
}

// Signal: the time 0x65E1C379, then 4+5 bytes of one text. Listing: 13 bytes of one struct.
TEST_F(Issues, HaveTheseBytes) {
    start();
    station.temperature(72000);
    station.heartbeats(5);
    const IssueSignal signal = next_signal(&client);
    EXPECT_EQ(signal.body, std::string("\x79\xc3\xe1\x65"
                                       "\x09\x00\x00\x00"
                                       "\x04\x00\x00\x00"
                                       "CB20\x00",
                                       17));
    EXPECT_EQ(body_bytes(list().get()), std::string("\x0d\x00\x00\x00\x00\x00\x00\x00"
                                                    "\x79\xc3\xe1\x65"
                                                    "\x04\x00\x00\x00"
                                                    "CB20\x00",
                                                    21));
}

// A warning that becomes a failure counts twice, a recovery once: the issue stays raised with its date. Kept.
TEST_F(Issues, StayRaisedAfterAWarningThatBecameAFailure) {
    start();
    station.temperature(72000);
    station.heartbeats(5);
    station.temperature(85000);
    station.heartbeats(5);
    station.temperature(42000);
    station.heartbeats(10);
    station.files().write(MEMORY_FILE, meminfo(1000, 200));
    station.heartbeats(5); // 250 s after the first
    EXPECT_EQ(next_signal(&client), new_issues(FIRST_PASS + 50, {"CB20"}));
    EXPECT_EQ(next_signal(&client), new_issues(FIRST_PASS + 250, {"CB21"})) << "nothing in between";
    EXPECT_EQ(body_bytes(list().get()), listing_bytes({{FIRST_PASS + 50, "CB20"}, {FIRST_PASS + 250, "CB21"}}));
    EXPECT_THAT(station.read(STATUS_FOLDER + std::string("/logfile")), HasSubstr("12:04:17\tOK\tCB20\t0\t42\n"));
}

TEST_F(Issues, OfOnePassShareASignalSortedByNumber) {
    start();
    station.files().write(MEMORY_FILE, meminfo(1000, 200));
    station.temperature(72000);
    station.heartbeats(5);
    EXPECT_EQ(next_signal(&client), new_issues(FIRST_PASS + 50, {"CB20", "CB21"}));
}

TEST_F(Issues, RaisedAreSignalledBeforeThoseClearedInTheSamePass) {
    start();
    station.temperature(72000);
    station.heartbeats(5);
    EXPECT_EQ(next_signal(&client), new_issues(FIRST_PASS + 50, {"CB20"}));
    station.temperature(42000);
    station.files().write(MEMORY_FILE, meminfo(1000, 200));
    station.heartbeats(5);
    EXPECT_EQ(next_signal(&client), new_issues(FIRST_PASS + 100, {"CB21"}));
    EXPECT_EQ(next_signal(&client), cleared_issues(FIRST_PASS + 100, {"CB20"}));
}

// The disks are checked every 15 minutes: each fifth sample falls on 13:15, 14:30 and 15:45.
TEST_F(Issues, OfTwoTasksWithTheSameNumberAreOne) {
    constexpr Disk low{.blocks = 100, .free = 20, .available = 20};
    constexpr Disk half{.blocks = 100, .free = 50, .available = 50};
    start();
    station.disk("/tmp", low);
    station.disk("/run", low);
    station.step(893);
    for (int quarter = 0; quarter < 4; ++quarter) {
        station.step(900);
    }
    EXPECT_EQ(next_signal(&client), new_issues(FIRST_PASS + 4493, {"CB22"}));
    for (const char *disk : {"/tmp", "/run"}) {
        EXPECT_EQ(body_bytes(list().get()), listing_bytes({{FIRST_PASS + 4493, "CB22"}})) << "until " << disk;
        station.disk(disk, half);
        for (int quarter = 0; quarter < 5; ++quarter) {
            station.step(900);
        }
    }
    EXPECT_EQ(next_signal(&client), cleared_issues(FIRST_PASS + 13493, {"CB22"}));
}

TEST_F(Issues, AreRaisedForAServiceThatIsDown) {
    start();
    systemd.activate(NGINX, "failed");
    station.heartbeats(10);
    EXPECT_EQ(next_signal(&client), new_issues(FIRST_PASS + 100, {"CB23"}));
}

// A worn eMMC is reported by the first sample: its signal is queued, as the threads may not be connected yet.
TEST_F(IssuesOfAWornBoard, AreAnnouncedByTheFirstPass) {
    for (int run = 0; run < 10; ++run) {
        start();
        EXPECT_EQ(next_signal(&client), new_issues(FIRST_PASS, {"CB07"}));
        station.stop();
    }
}

namespace {

/// Exit status and output of a foreign program on the station's bus.
std::string output_of(const PrivateBus &bus, std::vector<std::string> command) {
    command.insert(command.begin(), {"env", bus.variable()});
    const CommandResult result = run_command(command);
    std::string text = std::to_string(result.status) + "\n";
    for (const std::string &line : result.output) {
        text += line + "\n";
    }
    return text;
}

std::vector<std::string> gdbus_call(const std::string &method) {
    return {"gdbus", "call", "--system", "--dest", SERVICE_NAME, "--object-path", OBJECT_PATH, "--method", method};
}

std::vector<std::string> busctl_call(const std::string &interface, const std::string &method) {
    return {"busctl", "--system", "call", SERVICE_NAME, OBJECT_PATH, interface, method};
}

} // namespace

TEST_F(Issues, AreListedByBusctl) {
    start();
    EXPECT_EQ(output_of(bus, busctl_call(ISSUES, "GetListing")), "0\n");
    station.temperature(72000);
    station.heartbeats(5);
    EXPECT_EQ(output_of(bus, busctl_call(ISSUES, "GetListing")), "0\na(us) 1 1709294457 \"CB20\"\n");
    std::vector<std::string> availability = busctl_call(NETWORK, "ChangeInterfaceAvailability");
    availability.insert(availability.end(), {"sb", "Cell", "false"});
    EXPECT_EQ(output_of(bus, availability), "0\ns \"failed\"\n");
}

TEST_F(Issues, AreListedByGdbus) {
    start();
    const std::string method = std::string(ISSUES) + ".GetListing";
    EXPECT_EQ(output_of(bus, gdbus_call(method)), "0\n()\n");
    station.temperature(72000);
    station.heartbeats(5);
    EXPECT_EQ(output_of(bus, gdbus_call(method)), "0\n([(uint32 1709294457, 'CB20')],)\n");
    std::vector<std::string> availability = gdbus_call(std::string(NETWORK) + ".ChangeInterfaceAvailability");
    availability.insert(availability.end(), {"Bluetooth", "true"});
    EXPECT_EQ(output_of(bus, availability), "0\n('accepted',)\n");
}

TEST_F(Issues, AreListedByDbusSend) {
    start();
    station.temperature(72000);
    station.heartbeats(5);
    EXPECT_EQ(output_of(bus, {"dbus-send", "--system", "--print-reply=literal", std::string("--dest=") + SERVICE_NAME,
                              OBJECT_PATH, std::string(ISSUES) + ".GetListing"}),
              "0\n   array [\n      struct {\n         uint32 1709294457\n         CB20      }\n   ]\n");
}

TEST_F(Issues, AreDescribedByIntrospection) {
    start();
    const std::string described = output_of(
        bus, {"gdbus", "introspect", "--xml", "--system", "--dest", SERVICE_NAME, "--object-path", OBJECT_PATH});
    EXPECT_THAT(described, testing::StartsWith("0\n<node>\n    <interface name='com.corvana.State2.Issues'>\n"));
    EXPECT_THAT(described, HasSubstr("            <arg type='a(us)' name='activeIssues' direction='out'/>\n"));
    EXPECT_THAT(described, testing::Not(HasSubstr("ChangeInterfaceAvailability")));
    EXPECT_EQ(
        output_of(bus, {"gdbus", "introspect", "--xml", "--system", "--dest", SERVICE_NAME, "--object-path", "/"}),
        "0\n<node>\n</node>\n");
    const std::string introspected =
        output_of(bus, {"busctl", "--system", "introspect", SERVICE_NAME, OBJECT_PATH, ISSUES});
    EXPECT_THAT(introspected, HasSubstr(".NewIssues"));
    EXPECT_THAT(introspected, HasSubstr("a(us)"));
}

namespace {

/// A foreign program that prints signals as they arrive.
struct Monitor {
    const char *name;
    std::string command;
    std::vector<std::string> shown;
};

void PrintTo(const Monitor &monitor, std::ostream *out) { *out << monitor.name; }

/// Whether a client subscribes to all messages or to those of one sender.
bool asks_to_watch(DBusMessage *message) {
    const char *rule = "";
    return dbus_message_is_method_call(message, DBUS_INTERFACE_MONITORING, "BecomeMonitor") != 0 ||
           (dbus_message_is_method_call(message, DBUS_INTERFACE_DBUS, "AddMatch") != 0 &&
            dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, static_cast<void *>(&rule), DBUS_TYPE_INVALID) !=
                0 &&
            std::string_view(rule).find("sender=':") != std::string_view::npos);
}

class Monitors : public Issues, public testing::WithParamInterface<Monitor> {};

} // namespace

TEST_P(Monitors, ShowTheSignals) {
    start();
    const Monitor &monitor = GetParam();
    BusClient witness(bus);
    witness.become_monitor();
    ChildProcess process({"sh", "-c", monitor.command + " 2>&1"}, {bus.variable()});
    ASSERT_TRUE(witness.wait_for(asks_to_watch)); // the programs announce it first
    station.temperature(72000);
    station.heartbeats(5);
    std::size_t line = 0;
    for (const std::string &text : monitor.shown) {
        const auto found = process.output().wait_for(text, line);
        ASSERT_TRUE(found.has_value()) << text;
        line = *found;
    }
}

INSTANTIATE_TEST_SUITE_P(
    OfOthers, Monitors,
    testing::Values(Monitor{"busctl",
                            "exec stdbuf -oL busctl --system monitor com.corvana.vigmond",
                            {"Path=/com/corvana/Monitoring1  Interface=com.corvana.State2.Issues  Member=NewIssues",
                             "MESSAGE \"uas\"", "UINT32 1709294457", "STRING \"CB20\""}},
                    Monitor{"gdbus",
                            "exec gdbus monitor --system --dest com.corvana.vigmond",
                            {"/com/corvana/Monitoring1: com.corvana.State2.Issues.NewIssues (uint32 1709294457, "
                             "['CB20'])"}},
                    Monitor{"dbus_monitor",
                            "exec dbus-monitor --system \"interface='com.corvana.State2.Issues'\"",
                            {"path=/com/corvana/Monitoring1; interface=com.corvana.State2.Issues; member=NewIssues",
                             "uint32 1709294457", "string \"CB20\""}}),
    [](const auto &row) { return row.param.name; });
