#include "bench_board.h"

#include "journal_sink.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/mount.h>
#include <unistd.h>

namespace {

constexpr std::array UNITS{"hostapd_2eservice",
                           "nginx_2eservice",
                           "ocppd_2eservice",
                           "rauc_2eservice",
                           "stationd_2eservice",
                           "wpa_5fsupplicant_2eservice",
                           "corvana_2dportapi_2eservice"};

constexpr std::array FOLDERS{"/sys",          "/proc/self/net",      "/var/lib",
                             "/var/lib/evse", "/var/lib/persistent", "/var/lib/parameter"};

struct BoardFile {
    const char *path;
    const char *content;
};

constexpr std::array FILES{
    BoardFile{"/sys/class/thermal/thermal_zone0/temp", "42999\n"},
    BoardFile{"/sys/class/bluetooth/hci0/power/runtime_status", "active\n"},
    BoardFile{"/sys/class/net/eth0/operstate", "up\n"},
    BoardFile{"/sys/class/net/wlan0sta/operstate", "up\n"},
    BoardFile{"/proc/self/net/wireless",
              "Inter-| sta-|   Quality        |   Discarded packets               | Missed | WE\n"
              " face | tus | link level noise |  nwid  crypt   frag  retry   misc | beacon | 22\n"
              "wlan0sta: 0000   70.  -25.  -256        0      0      0      0     45        0\n"},
    BoardFile{"/proc/self/net/dev",
              "Inter-|   Receive                                                |  Transmit\n"
              " face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo\n"
              "    lo:  180000     900    0    0    0     0          0         0   180000     900    0    0    0\n"
              "  eth0:  180000    9000    1    0    0     0          0         0    20000    1000    0    1    0\n"
              "wlan0sta: 180000   9000    1    0    0     0          0         0    20000    1000    0    1    0\n"},
    BoardFile{"/var/lib/evse/etc/systemd/network/eth0.network",
              "[Match]\nName=eth0\n[Link]\nUnmanaged=no\nActivationPolicy=up\n"},
    BoardFile{"/var/lib/evse/portapi/wifi.conf", "[]\n"},
};

[[noreturn]] void give_up(const std::string &what) {
    std::perror(what.c_str());
    std::exit(EXIT_FAILURE);
}

void write(const std::string &path, const char *content) {
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    std::ofstream(path) << content;
}

} // namespace

BenchBoard::BenchBoard() : bus_(std::make_unique<PrivateBus>()), systemd_(std::make_unique<FakeSystemd>(*bus_)) {
    for (const char *unit : UNITS) {
        systemd_->load(unit);
        systemd_->activate(unit);
    }
    systemd_->change_time("1000");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus_->address().c_str(), 1);
    if (!start_journal_sink()) {
        give_up("the journal's place");
    }
    for (const char *folder : FOLDERS) {
        std::error_code ignored;
        std::filesystem::create_directories(folder, ignored);
        if (mount("tmpfs", folder, "tmpfs", 0, nullptr) != 0) {
            give_up(folder);
        }
    }
    for (const BoardFile &file : FILES) {
        write(file.path, file.content);
    }
    write(emmc_, "");
    keep_to(own_processor_);
}

void share_board_network() {
    const std::string shared = "/proc/" + std::to_string(getppid()) + "/net";
    if (mount(shared.c_str(), "/proc/self/net", nullptr, MS_BIND, nullptr) != 0) {
        give_up(shared);
    }
}
