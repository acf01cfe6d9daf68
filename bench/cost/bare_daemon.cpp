// The floor: what a pass over all tasks asks of the system, and nothing else. It has the daemon's
// libraries and as many threads.
//     bare_daemon LOGFILE DISK EMMC PERIOD_MS HEARTBEATS LINES LINES_AT_START [hold]

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/mmc/ioctl.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

namespace {

constexpr std::array units{"hostapd", "nginx", "ocppd", "rauc", "stationd", "wpa_5fsupplicant", "corvana_2dportapi"};

// As often as the tasks that look at them, that read the first line, and that read all.
constexpr std::array looked_at{"/sys/class/net/eth0/operstate", "/sys/class/net/wlan0sta/operstate"};
constexpr std::array first_lines{"/sys/class/thermal/thermal_zone0/temp",
                                 "/proc/net/dev",
                                 "/proc/net/dev",
                                 "/sys/class/net/eth0/operstate",
                                 "/sys/class/net/wlan0sta/operstate",
                                 "/proc/net/wireless",
                                 "/proc/net/wireless",
                                 "/proc/stat",
                                 "/proc/stat"};

constexpr std::array disks{"/", "/tmp", "/run", "/var/lib/evse", "/var/lib/persistent", "/var/lib/parameter"};

constexpr int RECORDS = 23;

[[noreturn]] void give_up(const char *what) {
    std::perror(what);
    std::exit(1);
}

void *sleep_on(void * /*unused*/) {
    while (true) {
        pause();
    }
}

void trace_lines(int count) {
    for (int i = 0; i < count; ++i) {
        sd_journal_print_with_location(7, "CODE_FILE=scheduler.c", "CODE_LINE=180", "threshold_analyzer", "%s\n",
                                       "(3) [100000] 12:00:00 analyzer.c: threshold_analyzer(180) analyze ID: CB22");
    }
}

enum class Reading { nothing, first_piece, all };

void read_file(const char *path, Reading reading) {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        give_up(path);
    }
    char text[4096];
    while (reading != Reading::nothing && read(file, text, sizeof text) > 0 && reading == Reading::all) {
    }
    close(file);
}

void ask_disk(const char *path) {
    struct stat status {};
    struct statvfs system {};
    if (stat(path, &status) != 0 || statvfs(path, &system) != 0) {
        give_up(path);
    }
}

void ask_emmc(const char *device) {
    mmc_ioc_cmd command{};
    const int file = open(device, O_RDONLY | O_CLOEXEC);
    if (file < 0 || ioctl(file, MMC_IOC_CMD, &command) == 0) {
        give_up(device);
    }
    close(file);
}

constexpr const char *SYSTEMD = "org.freedesktop.systemd1";
constexpr const char *UNIT = "org.freedesktop.systemd1.Unit";

void ask_units(sd_bus *bus, const char *property) {
    for (const char *unit : units) {
        char path[1024];
        std::snprintf(path, sizeof path, "/org/freedesktop/systemd1/unit/%s_2eservice", unit);
        char *text = nullptr;
        if (sd_bus_get_property_string(bus, SYSTEMD, path, UNIT, property, nullptr, &text) < 0) {
            give_up(path);
        }
        std::free(text);
    }
}

void ask_network(sd_bus *bus) {
    std::uint64_t number = 0;
    sd_bus_get_property_trivial(bus, SYSTEMD, "/org/freedesktop/systemd1/unit/systemd_2dnetworkd_2eservice", UNIT,
                                "StateChangeTimestampMonotonic", nullptr, 't', &number);
}

void write_records(int log) {
    constexpr const char *record = "2024-03-01 12:00:00\tOK\tCB22\t0\t50\n";
    for (int i = 0; i < RECORDS; ++i) {
        if (write(log, record, std::strlen(record)) < 0 || lseek(log, 0, SEEK_END) < 0) {
            give_up("log");
        }
    }
}

void pass(char *argv[], sd_bus *bus, int log, int lines) {
    ask_network(bus);
    for (const char *path : looked_at) {
        read_file(path, Reading::nothing);
    }
    for (const char *path : first_lines) {
        read_file(path, Reading::first_piece);
    }
    read_file("/proc/meminfo", Reading::all);
    for (const char *disk : disks) {
        ask_disk(disk);
    }
    ask_disk(argv[2]);
    ask_disk(argv[2]);
    ask_emmc(argv[3]);
    if (access("/sys/class/bluetooth/hci0/power/runtime_status", F_OK) != 0) {
        give_up("bluetooth");
    }
    ask_units(bus, "ActiveState");
    write_records(log);
    trace_lines(lines);
}

} // namespace

int main(int argc, char *argv[]) {
    if (argc < 8) {
        return 2;
    }
    const int log = open(argv[1], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    pthread_t thread{};
    pthread_create(&thread, nullptr, sleep_on, nullptr);
    pthread_create(&thread, nullptr, sleep_on, nullptr);
    sd_bus *bus = nullptr;
    if (sd_bus_default_system(&bus) < 0) {
        give_up("bus");
    }
    trace_lines(std::atoi(argv[7])); // NOLINT(cert-err34-c): the bench's own
    ask_units(bus, "LoadState");
    for (int i = std::atoi(argv[5]); i > 0; --i) {                     // NOLINT(cert-err34-c)
        pass(argv, bus, log, std::atoi(argv[6]));                      // NOLINT(cert-err34-c)
        if (const int period_ms = std::atoi(argv[4]); period_ms > 0) { // NOLINT(cert-err34-c)
            usleep(static_cast<useconds_t>(period_ms) * 1000);
        }
    }
    if (argc > 8) {
        std::puts("done");
        std::fflush(stdout);
        pause();
    }
    std::quick_exit(0);
}
