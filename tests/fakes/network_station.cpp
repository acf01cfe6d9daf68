#include "network_station.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>

namespace {

constexpr const char *LAN_FILE = "/var/lib/evse/etc/systemd/network/eth0.network";
constexpr const char *WIFI_FILE = "/var/lib/evse/portapi/wifi.conf";

constinit const ScratchFolder *station = nullptr;
constinit NetworkCalls calls;

} // namespace

extern "C" {
int __real_open64(const char *path, int flags, ...);
int __real_sd_bus_process(sd_bus *bus, sd_bus_message **message);

int __wrap_open64(const char *path, int flags, ...) {
    const bool lan = std::strcmp(path, LAN_FILE) == 0;
    if (station == nullptr || (!lan && std::strcmp(path, WIFI_FILE) != 0)) {
        return __real_open64(path, flags, 0600);
    }
    ++(lan ? calls.lan_opened : calls.wifi_opened);
    calls.all_close_on_exec = calls.all_close_on_exec && (flags & O_CLOEXEC) != 0;
    return __real_open64((*station / (lan ? "lan" : "wifi")).c_str(), flags);
}

int __wrap_sd_bus_process(sd_bus *bus, sd_bus_message **message) {
    ++calls.processed;
    return __real_sd_bus_process(bus, message);
}
}

void use_system_bus(const std::string &address) { setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1); }

const NetworkCalls &network_calls() { return calls; }

Station::Station() {
    use_system_bus("unix:path=" + (folder / "nowhere"));
    station = &folder;
    calls = {};
}

Station::~Station() { station = nullptr; }

void Station::remove(const std::string &name) const { std::filesystem::remove_all(folder / name); }

bool Station::reads() const {
    const NetworkCalls before = calls;
    EXPECT_EQ(network_check_daemon(), 0);
    const int opened = calls.lan_opened - before.lan_opened;
    EXPECT_EQ(calls.wifi_opened - before.wifi_opened, opened) << "both or none";
    EXPECT_LE(opened, 1);
    return opened != 0;
}

std::int32_t Station::lan_after(const std::string &content) const {
    lan(content);
    EXPECT_TRUE(reads());
    return lan_available;
}

std::int32_t Station::wifi_after(const std::string &content) const {
    wifi(content);
    EXPECT_TRUE(reads());
    return wifi_available;
}
