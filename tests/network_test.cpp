#include "network.h"

#include "captured_traces.h"
#include "hang_guard.h"
#include "in_child.h"
#include "network_station.h"
#include "parse_json.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using testing::ElementsAre;

TEST(Network, IsNotInUseBeforeTheFirstPass) { // tests run their passes in child processes
    EXPECT_EQ(lan_available, 0);
    EXPECT_EQ(wifi_available, 0);
    EXPECT_EQ(mobile_available, 0);
}

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

/// The flag of a daemon that has just started and reads a file.
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

TEST(NetworkLan, IgnoresAnUnknownValue) {
    // The key before it is 1, so reading the value as "true" or "down" would show, ...
    for (const char *value : {"1", "0", "on", "off", "", "yes!", "tru", "true1"}) {
        EXPECT_EQ(lan_of(std::string("[Link]\nUnmanaged=no\nUnmanaged=") + value + "\n"), 1) << value;
        // ... and so would reading it as "false" here.
        EXPECT_EQ(lan_of(std::string("[Link]\nUnmanaged=") + value + "\n"), 0) << value;
    }
    for (const char *value : {"1", "always", "upward", ""}) {
        EXPECT_EQ(lan_of(std::string("[Link]\nActivationPolicy=up\nActivationPolicy=") + value + "\n"), 1) << value;
        EXPECT_EQ(lan_of(std::string("[Link]\nActivationPolicy=") + value + "\n"), 0) << value;
    }
}

TEST(NetworkLan, MatchesItsSectionAndKeysInAnyCase) {
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
        EXPECT_EQ(rig.lan_after(""), 0) << "a file without the keys differs from no file";
        EXPECT_EQ(rig.lan_after("[Link\n"), 1);
        EXPECT_EQ(rig.lan_after("[Match]\nName=eth0\n"), 0);
        EXPECT_EQ(rig.lan_after("no separator\n"), 1);
        // Pairs before the error take effect from the next pass.
        EXPECT_EQ(rig.lan_after("[Link]\nUnmanaged=yes\nbroken\n"), 1);
        EXPECT_EQ(rig.lan_after("[Link]\nActivationPolicy=up\n"), 0);
        // One byte longer than the longest line: the second piece has no separator.
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

TEST(NetworkLanHandler, TracesThePairAndAlwaysContinues) {
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
    // Both texts are compared up to the end of the buffer, so the key must be last here: the offsets are swapped.
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

TEST(NetworkDecideWifi, ReadsNoTokenAfterTheLast) {
    const std::string text("{true\0enabled", 13);
    const std::array<JsonToken, 3> tokens{OBJECT_AT_0, token_at(6), token_at(1)};
    EXPECT_EQ(network_decide_wifi(text.data(), tokens.data(), 2), 0);
    const std::array<JsonToken, 2> first{token_at(6), token_at(1)};
    JsonToken object = first[0];
    object.type = JSON_OBJECT; // the object's own text is not a key
    const std::array<JsonToken, 2> own{object, token_at(1)};
    EXPECT_EQ(network_decide_wifi(text.data(), own.data(), 2), 0);
}

TEST(NetworkWifi, FollowsTheFile) {
    in_child([] {
        const Station rig;
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(wifi_available, 0) << "no file";
        EXPECT_EQ(rig.wifi_after(""), 1);
        EXPECT_EQ(rig.wifi_after("{\"enabled\": true}"), 0) << "the quote after the key is compared too";
        EXPECT_EQ(rig.wifi_after("{\"enabled\": \"true\"}"), 0);
        EXPECT_EQ(rig.wifi_after("[\"enabled\"]"), 1);
        EXPECT_EQ(rig.wifi_after("{}"), 0);
        EXPECT_EQ(rig.wifi_after("plain text"), 1);
        EXPECT_EQ(rig.wifi_after("{\"ssid\": \"x\"}"), 0);
        EXPECT_EQ(rig.wifi_after("{\"ssid\": \"x"), 1) << "cut";
        EXPECT_EQ(rig.wifi_after("true "), 1) << "not an object";
        rig.remove("wifi");
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(wifi_available, 0);
    });
}

TEST(NetworkWifi, IsInUseWithADirectoryInPlaceOfTheFile) {
    in_child([] {
        const Station rig;
        EXPECT_EQ(rig.wifi_after("{}"), 0);
        rig.remove("wifi");
        std::filesystem::create_directory(rig.folder / "wifi");
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(wifi_available, 1);
    });
}

TEST(NetworkFiles, DoNotBlockWhenTheyArePipesWithoutAWriter) {
    in_child([] {
        const HangGuard guard;
        const Station rig;
        ASSERT_EQ(mkfifo((rig.folder / "lan").c_str(), 0600), 0);
        ASSERT_EQ(mkfifo((rig.folder / "wifi").c_str(), 0600), 0);
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(lan_available, 1) << "not a regular file";
        EXPECT_EQ(wifi_available, 1) << "it cannot be read";
        const Descriptor feeders[]{Descriptor(open((rig.folder / "lan").c_str(), O_RDWR | O_CLOEXEC)),
                                   Descriptor(open((rig.folder / "wifi").c_str(), O_RDWR | O_CLOEXEC))};
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(lan_available, 1);
        EXPECT_EQ(wifi_available, 1);
    });
}

TEST(NetworkFiles, AreReadUpToALimitWhenTheyAreFullPipes) {
    in_child([] {
        const HangGuard guard;
        const Station rig;
        std::vector<Descriptor> feeders;
        for (const char *name : {"lan", "wifi"}) {
            ASSERT_EQ(mkfifo((rig.folder / name).c_str(), 0600), 0);
            feeders.emplace_back(open((rig.folder / name).c_str(), O_RDWR | O_CLOEXEC));
        }
        const std::string_view lan = "[Link]\nUnmanaged=yes\n";
        ASSERT_EQ(write(feeders[0].get(), lan.data(), lan.size()), static_cast<ssize_t>(lan.size()));
        const std::string wifi = "{}" + std::string(4094, ' ');
        ASSERT_EQ(write(feeders[1].get(), wifi.data(), wifi.size()), static_cast<ssize_t>(wifi.size()));
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(lan_available, 1);
        EXPECT_EQ(wifi_available, 0) << "an object and nothing else";
        int left = 0;
        EXPECT_EQ(ioctl(feeders[0].get(), FIONREAD, &left), 0);
        EXPECT_EQ(static_cast<std::size_t>(left), lan.size());
        EXPECT_EQ(ioctl(feeders[1].get(), FIONREAD, &left), 0);
        EXPECT_EQ(left, 2048) << "one read of 2048 bytes";
    });
}

TEST(NetworkFiles, AreReadUpToALimitWhenTheyAreEndlessDevices) {
    in_child([] {
        const HangGuard guard;
        const Station rig;
        for (const char *name : {"lan", "wifi"}) {
            std::filesystem::create_symlink("/dev/zero", rig.folder / name);
        }
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(lan_available, 1);
        EXPECT_EQ(wifi_available, 1);
    });
}

TEST(NetworkFiles, MayBeHuge) {
    in_child([] {
        const HangGuard guard;
        const Station rig;
        std::filesystem::resize_file(rig.folder.write("lan", "[Link]\n"), 500'000'000'000);
        std::filesystem::resize_file(rig.folder.write("wifi", "{}\n"), 500'000'000'000);
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(lan_available, 1);
        EXPECT_EQ(wifi_available, 0) << "the zero byte after the object ends the text";
    });
}

TEST(NetworkLan, IsInUseWithAFolderInPlaceOfTheFile) {
    in_child([] {
        const Station rig;
        std::filesystem::create_directory(rig.folder / "lan");
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(lan_available, 1);
    });
}

TEST(NetworkLan, IsInUseWhenTheFileCannotBeRead) {
    in_child([] {
        const Station rig;
        std::filesystem::create_symlink("/proc/self/mem", rig.folder / "lan"); // reading at offset 0 fails
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(lan_available, 1);
    });
}

TEST(NetworkLan, ReadsAFileOf64KiBAndNothingOfALargerOne) {
    in_child([] {
        const Station rig;
        const std::string pairs = "[Link]\nActivationPolicy=down\n";
        EXPECT_EQ(rig.lan_after(pairs + std::string(65537 - pairs.size(), '\n')), 1);
        EXPECT_EQ(rig.lan_after("[Link]\nUnmanaged=no\n"), 1) << "no policy was applied";
        EXPECT_EQ(rig.lan_after(pairs + std::string(65536 - pairs.size(), '\n')), 0);
    });
}

TEST(NetworkLan, IsReadUpTo64KiBWhenTheFileReportsNoSize) {
    in_child([] {
        const HangGuard guard;
        const Station rig;
        for (int mapping = 0; mapping < 400; ++mapping) {
            const int protection = mapping % 2 == 0 ? PROT_READ : PROT_NONE; // otherwise adjacent mappings merge
            ASSERT_NE(mmap(nullptr, 4096, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0), MAP_FAILED);
        }
        const std::string text = read_file("/proc/self/smaps"); // each line has a colon
        ASSERT_GT(text.size(), 4U * 65536);
        std::filesystem::create_symlink("/proc/self/smaps", rig.folder / "lan");
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(lan_available, 1);
        const std::size_t taken = rig.traces.texts_of("network_lan_handler").size();
        EXPECT_GT(taken, 0U);
        EXPECT_LT(2 * taken, static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')));
    });
}

TEST(NetworkWifi, IsInUseBeyond32Tokens) {
    in_child([] {
        const Station rig;
        std::string pairs = "{\"a\":1"; // one token for the object and two per pair: 15 pairs are 31 tokens
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
        EXPECT_EQ(rig.wifi_after(object + std::string(2041, ' ') + "}"), 0) << "nothing after it is read";
    });
}

TEST(NetworkWifi, KeepsTheEndOfALongerEarlierFileInItsBuffer) {
    in_child([] {
        const Station rig;
        // A key's text is compared up to the end of the buffer, so the quote after it is compared too: never equal,
        // whatever an earlier file left in the buffer.
        EXPECT_EQ(rig.wifi_after(std::string(64, 'x')), 1);
        EXPECT_EQ(rig.wifi_after("{\"a\":1}"), 0) << "the x after it are not parsed";
        EXPECT_EQ(rig.wifi_after("{\"enabled\":true}"), 0);
        // A zero byte ends the text: what follows is neither parsed nor compared.
        EXPECT_EQ(rig.wifi_after(std::string("{\"a\":1}\0[", 9)), 0);
        EXPECT_EQ(rig.wifi_after(std::string("\0{}", 3)), 1);
    });
}

} // namespace
