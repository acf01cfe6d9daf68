// The baseline: makes only the system calls of a pass over all tasks. It has the same libraries and number of
// threads as the daemon, and writes the daemon's own lines from tapes (support/line_tape.h).
//     bare_daemon LOGFILE DISK EMMC PERIOD_MS HEARTBEATS TAPE_OF_START TAPE_OF_PASS [hold]

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/mmc/ioctl.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

namespace {

constexpr std::array UNITS{"hostapd", "nginx", "ocppd", "rauc", "stationd", "wpa_5fsupplicant", "corvana_2dportapi"};

// One entry per task: those that check for a file, read its first line, or read all of it.
constexpr std::array LOOKED_AT{"/sys/class/net/eth0/operstate", "/sys/class/net/wlan0sta/operstate"};
constexpr std::array FIRST_LINES{"/sys/class/thermal/thermal_zone0/temp",
                                 "/proc/net/dev",
                                 "/proc/net/dev",
                                 "/sys/class/net/eth0/operstate",
                                 "/sys/class/net/wlan0sta/operstate",
                                 "/proc/net/wireless",
                                 "/proc/net/wireless",
                                 "/proc/stat",
                                 "/proc/stat"};

constexpr std::array DISKS{"/", "/tmp", "/run", "/var/lib/evse", "/var/lib/persistent", "/var/lib/parameter"};

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

/// A file of records, mapped until the program ends.
struct Tape {
    const char *begin;
    const char *end;
};

Tape map_tape(const char *path) {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (file < 0 || fstat(file, &status) != 0 || status.st_size == 0) {
        give_up(path);
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    const void *memory = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file, 0);
    if (memory == MAP_FAILED) {
        give_up(path);
    }
    close(file);
    const char *begin = static_cast<const char *>(memory);
    return {.begin = begin, .end = begin + size};
}

/// A record is five texts, each with its terminator.
void trace_lines(const Tape &tape) {
    const auto next = [](const char *text) { return text + std::strlen(text) + 1; };
    for (const char *priority = tape.begin; priority < tape.end;) {
        const char *file = next(priority);
        const char *line = next(file);
        const char *function = next(line);
        const char *message = next(function);
        sd_journal_print_with_location(*priority - '0', file, line, function, "%s\n", message);
        priority = next(message);
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
    for (const char *unit : UNITS) {
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

void pass(char *argv[], sd_bus *bus, int log, const Tape &lines) {
    ask_network(bus);
    for (const char *path : LOOKED_AT) {
        read_file(path, Reading::nothing);
    }
    for (const char *path : FIRST_LINES) {
        read_file(path, Reading::first_piece);
    }
    read_file("/proc/meminfo", Reading::all);
    for (const char *disk : DISKS) {
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
    const Tape lines = map_tape(argv[7]);
    trace_lines(map_tape(argv[6]));
    ask_units(bus, "LoadState");
    for (int i = std::atoi(argv[5]); i > 0; --i) { // NOLINT(cert-err34-c): arguments of our own
        pass(argv, bus, log, lines);
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
