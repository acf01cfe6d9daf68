#include "network_paths.h"

#include "station_life.h"

#include <filesystem>

namespace {

std::string traffic_line(const std::string &interface, int lost) {
    return "  " + interface + ": 90000 900 " + std::to_string(lost) + " 0 0 0 0 0 10000 100 0 0 0 0 0 0\n";
}

} // namespace

Board connected_board() {
    return even_board()
        .file(LAN_SETTINGS, "[Link]\nUnmanaged=no\n")
        .file(WIFI_SETTINGS, "on")
        .file(WIRELESS_FILE, "up\n")
        .file(TRAFFIC_FILE, traffic_table(0, 0))
        .file(SIGNAL_FILE, signal_table("70.", "-20."));
}

std::string traffic_table(int lost_on_ethernet, int lost_on_wifi) {
    return "Inter-|   Receive                                                |  Transmit\n"
           " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls "
           "carrier compressed\n" +
           traffic_line("eth0", lost_on_ethernet) + traffic_line("wlan0sta", lost_on_wifi);
}

std::string signal_table(const std::string &quality, const std::string &level) {
    return "Inter-| sta-|   Quality        |   Discarded packets               | Missed | WE\n"
           " face | tus | link level noise |  nwid  crypt   frag  retry   misc | beacon | 22\n"
           "wlan0sta: 0000   " +
           quality + "  " + level + "  -256        0      0      0      0     45        0\n";
}

void put(const Station &station, const std::string &file, const Content &content) {
    if (content) {
        station.files().write(file, *content);
    } else {
        std::error_code ignored;
        std::filesystem::remove(station.files().host_path(file), ignored);
    }
}

void samples(Station *station, int count, std::int64_t period) {
    for (int i = 0; i < count; ++i) {
        station->step(period - station->clock() % period);
    }
}

// 1000 packets count as 1 without losses, and as 100 * (100 + 20 - 1) / 1000 with 100 lost ones.
std::vector<LinkCheck> lan_checks() {
    return {{.issue = "CB10",
             .period = 60,
             .delay = 10,
             .file = TRAFFIC_FILE,
             .good = traffic_table(0, 0),
             .bad = traffic_table(100, 0),
             .good_value = "1",
             .bad_value = "11",
             .raised = "3 [failed] ID: CB10[0]: value: 11 internet connection via ethernet above 10 threshold.",
             .cleared = "5 [notice] ID: CB10[0]: value: 1 internet connection via ethernet at normal threshold."},
            {.issue = "CB11",
             .period = 60,
             .delay = 10,
             .file = ETHERNET_FILE,
             .good = "up\n",
             .bad = std::nullopt,
             .good_value = "0",
             .bad_value = "1",
             .raised = "3 [failed] ID: CB11[0]: value: 1 Ethernet hardware not available or not usable.",
             .cleared = "5 [notice] ID: CB11[0]: value: 0 Ethernet hardware available and usable."},
            {.issue = "CB12",
             .period = 60,
             .delay = 10,
             .file = ETHERNET_FILE,
             .good = "up\n",
             .bad = "down\n",
             .good_value = "0",
             .bad_value = "1",
             .raised = "3 [failed] ID: CB12[0]: value: 1 Ethernet connection could not be established.",
             .cleared = "5 [notice] ID: CB12[0]: value: 0 Ethernet connection is established."}};
}

// The wireless checks log the interface's name instead of a sentence.
std::vector<LinkCheck> wifi_checks() {
    return {{.issue = "CB13",
             .period = 60,
             .delay = 10,
             .file = TRAFFIC_FILE,
             .good = traffic_table(0, 0),
             .bad = traffic_table(0, 100),
             .good_value = "1",
             .bad_value = "11",
             .raised = "3 [failed] ID: CB13[0]: value: 11 An internet connection via WiFi above 10 threshold.",
             .cleared = "5 [notice] ID: CB13[0]: value: 1 An internet connection via WiFi at normal threshold."},
            {.issue = "CB01",
             .period = 60,
             .delay = 10,
             .file = WIRELESS_FILE,
             .good = "up\n",
             .bad = std::nullopt,
             .good_value = "0",
             .bad_value = "1",
             .raised = "3 [failed] ID: CB01[0]: value: 1 wlan0sta: ",
             .cleared = "5 [notice] ID: CB01[0]: value: 0 wlan0sta: "},
            {.issue = "CB02",
             .period = 60,
             .delay = 10,
             .file = WIRELESS_FILE,
             .good = "up\n",
             .bad = "dormant\n",
             .good_value = "0",
             .bad_value = "1",
             .raised = "3 [failed] ID: CB02[0]: value: 1 wlan0sta: ",
             .cleared = "5 [notice] ID: CB02[0]: value: 0 wlan0sta: "},
            {.issue = "CB04",
             .period = 60,
             .delay = 10,
             .file = SIGNAL_FILE,
             .good = signal_table("70.", "-20."),
             .bad = signal_table("30.", "-20."),
             .good_value = "70",
             .bad_value = "30",
             .raised = "3 [failed] ID: CB04[0]: value: 30 wlan0sta: ",
             .cleared = "5 [notice] ID: CB04[0]: value: 70 wlan0sta: "},
            {.issue = "CB09",
             .period = 10,
             .delay = 4,
             .file = SIGNAL_FILE,
             .good = signal_table("70.", "-20."),
             .bad = signal_table("70.", "-70."),
             .good_value = "-20",
             .bad_value = "-70",
             .raised = "3 [failed] ID: CB09[0]: value: -70 wlan0sta: ",
             .cleared = "5 [notice] ID: CB09[0]: value: -20 wlan0sta: "}};
}

LinkCheck bluetooth_check() {
    return {.issue = "CB05",
            .period = 60,
            .delay = 10,
            .file = BLUETOOTH_FILE,
            .good = "active\n",
            .bad = std::nullopt,
            .good_value = "0",
            .bad_value = "1",
            .raised = "3 [failed] ID: CB05[0]: value: 1 Bluetooth hardware is not available.",
            .cleared = "5 [notice] ID: CB05[0]: value: 0 Bluetooth hardware is available."};
}
