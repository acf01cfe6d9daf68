#include "tasks.h"

#include "analyzer.h"
#include "builtin.h"
#include "logger.h"
#include "notifier.h"

#include <cstddef>
#include <iterator>

namespace {

constexpr std::uint32_t COMMON_FLAGS = TASK_RUNNABLE | TASK_HAS_SOURCE | TASK_HAS_ANALYZE | TASK_HAS_NOTIFY |
                                       TASK_HAS_LOGGING | TASK_HAS_ID | TASK_HAS_INTERVAL | TASK_HAS_HYSTERESIS |
                                       TASK_HAS_DELAY | TASK_BUILTIN;
constexpr std::uint32_t MINF = TASK_HAS_MINFAIL;
constexpr std::uint32_t MINW = TASK_HAS_MINWARN;
constexpr std::uint32_t MAXW = TASK_HAS_MAXWARN;
constexpr std::uint32_t MAXF = TASK_HAS_MAXFAIL;
constexpr std::uint32_t FMT = TASK_HAS_FORMAT;
constexpr std::uint32_t PAR = TASK_HAS_PARAMETER;

/// The name and the operations of a probe.
struct Probe {
    const char *name;
    TaskOperation init;
    TaskOperation exec;
};

constexpr Probe TEMPERATURE{"temperature", temperature_init, temperature_exec};
constexpr Probe BLUETOOTH{"bluetooth", bluetooth_init, bluetooth_exec};
constexpr Probe INTERNET{"internet", internet_init, internet_exec};
constexpr Probe ETHERNET{"ethernet", ethernet_init, ethernet_exec};
constexpr Probe MEMORYUSAGE{"memoryusage", memoryusage_init, memoryusage_exec};
constexpr Probe WEAROUT{"wearout", wearout_init, wearout_exec};
constexpr Probe WIRELESS{"wireless", wireless_init, wireless_exec};
constexpr Probe DISKUSAGE{"diskusage", diskusage_init, diskusage_exec};
constexpr Probe SERVICE{"service", service_init, service_exec};
constexpr Probe LOAD{"load", load_init, load_exec};

constexpr NamedOperation A_COMMON{common_analyzer, "common"};
constexpr NamedOperation A_BOOL{bool_analyzer, "bool"};
constexpr NamedOperation A_THRESHOLD{threshold_analyzer, "threshold"};

constexpr NamedOperation N_COMMON{common_notifier, "common"};

constexpr NamedOperation L_COMMON{common_logger, "common"};
constexpr NamedOperation L_THRESHOLD{threshold_logger, "threshold"};
constexpr NamedOperation L_BLUETOOTH{bluetooth_logger, "bluetooth"};
constexpr NamedOperation L_ETHERNET{ethernet_logger, "ethernet"};
constexpr NamedOperation L_WIRELESS{wireless_logger, "wireless"};
constexpr NamedOperation L_SERVICE{service_logger, "service"};
constexpr NamedOperation L_LOAD{load_logger, "load"};

struct Row {
    Probe probe;
    std::int32_t id;
    std::int32_t index;
    NamedOperation analyze;
    NamedOperation logging;
    std::int32_t interval;
    std::int32_t minfail;
    std::int32_t minwarn;
    std::int32_t maxwarn;
    std::int32_t maxfail;
    std::int32_t hysteresis;
    std::int32_t delay;
    std::uint32_t flags;
    const char *parameter;
    const char *format;
};

constexpr const char *BT = "/sys/class/bluetooth/hci0/power/runtime_status";
constexpr const char *ETH0 = "/sys/class/net/eth0/operstate";
constexpr const char *LAN = "internet connection via ethernet %D %T threshold.";
constexpr const char *WIFI = "An internet connection via WiFi %D %T threshold.";
constexpr const char *SPACE = "%P: free space %D %T threshold.";
constexpr const char *UNITS = "hostapd nginx ocppd rauc stationd wpa_supplicant corvana-portapi";
constexpr const char *LOADER = "/usr/bin/load_logger -t 10 -c 120 -d /var/lib/evse/vigmond/";

// In a format, %P is the parameter, %D "above", "below" or "at", %T the limit or "normal" (logger.cpp).
// Kept: "/rw-root" is listed twice, the wireless rows' format is the interface name, the two internet
// sentences differ, and CB09 warns almost always.
// clang-format off
constexpr Row ROWS[]{
    // probe      id  idx analyze      logging      sec   minf minw maxw maxf hys del further flags                       parameter, format
    {TEMPERATURE, 20, 0, A_COMMON,    L_COMMON,    10,   -40, -30, 70, 80, 5,  5,  MINF | MINW | MAXW | MAXF | FMT | PAR, "/sys/class/thermal/thermal_zone0/temp", "CPU temperature %D %T threshold."},
    {BLUETOOTH,   5,  0, A_BOOL,      L_BLUETOOTH, 60,   0,   0,   0,  1,  0,  10, MAXF | PAR,                            BT,                     nullptr},
    {INTERNET,    10, 0, A_COMMON,    L_COMMON,    60,   0,   0,   5,  10, 2,  10, MAXW | MAXF | FMT | PAR,               "eth0",                 LAN},
    {INTERNET,    13, 0, A_COMMON,    L_COMMON,    60,   0,   0,   5,  10, 2,  10, MAXW | MAXF | FMT | PAR,               "wlan0sta",             WIFI},
    {ETHERNET,    11, 0, A_BOOL,      L_ETHERNET,  60,   0,   0,   0,  1,  0,  10, MAXF | PAR,                            ETH0,                   nullptr},
    {ETHERNET,    12, 0, A_BOOL,      L_ETHERNET,  60,   0,   0,   0,  1,  0,  10, MAXF | PAR,                            ETH0,                   nullptr},
    {MEMORYUSAGE, 21, 0, A_THRESHOLD, L_THRESHOLD, 10,   10,  25,  0,  0,  10, 5,  MINF | MINW | FMT,                     nullptr,                "free memory %D %T threshold."},
    {WEAROUT,     7,  0, A_COMMON,    L_COMMON,    3600, 0,   0,   50, 90, 5,  1,  MAXW | MAXF | FMT | PAR,               "/dev/mmcblk1",         "eMMC %P: wearout %D %T threshold."},
    {WIRELESS,    1,  0, A_BOOL,      L_WIRELESS,  60,   0,   0,   0,  1,  0,  10, MAXF | FMT | PAR,                      "wlan0sta",             "wlan0sta"},
    {WIRELESS,    2,  0, A_BOOL,      L_WIRELESS,  60,   0,   0,   0,  1,  0,  10, MAXF | FMT | PAR,                      "wlan0sta",             "wlan0sta"},
    {WIRELESS,    4,  0, A_THRESHOLD, L_WIRELESS,  60,   30,  50,  0,  0,  5,  10, MINF | MINW | FMT | PAR,               "wlan0sta",             "wlan0sta"},
    {WIRELESS,    9,  0, A_THRESHOLD, L_WIRELESS,  10,   -70, -30, 0,  0,  5,  4,  MINF | MINW | FMT | PAR,               "wlan0sta",             "wlan0sta"},
    {DISKUSAGE,   22, 0, A_COMMON,    L_COMMON,    900,  10,  25,  0,  0,  5,  5,  MINF | MINW | FMT | PAR,               "/rw-root",             SPACE},
    {DISKUSAGE,   22, 1, A_COMMON,    L_COMMON,    900,  10,  25,  0,  0,  5,  5,  MINF | MINW | FMT | PAR,               "/",                    SPACE},
    {DISKUSAGE,   22, 2, A_COMMON,    L_COMMON,    900,  10,  25,  0,  0,  5,  5,  MINF | MINW | FMT | PAR,               "/rw-root",             SPACE},
    {DISKUSAGE,   22, 3, A_COMMON,    L_COMMON,    900,  10,  25,  0,  0,  5,  5,  MINF | MINW | FMT | PAR,               "/tmp",                 SPACE},
    {DISKUSAGE,   22, 4, A_COMMON,    L_COMMON,    900,  10,  25,  0,  0,  5,  5,  MINF | MINW | FMT | PAR,               "/run",                 SPACE},
    {DISKUSAGE,   22, 5, A_COMMON,    L_COMMON,    900,  10,  25,  0,  0,  5,  5,  MINF | MINW | FMT | PAR,               "/var/lib/evse",        SPACE},
    {DISKUSAGE,   22, 6, A_COMMON,    L_COMMON,    900,  10,  25,  0,  0,  5,  5,  MINF | MINW | FMT | PAR,               "/var/lib/persistent",  SPACE},
    {DISKUSAGE,   22, 7, A_COMMON,    L_COMMON,    900,  10,  25,  0,  0,  5,  5,  MINF | MINW | FMT | PAR,               "/var/lib/parameter",   SPACE},
    {SERVICE,     23, 0, A_BOOL,      L_SERVICE,   10,   0,   0,   0,  1,  0,  10, MAXF | PAR,                            UNITS,                  nullptr},
    {LOAD,        31, 0, A_COMMON,    L_LOAD,      180,  0,   0,   75, 0,  5,  5,  MAXW | PAR,                            LOADER,                 nullptr},
    {LOAD,        32, 0, A_COMMON,    L_LOAD,      180,  0,   0,   0,  90, 5,  5,  MAXF | PAR,                            LOADER,                 nullptr},
};
// clang-format on

constexpr std::size_t TASK_COUNT = std::size(ROWS);

struct Table {
    Task tasks[TASK_COUNT];
};

extern Table table;

consteval Task make_task(std::size_t number) {
    const Row &row = ROWS[number];
    return {
        .next = number + 1 < TASK_COUNT ? &table.tasks[number + 1] : nullptr,
        .prev = number > 0 ? &table.tasks[number - 1] : nullptr,
        .flags = COMMON_FLAGS | row.flags,
        .init = row.probe.init,
        .precondition = nullptr,
        .cleanup = nullptr,
        .exec = row.probe.exec,
        .source = row.probe.name,
        .analyze = row.analyze,
        .notify = N_COMMON,
        .logging = row.logging,
        .name = row.probe.name,
        .id = row.id,
        .index = row.index,
        .interval = row.interval,
        .minfail = row.minfail,
        .minwarn = row.minwarn,
        .maxwarn = row.maxwarn,
        .maxfail = row.maxfail,
        .hysteresis = row.hysteresis,
        .delay = row.delay,
        .parameter = row.parameter,
        .format = row.format,
        .next_run = 0,
        .value = 0,
        .error = 0,
        .child_pid = 0,
        .counter_minfail = 0,
        .counter_minwarn = 0,
        .counter_ok = 0,
        .counter_maxwarn = 0,
        .counter_maxfail = 0,
        .state = 0,
        .analyzable = 1,
        .do_notify = 0,
        .do_log = 0,
        .do_logfile = 1,
    };
}

consteval Table make_table() {
    Table made{};
    for (std::size_t number = 0; number < TASK_COUNT; ++number) {
        made.tasks[number] = make_task(number);
    }
    return made;
}

constinit Table table = make_table();

} // namespace

TaskList builtin_tasks() {
    return {
        .first = &table.tasks[0], .last = &table.tasks[TASK_COUNT - 1], .count = static_cast<std::int32_t>(TASK_COUNT)};
}
