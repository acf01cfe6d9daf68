#include "network_paths.h"

#include "station_life.h"

#include <filesystem>

namespace {

// As the kernel writes them.
constexpr const char *TRAFFIC =
    "Inter-|   Receive                                                |  Transmit\n"
    " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls carrier "
    "compressed\n"
    "  eth0: 90000 900 0 0 0 0 0 0 10000 100 0 0 0 0 0 0\n"
    "  wlan0sta: 90000 900 0 0 0 0 0 0 10000 100 0 0 0 0 0 0\n";
constexpr const char *SIGNAL = "Inter-| sta-|   Quality        |   Discarded packets               | Missed | WE\n"
                               " face | tus | link level noise |  nwid  crypt   frag  retry   misc | beacon | 22\n"
                               "wlan0sta: 0000   70.  -20.  -256        0      0      0      0     45        0\n";

} // namespace

Board connected_board() {
    return even_board()
        .file(LAN_SETTINGS, "[Link]\nUnmanaged=no\n")
        .file(WIFI_SETTINGS, "on")
        .file("/sys/class/net/wlan0sta/operstate", "up\n")
        .file("/proc/net/dev", TRAFFIC)
        .file("/proc/net/wireless", SIGNAL);
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
