#include "checks.h"

#include <array>
#include <cstdio>

namespace model {

namespace {

constexpr std::nullopt_t NA = std::nullopt;

const std::string DISK = "%P: free space %D %T threshold.";
const std::string LOGGER = "/usr/bin/load_logger -t 10 -c 120 -d /var/lib/evse/vigmond/";
const std::string LINK = "/sys/class/net/eth0/operstate";
const std::string UNITS = "hostapd nginx ocppd rauc stationd wpa_supplicant corvana-portapi";

} // namespace

std::vector<Check> built_in_checks() {
    using enum Probe;
    using enum Analyzer;
    // clang-format off
    return {
        //                                               every  minf minw maxw maxf hys delay
        {temperature, "temperature", 20, 0, threshold,   10, -40, -30,  70,  80,  5,  5, "/sys/class/thermal/thermal_zone0/temp", "CPU temperature %D %T threshold."},
        {bluetooth,   "bluetooth",    5, 0, truth,       60,  NA,  NA,  NA,   1,  0, 10, "/sys/class/bluetooth/hci0/power/runtime_status", ""},
        {internet,    "internet",    10, 0, threshold,   60,  NA,  NA,   5,  10,  2, 10, "eth0", "internet connection via ethernet %D %T threshold."},
        {internet,    "internet",    13, 0, threshold,   60,  NA,  NA,   5,  10,  2, 10, "wlan0sta", "An internet connection via WiFi %D %T threshold."},
        {ethernet,    "ethernet",    11, 0, truth,       60,  NA,  NA,  NA,   1,  0, 10, LINK, ""},
        {ethernet,    "ethernet",    12, 0, truth,       60,  NA,  NA,  NA,   1,  0, 10, LINK, ""},
        {memoryusage, "memoryusage", 21, 0, threshold,   10,  10,  25,  NA,  NA, 10,  5, NA, "free memory %D %T threshold."},
        {wearout,     "wearout",      7, 0, threshold, 3600,  NA,  NA,  50,  90,  5,  1, "/dev/mmcblk1", "eMMC %P: wearout %D %T threshold."},
        {wireless,    "wireless",     1, 0, truth,       60,  NA,  NA,  NA,   1,  0, 10, "wlan0sta", "wlan0sta"},
        {wireless,    "wireless",     2, 0, truth,       60,  NA,  NA,  NA,   1,  0, 10, "wlan0sta", "wlan0sta"},
        {wireless,    "wireless",     4, 0, threshold,   60,  30,  50,  NA,  NA,  5, 10, "wlan0sta", "wlan0sta"},
        {wireless,    "wireless",     9, 0, threshold,   10, -70, -30,  NA,  NA,  5,  4, "wlan0sta", "wlan0sta"},
        {diskusage,   "diskusage",   22, 0, threshold,  900,  10,  25,  NA,  NA,  5,  5, "/rw-root", DISK},
        {diskusage,   "diskusage",   22, 1, threshold,  900,  10,  25,  NA,  NA,  5,  5, "/", DISK},
        {diskusage,   "diskusage",   22, 2, threshold,  900,  10,  25,  NA,  NA,  5,  5, "/rw-root", DISK},
        {diskusage,   "diskusage",   22, 3, threshold,  900,  10,  25,  NA,  NA,  5,  5, "/tmp", DISK},
        {diskusage,   "diskusage",   22, 4, threshold,  900,  10,  25,  NA,  NA,  5,  5, "/run", DISK},
        {diskusage,   "diskusage",   22, 5, threshold,  900,  10,  25,  NA,  NA,  5,  5, "/var/lib/evse", DISK},
        {diskusage,   "diskusage",   22, 6, threshold,  900,  10,  25,  NA,  NA,  5,  5, "/var/lib/persistent", DISK},
        {diskusage,   "diskusage",   22, 7, threshold,  900,  10,  25,  NA,  NA,  5,  5, "/var/lib/parameter", DISK},
        {service,     "service",     23, 0, truth,       10,  NA,  NA,  NA,   1,  0, 10, UNITS, ""},
        {load,        "load",        31, 0, threshold,  180,  NA,  NA,  75,  NA,  5,  5, LOGGER, ""},
        {load,        "load",        32, 0, threshold,  180,  NA,  NA,  NA,  90,  5,  5, LOGGER, ""},
    };
    // clang-format on
}

std::string label_of(const Check &check) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "CB%02d", check.id);
    return text.data();
}

std::string issue_of(const Check &check) { return label_of(check) + "[" + std::to_string(check.index) + "]"; }

std::string command_line_of(const Settings &settings) {
    std::string text = "vigmond";
    for (const std::string &argument : settings.arguments) {
        text += " \"" + argument + "\"";
    }
    return text;
}

} // namespace model
