#pragma once

// The network paths of a station: a board on which all are in use.

#include "station.h"

#include <optional>
#include <string>

inline constexpr const char *LAN_SETTINGS = "/var/lib/evse/etc/systemd/network/eth0.network";
inline constexpr const char *WIFI_SETTINGS = "/var/lib/evse/portapi/wifi.conf";

/// A healthy board with LAN, WiFi and Bluetooth, all switched on.
Board connected_board();

/// A file's content; none for a missing file.
using Content = std::optional<std::string>;
void put(const Station &station, const std::string &file, const Content &content);

/// Runs heartbeats at the next `count` multiples of `period` seconds.
void samples(Station *station, int count, std::int64_t period);
