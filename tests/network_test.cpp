#include "network.h"

#include "captured_traces.h"
#include "fake_systemd.h"
#include "in_child.h"
#include "parse_json.h"
#include "private_bus.h"
#include "process_state.h"
#include "scratch_folder.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gmock/gmock.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *LAN_FILE = "/var/lib/evse/etc/systemd/network/eth0.network";
constexpr const char *WIFI_FILE = "/var/lib/evse/portapi/wifi.conf";
constexpr const char *CHECK = "network_check_daemon";

// --- the system's side

constinit const ScratchFolder *station = nullptr;
constinit int lan_opened = 0;
constinit int wifi_opened = 0;
constinit bool opened_close_on_exec = true;
constinit std::uint64_t call_timeout = 0;

constexpr std::uint64_t FIVE_SECONDS = 5'000'000;
constexpr std::uint64_t SHORT_TIMEOUT = 100'000;

} // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the linker's names
extern "C" {
std::FILE *__real_fopen64(const char *path, const char *mode);
int __real_open64(const char *path, int flags, ...);
int __real_sd_bus_set_method_call_timeout(sd_bus *bus, std::uint64_t timeout);

std::FILE *__wrap_fopen64(const char *path, const char *mode) {
    if (station == nullptr || std::strcmp(path, LAN_FILE) != 0) {
        return __real_fopen64(path, mode);
    }
    ++lan_opened;
    opened_close_on_exec = opened_close_on_exec && std::strchr(mode, 'e') != nullptr;
    return __real_fopen64((*station / "lan").c_str(), mode);
}

int __wrap_open64(const char *path, int flags, ...) {
    if (station == nullptr || std::strcmp(path, WIFI_FILE) != 0) {
        return __real_open64(path, flags, 0600);
    }
    ++wifi_opened;
    opened_close_on_exec = opened_close_on_exec && (flags & O_CLOEXEC) != 0;
    return __real_open64((*station / "wifi").c_str(), flags);
}

/// Nobody has to wait for the whole of it.
int __wrap_sd_bus_set_method_call_timeout(sd_bus *bus, std::uint64_t timeout) {
    call_timeout = timeout;
    return __real_sd_bus_set_method_call_timeout(bus, SHORT_TIMEOUT);
}
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace {

void use_system_bus(const std::string &address) { setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1); }

/// A station whose files stand in a scratch folder, without a bus at first.
class Station {
  public:
    Station() {
        use_system_bus("unix:path=" + (folder / "nowhere"));
        station = &folder;
        lan_opened = wifi_opened = 0;
    }
    ~Station() { station = nullptr; }
    Station(const Station &) = delete;
    Station &operator=(const Station &) = delete;

    void lan(const std::string &content) const { folder.write("lan", content); }
    void wifi(const std::string &content) const { folder.write("wifi", content); }
    void remove(const std::string &name) const { std::filesystem::remove_all(folder / name); }

    /// A pass; whether it has read the files.
    bool reads() const {
        const int lan_before = lan_opened;
        const int wifi_before = wifi_opened;
        EXPECT_EQ(network_check_daemon(), 0);
        EXPECT_EQ(lan_opened - lan_before, wifi_opened - wifi_before) << "both or none";
        EXPECT_LE(lan_opened - lan_before, 1);
        return lan_opened != lan_before;
    }
    std::int32_t lan_after(const std::string &content) const {
        lan(content);
        EXPECT_TRUE(reads());
        return lan_available;
    }
    std::int32_t wifi_after(const std::string &content) const {
        wifi(content);
        EXPECT_TRUE(reads());
        return wifi_available;
    }

    ScratchFolder folder;
    CapturedTraces traces;
};

/// The same with a bus, and with systemd on it.
class BusStation : public Station {
  public:
    BusStation() { use_system_bus(bus.address()); }

    PrivateBus bus;
    FakeSystemd systemd{bus};
};

// --- the LAN's decision

TEST(NetworkDecideLan, FollowsWhatIsSet) {
    struct Case {
        std::int32_t managed;
        std::int32_t activation;
        std::int32_t available;
    };
    constexpr std::array<Case, 9> cases{
        {{-1, -1, 0}, {0, -1, 0}, {1, -1, 1}, {-1, 0, 0}, {-1, 1, 1}, {0, 0, 0}, {0, 1, 0}, {1, 0, 0}, {1, 1, 1}}};
    for (const Case &row : cases) {
        EXPECT_EQ(network_decide_lan(row.managed, row.activation), row.available) << row.managed << row.activation;
    }
}

/// What a daemon that has just started makes of a file.
std::int32_t lan_of(const std::string &content) {
    std::int32_t available = -1;
    std::array<int, 2> result{};
    EXPECT_EQ(pipe(result.data()), 0);
    in_child([&] {
        const Station rig;
        const std::int32_t found = rig.lan_after(content);
        EXPECT_EQ(write(result[1], &found, sizeof found), static_cast<ssize_t>(sizeof found));
    });
    EXPECT_EQ(read(result[0], &available, sizeof available), static_cast<ssize_t>(sizeof available));
    close(result[0]);
    close(result[1]);
    return available;
}

TEST(NetworkLan, TakesTheKnownValuesInAnyCase) {
    // With the other key at 1 the outcome is the value itself.
    for (const char *value : {"true", "yes", "TRUE", "Yes"}) {
        EXPECT_EQ(lan_of(std::string("[Link]\nActivationPolicy=up\nUnmanaged=") + value + "\n"), 0) << value;
    }
    for (const char *value : {"false", "no", "False", "NO"}) {
        EXPECT_EQ(lan_of(std::string("[Link]\nUnmanaged=") + value + "\n"), 1) << value;
    }
    for (const char *value : {"down", "always-down", "Down", "ALWAYS-DOWN"}) {
        EXPECT_EQ(lan_of(std::string("[Link]\nUnmanaged=no\nActivationPolicy=") + value + "\n"), 0) << value;
    }
    for (const char *value : {"up", "always-up", "manual", "bound", "UP", "Manual"}) {
        EXPECT_EQ(lan_of(std::string("[Link]\nActivationPolicy=") + value + "\n"), 1) << value;
    }
}

TEST(NetworkLan, LeavesThingsAsTheyAreAtAnUnknownValue) {
    // The key before it says 1, so a value taken for "true" or "down" would show, ...
    for (const char *value : {"1", "0", "on", "off", "", "yes!", "tru", "true1"}) {
        EXPECT_EQ(lan_of(std::string("[Link]\nUnmanaged=no\nUnmanaged=") + value + "\n"), 1) << value;
        // ... and here one taken for "false".
        EXPECT_EQ(lan_of(std::string("[Link]\nUnmanaged=") + value + "\n"), 0) << value;
    }
    for (const char *value : {"1", "always", "upward", ""}) {
        EXPECT_EQ(lan_of(std::string("[Link]\nActivationPolicy=up\nActivationPolicy=") + value + "\n"), 1) << value;
        EXPECT_EQ(lan_of(std::string("[Link]\nActivationPolicy=") + value + "\n"), 0) << value;
    }
}

TEST(NetworkLan, LooksAtItsSectionAndKeysInAnyCase) {
    EXPECT_EQ(lan_of("[link]\nunmanaged=no\n"), 1);
    EXPECT_EQ(lan_of("[LINK]\nACTIVATIONPOLICY=up\n"), 1);
    EXPECT_EQ(lan_of("[Network]\nUnmanaged=no\n"), 0);
    EXPECT_EQ(lan_of("[Links]\nUnmanaged=no\n"), 0);
    EXPECT_EQ(lan_of("Unmanaged=no\n"), 0);
    EXPECT_EQ(lan_of("[Link]\nManaged=no\nActivation=up\n"), 0);
    EXPECT_EQ(lan_of("[Network]\nUnmanaged=yes\n[Link]\nUnmanaged=no\n[Match]\nUnmanaged=yes\n"), 1);
}

TEST(NetworkLan, IsInUseWhenTheFileSaysNothingUsable) {
    in_child([] {
        const Station rig;
        EXPECT_TRUE(rig.reads()) << "no file";
        EXPECT_EQ(lan_available, 1);
        EXPECT_EQ(rig.lan_after(""), 0) << "a file without the keys is another thing";
        EXPECT_EQ(rig.lan_after("[Link\n"), 1);
        EXPECT_EQ(rig.lan_after("[Match]\nName=eth0\n"), 0);
        EXPECT_EQ(rig.lan_after("no separator\n"), 1);
        // What stands in front of the error counts from then on, not in this pass.
        EXPECT_EQ(rig.lan_after("[Link]\nUnmanaged=yes\nbroken\n"), 1);
        EXPECT_EQ(rig.lan_after("[Link]\nActivationPolicy=up\n"), 0);
        // One byte more than a line may have: the second piece has no separator.
        EXPECT_EQ(rig.lan_after("a=" + std::string(4094, 'x') + "\n"), 1);
        EXPECT_EQ(rig.lan_after("a=" + std::string(4093, 'x') + "\n"), 0);
    });
}

TEST(NetworkLan, KeepsTheValueOfAKeyThatDisappears) {
    in_child([] {
        const Station rig;
        EXPECT_EQ(rig.lan_after("[Link]\nUnmanaged=no\n"), 1);
        EXPECT_EQ(rig.lan_after("[Link]\n"), 1);
        EXPECT_EQ(rig.lan_after("[Link]\nActivationPolicy=down\n"), 0);
        EXPECT_EQ(rig.lan_after("[Link]\n"), 0);
        EXPECT_EQ(rig.lan_after("[Link]\nActivationPolicy=bound\n"), 1);
        EXPECT_EQ(rig.lan_after(""), 1);
        EXPECT_EQ(rig.lan_after("[Link]\nUnmanaged=yes\n"), 0);
        EXPECT_EQ(rig.lan_after("[Link]\nUnmanaged=perhaps\n"), 0);
        rig.remove("lan");
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(lan_available, 1);
        EXPECT_EQ(rig.lan_after(""), 0);
    });
}

TEST(NetworkLanHandler, TracesThePairAndAlwaysGoesOn) {
    in_child([] {
        const CapturedTraces traces;
        EXPECT_EQ(network_lan_handler("Other", "Unmanaged", "no"), 1);
        EXPECT_EQ(network_lan_handler("Link", "Unmanaged", "never"), 1);
        EXPECT_EQ(network_lan_handler("Link", "Unmanaged", "yes"), 1);
        EXPECT_EQ(network_lan_handler("Link", "Other", ""), 1);
        EXPECT_THAT(traces.texts_of("network_lan_handler"),
                    ElementsAre("section: Other -- name: Unmanaged -- value: no",
                                "section: Link -- name: Unmanaged -- value: never",
                                "section: Link -- name: Unmanaged -- value: yes",
                                "section: Link -- name: Other -- value: "));
        EXPECT_EQ(traces.all().front().line.substr(0, 4), "(3) ");
        EXPECT_EQ(traces.all().front().code_file, "CODE_FILE=network.c");
    });
}

// --- the WiFi's decision

constexpr JsonToken OBJECT_AT_0{.type = JSON_OBJECT, .start = 0, .end = 1, .size = 1, .parent = -1};

JsonToken token_at(std::int32_t start) {
    return {.type = JSON_STRING, .start = start, .end = start + 1, .size = 0, .parent = 0};
}

TEST(NetworkDecideWifi, IsInUseWithoutAnObject) {
    const std::array<JsonToken, 2> tokens{OBJECT_AT_0, token_at(1)};
    for (const std::int32_t count : {0, -1, -2, -3}) {
        EXPECT_EQ(network_decide_wifi("{", tokens.data(), count), 1) << count;
    }
    const std::array<JsonToken, 1> text{token_at(1)};
    EXPECT_EQ(network_decide_wifi("\"enabled\"", text.data(), 1), 1);
    EXPECT_EQ(network_decide_wifi("{}", tokens.data(), 1), 0) << "an object and nothing else";
}

TEST(NetworkDecideWifi, ComparesToTheEndOfTheTextNotOfTheToken) {
    // The value's text ends where the buffer's does, as the key's has to: the offsets are swapped.
    const std::string text("{true\0enabled", 13);
    const std::array<JsonToken, 3> swapped{OBJECT_AT_0, token_at(6), token_at(1)};
    EXPECT_EQ(network_decide_wifi(text.data(), swapped.data(), 3), 1);
    EXPECT_EQ(network_decide_wifi("{TRUE\0EnAbLeD", swapped.data(), 3), 1) << "in any case";
    EXPECT_EQ(network_decide_wifi("{true \0nabled", swapped.data(), 3), 0);
    EXPECT_EQ(network_decide_wifi("{trua\0enabled", swapped.data(), 3), 0);
    EXPECT_EQ(network_decide_wifi("{true\0enabled\"", swapped.data(), 3), 0) << "a quote follows the key";
    EXPECT_EQ(network_decide_wifi("{true\"enabled", swapped.data(), 3), 0) << "something follows the value";
}

TEST(NetworkDecideWifi, StopsAtTheFirstEqualToken) {
    const std::string text("{true\0enabled", 13);
    // The key, then what is not "true", then the key and "true".
    const std::array<JsonToken, 5> tokens{OBJECT_AT_0, token_at(6), token_at(2), token_at(6), token_at(1)};
    EXPECT_EQ(network_decide_wifi(text.data(), tokens.data(), 5), 0);
}

TEST(NetworkDecideWifi, LooksAtNoTokenBehindTheLast) {
    const std::string text("{true\0enabled", 13);
    const std::array<JsonToken, 3> tokens{OBJECT_AT_0, token_at(6), token_at(1)};
    EXPECT_EQ(network_decide_wifi(text.data(), tokens.data(), 2), 0);
    const std::array<JsonToken, 2> first{token_at(6), token_at(1)};
    JsonToken object = first[0];
    object.type = JSON_OBJECT; // the object's own text is no key
    const std::array<JsonToken, 2> own{object, token_at(1)};
    EXPECT_EQ(network_decide_wifi(text.data(), own.data(), 2), 0);
}

TEST(NetworkWifi, FollowsTheFile) {
    in_child([] {
        const Station rig;
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(wifi_available, 0) << "no file";
        EXPECT_EQ(rig.wifi_after(""), 1);
        EXPECT_EQ(rig.wifi_after("{\"enabled\": true}"), 0) << "the quote behind the key is compared too";
        EXPECT_EQ(rig.wifi_after("{\"enabled\": \"true\"}"), 0);
        EXPECT_EQ(rig.wifi_after("[\"enabled\"]"), 1);
        EXPECT_EQ(rig.wifi_after("{}"), 0);
        EXPECT_EQ(rig.wifi_after("plain text"), 1);
        EXPECT_EQ(rig.wifi_after("{\"ssid\": \"x\"}"), 0);
        EXPECT_EQ(rig.wifi_after("{\"ssid\": \"x"), 1) << "cut";
        EXPECT_EQ(rig.wifi_after("true "), 1) << "no object";
        rig.remove("wifi");
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(wifi_available, 0);
    });
}

TEST(NetworkWifi, IsInUseWithADirectoryInTheFilesPlace) {
    in_child([] {
        const Station rig;
        EXPECT_EQ(rig.wifi_after("{}"), 0);
        rig.remove("wifi");
        std::filesystem::create_directory(rig.folder / "wifi");
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(wifi_available, 1);
    });
}

TEST(NetworkWifi, IsInUseBeyond32Tokens) {
    in_child([] {
        const Station rig;
        std::string pairs = "{\"a\":1"; // an object and two tokens a pair: 15 pairs are 31 tokens
        for (int pair = 1; pair < 15; ++pair) {
            pairs += ",\"a\":1";
        }
        EXPECT_EQ(rig.wifi_after(pairs + ",\"a\"}"), 0) << "32";
        EXPECT_EQ(rig.wifi_after(pairs + ",\"a\":1}"), 1) << "33";
    });
}

TEST(NetworkWifi, ReadsAtMost2048Bytes) {
    in_child([] {
        const Station rig;
        const std::string object = "{\"a\":1}";
        EXPECT_EQ(rig.wifi_after(std::string(2048 - object.size(), ' ') + object), 0) << "2048";
        EXPECT_EQ(rig.wifi_after(std::string(2049 - object.size(), ' ') + object), 1) << "2049: the brace is cut off";
        EXPECT_EQ(rig.wifi_after(object + std::string(4000, '}')), 1);
        EXPECT_EQ(rig.wifi_after(object + std::string(2041, ' ') + "}"), 0) << "nothing behind is seen";
    });
}

TEST(NetworkWifi, LeavesTheEndOfALongerFileStanding) {
    in_child([] {
        const Station rig;
        // A key's text only ends where the buffer's does, so with a quote behind it in the file the byte
        // behind that has to be the end, and is compared: never equal, whatever an earlier file left.
        EXPECT_EQ(rig.wifi_after(std::string(64, 'x')), 1);
        EXPECT_EQ(rig.wifi_after("{\"a\":1}"), 0) << "the x behind it are not parsed";
        EXPECT_EQ(rig.wifi_after("{\"enabled\":true}"), 0);
        // A zero byte ends the text: what stands behind it is neither parsed nor compared.
        EXPECT_EQ(rig.wifi_after(std::string("{\"a\":1}\0[", 9)), 0);
        EXPECT_EQ(rig.wifi_after(std::string("\0{}", 3)), 1);
    });
}

// --- when the files are read

TEST(NetworkCheck, ReadsTwiceThenNoMoreWhileNetworkdStandsStill) {
    in_child([] {
        BusStation rig;
        rig.systemd.change_time("18446744073709551615");
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(rig.systemd.total(), 0) << "the first pass does not ask, and stores nothing";
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(rig.systemd.count(NETWORKD, CHANGE_TIME), 1);
        EXPECT_FALSE(rig.reads());
        EXPECT_FALSE(rig.reads());
        EXPECT_EQ(rig.systemd.count(NETWORKD, CHANGE_TIME), 3);
        EXPECT_EQ(rig.systemd.total(), 3) << "and nothing else";
        EXPECT_TRUE(opened_close_on_exec);
        EXPECT_EQ(call_timeout, FIVE_SECONDS);
    });
}

TEST(NetworkCheck, ReadsOnceWhenNetworkdWasNeverStarted) {
    in_child([] {
        BusStation rig;
        rig.systemd.change_time("0");
        EXPECT_TRUE(rig.reads());
        EXPECT_FALSE(rig.reads());
    });
}

TEST(NetworkCheck, ReadsAtAnyOtherTimeStampAnEarlierOneIncluded) {
    in_child([] {
        BusStation rig;
        EXPECT_TRUE(rig.reads());
        for (const char *time : {"5000000000", "4294967296", "1", "5000000000"}) {
            rig.systemd.change_time(time);
            EXPECT_TRUE(rig.reads()) << time;
            EXPECT_FALSE(rig.reads()) << time;
        }
        // The same low 32 bits.
        rig.systemd.change_time("9294967296");
        EXPECT_TRUE(rig.reads());
    });
}

TEST(NetworkCheck, KeepsWhatItFoundWhileItDoesNotRead) {
    in_child([] {
        BusStation rig;
        rig.systemd.change_time("7");
        rig.wifi("");
        rig.lan("");
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.reads());
        rig.remove("wifi");
        rig.remove("lan");
        mobile_available = 1;
        EXPECT_FALSE(rig.reads());
        EXPECT_EQ(lan_available, 0);
        EXPECT_EQ(wifi_available, 1);
        EXPECT_EQ(mobile_available, 1);
        rig.systemd.change_time("8");
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(lan_available, 1);
        EXPECT_EQ(wifi_available, 0);
        EXPECT_EQ(mobile_available, 0) << "never in use";
    });
}

TEST(NetworkCheck, ReadsInEveryPassWithoutABus) {
    in_child([] {
        const Station rig;
        EXPECT_TRUE(rig.reads());
        EXPECT_THAT(rig.traces.texts_of(CHECK), ElementsAre(" "));
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.reads());
        const char *failed = "bus_default FAILED: ret : -2 (No such file or directory)";
        EXPECT_THAT(rig.traces.texts_of(CHECK), ElementsAre(" ", " ", failed, " ", failed));
    });
}

TEST(NetworkCheck, ReadsInEveryPassWhileThePropertyFails) {
    in_child([] {
        BusStation rig;
        rig.systemd.change_time("7");
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.reads());
        rig.systemd.fail(NETWORKD, CHANGE_TIME, "System.Error.EACCES", 2);
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.reads());
        EXPECT_FALSE(rig.reads()) << "the time stamp of before still counts";
        const char *failed = "get_property FAILEd: ret : -13 (Permission denied)";
        EXPECT_THAT(rig.traces.texts_of(CHECK), ElementsAre(" ", " ", " ", failed, " ", failed, " "));
        rig.systemd.obey(std::string("set ") + NETWORKD + " " + CHANGE_TIME + " s 7");
        EXPECT_TRUE(rig.reads()) << "a text is no number";
    });
}

TEST(NetworkCheck, GivesUpAQuestionWithoutAnAnswer) {
    in_child([] {
        BusStation rig;
        rig.systemd.change_time("7");
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.reads());
        rig.systemd.obey("hold");
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.traces.has(CHECK, "get_property FAILEd: ret : -110 (Connection timed out)"));
        rig.systemd.obey("release");
        EXPECT_FALSE(rig.reads()) << "the late answer is not taken for this one's";
    });
}

TEST(NetworkCheck, TracesItsStepsInOrder) {
    in_child([] {
        const Station rig;
        EXPECT_TRUE(rig.reads());
        std::vector<std::string> functions;
        std::string levels;
        for (const CapturedTrace &trace : rig.traces.all()) {
            functions.push_back(trace.function);
            levels += trace.line.substr(0, 3);
            EXPECT_EQ(trace.text, " ");
            EXPECT_EQ(trace.code_file, "CODE_FILE=network.c");
        }
        EXPECT_THAT(functions, ElementsAre(CHECK, "network_check", "network_check_lan", "network_check_wifi",
                                           "network_check_mobile"));
        EXPECT_EQ(levels, "(2)(3)(3)(3)(3)");
    });
}

// --- the bus

TEST(NetworkBus, IsFoundAgainAfterItDied) {
    in_child([] {
        BusStation rig;
        rig.systemd.change_time("7");
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.reads());
        EXPECT_FALSE(rig.reads());
        rig.bus.stop();
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.traces.has(CHECK, "get_property FAILEd: ret : -104 (Connection reset by peer)"));
        EXPECT_TRUE(rig.reads());
        EXPECT_THAT(rig.traces.texts_of(CHECK), Contains(testing::StartsWith("bus_default FAILED: ret : -")));
        rig.bus.start();
        rig.systemd.connect();
        EXPECT_FALSE(rig.reads()) << "the same time stamp";
        rig.systemd.change_time("8");
        EXPECT_TRUE(rig.reads());
        EXPECT_FALSE(rig.reads());
    });
}

TEST(NetworkBus, MayDieWhileItIsAsked) {
    in_child([] {
        BusStation rig;
        rig.systemd.change_time("7");
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.reads());
        rig.systemd.strike(rig.bus.pid(), SIGKILL, 1);
        EXPECT_TRUE(rig.reads());
        rig.bus.stop();
        rig.bus.start();
        rig.systemd.connect();
        EXPECT_FALSE(rig.reads());
    });
}

void expect_nothing_unread() {
    sd_bus *bus = nullptr;
    ASSERT_GE(sd_bus_default_system(&bus), 0);
    std::uint64_t unread = 99;
    EXPECT_EQ(sd_bus_get_n_queued_read(bus, &unread), 0);
    EXPECT_EQ(unread, 0U);
    sd_bus_unref(bus);
}

TEST(NetworkBus, KeepsNothingFromPassToPass) {
    in_child([] {
        BusStation rig;
        rig.systemd.change_time("7");
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.reads());
        const auto before = open_descriptors();
        for (int pass = 0; pass < 1000; ++pass) {
            ASSERT_FALSE(rig.reads());
        }
        EXPECT_EQ(open_descriptors(), before);
        // No reference was left behind: the dead connection would else be handed out again.
        rig.bus.stop();
        EXPECT_TRUE(rig.reads());
        rig.bus.start();
        rig.systemd.connect();
        EXPECT_FALSE(rig.reads());
        EXPECT_EQ(open_descriptors(), before);
    });
}

TEST(NetworkBus, ThrowsAwayWhatNobodyWaitsFor) {
    in_child([] {
        BusStation rig;
        rig.systemd.change_time("7");
        rig.systemd.obey("noise 50");
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.reads());
        EXPECT_FALSE(rig.reads());
        expect_nothing_unread();
    });
}

/// A socket that takes connections and says nothing.
class SilentSocket {
  public:
    explicit SilentSocket(const std::string &path) : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(socket_.get(), 8), 0);
    }

  private:
    Descriptor socket_;
};

TEST(NetworkBus, IsGivenUpWhenItAdmitsNobody) {
    in_child([] {
        const Station rig;
        const SilentSocket bus(rig.folder / "silent");
        use_system_bus("unix:path=" + (rig.folder / "silent"));
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.traces.has(CHECK, "get_property FAILEd: ret : -110 (Connection timed out)"));
    });
}

} // namespace
