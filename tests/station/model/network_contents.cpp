#include "contents.h"

#include <algorithm>

namespace model {

namespace {

std::string text(std::int64_t number) { return std::to_string(number); }

} // namespace

std::string any_traffic(Random *random, const std::string &interface) {
    const auto packets = random->of<std::int64_t>(
        {0,       1,          49,         50,         51,         99,         100,       101,
         149,     150,        200,        1000,       1000,       1000,       54321,     1000000,
         1000000, 1073741900, 2147483647, 2147483648, 4294967296, 4294967297, 8589934592});
    const std::int64_t value = near_limits(random, {5, 10}, 2, 1);
    const std::int64_t errors =
        std::max<std::int64_t>(0, packets * value / 100 - packets / 50 + 1 + random->between(-1, 1));
    const std::int64_t received = packets * random->below(5) / 4;
    const std::int64_t lost = errors / 4;
    const std::string head = interface + ": 90000 " + text(received) + " " + text(lost) + " " +
                             text(errors - 3 * lost) + " 0 0 0 0 10000 " + text(packets - received);
    switch (random->below(24)) {
    case 0:
        return "";
    case 1:
        return interface + ":90000 " + text(received) + " 0 0 0 0 0 0 0 10000 " + text(packets) +
               " 0 0 0 0 0 0\n"; // no blank
    case 2:
        return head + "\n"; // 11 words: unsent packets are not counted
    case 3:
        return head + " " + text(lost) + "\n";
    case 4:
        return interface + ": 90000 1000 0 0 0 0 0 0 10000\n" + head + " " + text(lost) + " " + text(lost) +
               "\n"; // a line that is too short, then a good one
    case 5:
        return (interface == "eth0" ? "ETH0" : "Wlan0STA") + head.substr(interface.size()) + " 0 0 0 0 0 0\n";
    case 6:
        return interface + " : 90000 900 0 0 0 0 0 0 10000 100 0 0 0 0 0 0\n" + interface + "x" +
               head.substr(interface.size()) + " 0 0 0 0\n";
    case 7:
        return interface + ": b -5 e d 0 0 0 0 b 4 0 0 0 0 0 0\n";
    default:
        return "  " + head + " " + text(lost) + " " + text(lost) + " 0 0 0 0\n";
    }
}

Input traffic_file(const std::string &lan, const std::string &wifi) {
    return written(TRAFFIC_FILE,
                   "Inter-|   Receive                                                |  Transmit\n"
                   " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop\n"
                   "    lo:  100 1000 0 0 0 0 0 0 100 1000 0 0 0 0 0 0\n" +
                       lan + wifi);
}

std::string any_quality(Random *random) {
    if (random->once_in(20)) {
        return random->text_of({"x", "nan", "inf", "1e300", "-", "."});
    }
    const std::int64_t quality = near_limits(random, {30, 50}, 5, 70);
    return text(quality) + random->text_of({"", ".", ".9", ".999", "/70"});
}

std::string any_strength(Random *random) {
    if (random->once_in(20)) {
        return random->text_of({"x", "nan", "-inf", "1e300", "-", "dBm"});
    }
    const std::int64_t level = near_limits(random, {-70, -30, 0}, 5, -20);
    return text(level) + random->text_of({"", ".", ".", ".4", ".5", ".6", ".499", ".999"});
}

Input wireless_file(Random *random, const std::string &quality, const std::string &strength) {
    const std::string line = " 0000 " + quality + " " + strength + " -256 0 0 0 0 0 0\n";
    const std::string heading =
        "Inter-| sta-|   Quality        |   Discarded packets\n face | tus | link level noise |\n";
    switch (random->below(25)) {
    case 0:
        return written(WIRELESS_FILE, heading);
    case 1:
        return written(WIRELESS_FILE, "WLAN0sta:" + line);
    case 2:
        return written(WIRELESS_FILE,
                       "wlan0sta: 0000 " + quality + " " + strength + "\nwlan0sta: 0000 60. -50. -256\n"); // too short
    case 3:
        return written(WIRELESS_FILE, "wlan0sta: 0000 x y -256\n" + heading + " wlan0sta:" + line);
    case 4:
        return written(WIRELESS_FILE, "wlan0sta:0000 " + quality + " " + strength + " -256 0 0\n"); // no blank
    case 5:
        return written(WIRELESS_FILE, "");
    default:
        return written(WIRELESS_FILE, heading + "wlan1:  0000 10. -90. -256\nwlan0sta:" + line);
    }
}

Input any_lan_configuration(Random *random) {
    if (random->once_in(8)) {
        return random->once_in(3) ? made_folder(LAN_CONFIGURATION) : removed(LAN_CONFIGURATION);
    }
    std::string content =
        random->once_in(6) ? ""
                           : random->text_of({"[Link]\n", "[link]\n", "  [LINK]  \n", "[Match]\nName=eth0\n[Link]\n"});
    for (std::int64_t lines = random->below(5); lines > 0; --lines) {
        content += random->text_of({"Unmanaged=no\n",
                                    "Unmanaged=yes\n",
                                    "Unmanaged=false\n",
                                    "unmanaged : TRUE \n",
                                    "Unmanaged=maybe\n",
                                    "Unmanaged=1\n",
                                    "ActivationPolicy=up\n",
                                    "ActivationPolicy=always-up\n",
                                    "ACTIVATIONPOLICY=Always-Down\n",
                                    "ActivationPolicy=down\n",
                                    "ActivationPolicy = manual ; by hand\n",
                                    "ActivationPolicy=bound;now\n",
                                    "ActivationPolicy:bound\n",
                                    "# Unmanaged=yes\n",
                                    "; Unmanaged=yes\n",
                                    "\n",
                                    "  \t\n",
                                    "Unmanaged= ;no\n",
                                    "Unmanaged=\n",
                                    "=no\n",
                                    "MACAddress=0:1:2\n",
                                    "Unmanaged no ; = no\n",
                                    "garbage\n",
                                    "[Network]\n",
                                    "[Link\n",
                                    "[Link ;]\n",
                                    "[ Link]\n",
                                    "[Link]Unmanaged=yes\n",
                                    "Unmanaged=yes",
                                    "Unmanaged=no"});
    }
    if (random->once_in(15)) {
        content += "[" + std::string(45, 'x') + "Link]\nUnmanaged=yes\n";
    }
    if (random->once_in(15)) {
        content += random->text_of({"Name=", "Name "}) + std::string(random->of({4000U, 4090U, 4091U, 4200U}), 'y') +
                   "\nUnmanaged=no\n";
    }
    return written(LAN_CONFIGURATION, content);
}

Input any_wifi_configuration(Random *random) {
    switch (random->below(12)) {
    case 0:
        return removed(WIFI_CONFIGURATION);
    case 1:
        return made_folder(WIFI_CONFIGURATION);
    case 2:
        return written(WIFI_CONFIGURATION, "{\"enabled\": true, \"ssid\": \"" +
                                               std::string(random->of({10U, 2019U, 2020U, 2021U, 2022U, 3000U}), 's') +
                                               "\"}");
    case 3:
        return written(
            WIFI_CONFIGURATION,
            random->text_of({"", " ", "{\"enabled\":true}", "{\"enabled\":false}\n", "{}", "[]", "true", "true\n",
                             "\"enabled\"", "{\"a\":{\"enabled\":true}}", "{\"enabled\" true }", "{", "enabled true"}));
    case 4:
    case 5:
    case 6: {
        std::string content = random->once_in(5) ? "" : "{";
        for (std::int64_t pieces = random->below(random->once_in(5) ? 80 : 14); pieces > 0; --pieces) {
            content += random->text_of(
                {"{",     "}",      ":",           ",",         " ",       "\n",           "\"enabled\"",
                 "\"a\"", "\"a\":", "\"\\u00e4\"", "\"\\u0g\"", "\"\\x\"", "\"\\\"\"",     "true ",
                 "null,", "1",      "-2 ",         "false}",    "[",       "\x01",         "~",
                 "x",     "\"",     "\"b\":1,",    "\"c\":{",   "},",      "\"d\":\"e\",", "t\x7f,"});
        }
        return written(WIFI_CONFIGURATION, content + (random->once_in(3) ? "" : "}"));
    }
    default:
        return written(WIFI_CONFIGURATION, "in use\n");
    }
}

} // namespace model
