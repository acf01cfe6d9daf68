#pragma once

// The network paths of a station: a board on which all are in use, and their checks.

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

/// The kernel's table for 1000 packets per interface with these losses.
std::string traffic_table(int lost_on_ethernet, int lost_on_wifi);
/// The kernel's table with this quality and level in its notation: "70.", "-20.".
std::string signal_table(const std::string &quality, const std::string &level);

/// A file's content; none for a missing file.
using Content = std::optional<std::string>;
void put(const Station &station, const std::string &file, const Content &content);

/// Runs heartbeats at the next `count` multiples of `period` seconds.
void samples(Station *station, int count, std::int64_t period);

/// A check of a link or of its traffic, with a good and a bad input.
struct LinkCheck {
    std::string issue; ///< "CB12"
    std::int64_t period;
    int delay; ///< samples until the state changes
    std::string file;
    Content good;
    Content bad;
    std::string good_value;
    std::string bad_value;
    std::string raised;  ///< priority and text of the sentence for the bad state
    std::string cleared; ///< and for the good state
};

inline void PrintTo(const LinkCheck &check, std::ostream *out) { *out << check.issue; }

std::vector<LinkCheck> lan_checks();
std::vector<LinkCheck> wifi_checks();
LinkCheck bluetooth_check();
