#pragma once

// The network paths of a station: a board on which all are in use, and the checks that watch over them.

#include "station.h"

#include <optional>
#include <ostream>
#include <string>
#include <vector>

inline constexpr const char *LAN_SETTINGS = "/var/lib/evse/etc/systemd/network/eth0.network";
inline constexpr const char *WIFI_SETTINGS = "/var/lib/evse/portapi/wifi.conf";
inline constexpr const char *BLUETOOTH_FILE = "/sys/class/bluetooth/hci0/power/runtime_status";
inline constexpr const char *ETHERNET_FILE = "/sys/class/net/eth0/operstate";
inline constexpr const char *WIRELESS_FILE = "/sys/class/net/wlan0sta/operstate";
inline constexpr const char *TRAFFIC_FILE = "/proc/net/dev";
inline constexpr const char *SIGNAL_FILE = "/proc/net/wireless";

/// A healthy board with LAN, WiFi and Bluetooth, all switched on.
Board connected_board();

/// The kernel's table of 1000 packets an interface, of which so many were lost.
std::string traffic_table(int lost_on_ethernet, int lost_on_wifi);
/// The kernel's table with this quality and level, as it writes them: "70.", "-20.".
std::string signal_table(const std::string &quality, const std::string &level);

/// A file's content; none when it is missing.
using Content = std::optional<std::string>;
void put(const Station &station, const std::string &file, const Content &content);

/// Goes on to the `count` next multiples of `period` seconds.
void samples(Station *station, int count, std::int64_t period);

/// A check of a link or of what goes over it, with an input that is good and one that is not.
struct LinkCheck {
    std::string issue; ///< "CB12"
    std::int64_t period;
    int delay; ///< samples until the state changes
    std::string file;
    Content good;
    Content bad;
    std::string good_value;
    std::string bad_value;
    std::string raised;  ///< priority and text of the sentence when the state turns bad
    std::string cleared; ///< and when it turns good
};

inline void PrintTo(const LinkCheck &check, std::ostream *out) { *out << check.issue; }

std::vector<LinkCheck> lan_checks();
std::vector<LinkCheck> wifi_checks();
LinkCheck bluetooth_check();
