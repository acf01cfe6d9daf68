#include "tasks.h"

#include "analyzer.h"
#include "builtin.h"
#include "logger.h"
#include "notifier.h"

#include <cstddef>

namespace {

constexpr std::size_t TASK_COUNT = 23;

constexpr std::uint32_t COMMON_FLAGS = TASK_RUNNABLE | TASK_HAS_SOURCE | TASK_HAS_ANALYZE | TASK_HAS_NOTIFY |
                                       TASK_HAS_LOGGING | TASK_HAS_ID | TASK_HAS_INTERVAL | TASK_HAS_HYSTERESIS |
                                       TASK_HAS_DELAY | TASK_BUILTIN;
constexpr std::uint32_t MINF = TASK_HAS_MINFAIL;
constexpr std::uint32_t MINW = TASK_HAS_MINWARN;
constexpr std::uint32_t MAXW = TASK_HAS_MAXWARN;
constexpr std::uint32_t MAXF = TASK_HAS_MAXFAIL;
constexpr std::uint32_t FMT = TASK_HAS_FORMAT;
constexpr std::uint32_t PAR = TASK_HAS_PARAMETER;

/// What sets a probe's tasks apart from other probes'.
struct Probe {
    const char *name;
    TaskOperation init;
    TaskOperation exec;
};

constexpr Probe temperature{"temperature", temperature_init, temperature_exec};
constexpr Probe bluetooth{"bluetooth", bluetooth_init, bluetooth_exec};
constexpr Probe internet{"internet", internet_init, internet_exec};
constexpr Probe ethernet{"ethernet", ethernet_init, ethernet_exec};
constexpr Probe memoryusage{"memoryusage", memoryusage_init, memoryusage_exec};
constexpr Probe wearout{"wearout", wearout_init, wearout_exec};
constexpr Probe wireless{"wireless", wireless_init, wireless_exec};
constexpr Probe diskusage{"diskusage", diskusage_init, diskusage_exec};
constexpr Probe service{"service", service_init, service_exec};
constexpr Probe load{"load", load_init, load_exec};

constexpr NamedOperation a_common{common_analyzer, "common"};
constexpr NamedOperation a_bool{bool_analyzer, "bool"};
constexpr NamedOperation a_threshold{threshold_analyzer, "threshold"};

constexpr NamedOperation n_common{common_notifier, "common"};

constexpr NamedOperation l_common{common_logger, "common"};
constexpr NamedOperation l_threshold{threshold_logger, "threshold"};
constexpr NamedOperation l_bluetooth{bluetooth_logger, "bluetooth"};
constexpr NamedOperation l_ethernet{ethernet_logger, "ethernet"};
constexpr NamedOperation l_wireless{wireless_logger, "wireless"};
constexpr NamedOperation l_service{service_logger, "service"};
constexpr NamedOperation l_load{load_logger, "load"};

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

// What looks odd here is deliberate: "/rw-root" stands twice, the wireless rows' format is
// the interface name, the two internet sentences differ, and CB09 warns almost always.
// clang-format off
constexpr Row rows[TASK_COUNT]{
    // probe      id  idx analyze      logging      sec   minf minw maxw maxf hys del further flags                       parameter, format
    {temperature, 20, 0, a_common,    l_common,    10,   -40, -30, 70, 80, 5,  5,  MINF | MINW | MAXW | MAXF | FMT | PAR, "/sys/class/thermal/thermal_zone0/temp", "CPU temperature %D %T threshold."},
    {bluetooth,   5,  0, a_bool,      l_bluetooth, 60,   0,   0,   0,  1,  0,  10, MAXF | PAR,                            BT,                     nullptr},
    {internet,    10, 0, a_common,    l_common,    60,   0,   0,   5,  10, 2,  10, MAXW | MAXF | FMT | PAR,               "eth0",                 LAN},
    {internet,    13, 0, a_common,    l_common,    60,   0,   0,   5,  10, 2,  10, MAXW | MAXF | FMT | PAR,               "wlan0sta",             WIFI},
    {ethernet,    11, 0, a_bool,      l_ethernet,  60,   0,   0,   0,  1,  0,  10, MAXF | PAR,                            ETH0,                   nullptr},
    {ethernet,    12, 0, a_bool,      l_ethernet,  60,   0,   0,   0,  1,  0,  10, MAXF | PAR,                            ETH0,                   nullptr},
    {memoryusage, 21, 0, a_threshold, l_threshold, 10,   10,  25,  0,  0,  10, 5,  MINF | MINW | FMT,                     nullptr,                "free memory %D %T threshold."},
    {wearout,     7,  0, a_common,    l_common,    3600, 0,   0,   50, 90, 5,  1,  MAXW | MAXF | FMT | PAR,               "/dev/mmcblk1",         "eMMC %P: wearout %D %T threshold."},
    {wireless,    1,  0, a_bool,      l_wireless,  60,   0,   0,   0,  1,  0,  10, MAXF | FMT | PAR,                      "wlan0sta",             "wlan0sta"},
    {wireless,    2,  0, a_bool,      l_wireless,  60,   0,   0,   0,  1,  0,  10, MAXF | FMT | PAR,                      "wlan0sta",             "wlan0sta"},
    {wireless,    4,  0, a_threshold, l_wireless,  60,   30,  50,  0,  0,  5,  10, MINF | MINW | FMT | PAR,               "wlan0sta",             "wlan0sta"},
    {wireless,    9,  0, a_threshold, l_wireless,  10,   -70, -30, 0,  0,  5,  4,  MINF | MINW | FMT | PAR,               "wlan0sta",             "wlan0sta"},
    {diskusage,   22, 0, a_common,    l_common,    900,  10,  25,  0,  0,  5,  5,  MINF | MINW | FMT | PAR,               "/rw-root",             SPACE},
    {diskusage,   22, 1, a_common,    l_common,    900,  10,  25,  0,  0,  5,  5,  MINF | MINW | FMT | PAR,               "/",                    SPACE},
    {diskusage,   22, 2, a_common,    l_common,    900,  10,  25,  0,  0,  5,  5,  MINF | MINW | FMT | PAR,               "/rw-root",             SPACE},
    {diskusage,   22, 3, a_common,    l_common,    900,  10,  25,  0,  0,  5,  5,  MINF | MINW | FMT | PAR,               "/tmp",                 SPACE},
    {diskusage,   22, 4, a_common,    l_common,    900,  10,  25,  0,  0,  5,  5,  MINF | MINW | FMT | PAR,               "/run",                 SPACE},
    {diskusage,   22, 5, a_common,    l_common,    900,  10,  25,  0,  0,  5,  5,  MINF | MINW | FMT | PAR,               "/var/lib/evse",        SPACE},
    {diskusage,   22, 6, a_common,    l_common,    900,  10,  25,  0,  0,  5,  5,  MINF | MINW | FMT | PAR,               "/var/lib/persistent",  SPACE},
    {diskusage,   22, 7, a_common,    l_common,    900,  10,  25,  0,  0,  5,  5,  MINF | MINW | FMT | PAR,               "/var/lib/parameter",   SPACE},
    {service,     23, 0, a_bool,      l_service,   10,   0,   0,   0,  1,  0,  10, MAXF | PAR,                            UNITS,                  nullptr},
    {load,        31, 0, a_common,    l_load,      180,  0,   0,   75, 0,  5,  5,  MAXW | PAR,                            LOADER,                 nullptr},
    {load,        32, 0, a_common,    l_load,      180,  0,   0,   0,  90, 5,  5,  MAXF | PAR,                            LOADER,                 nullptr},
};
// clang-format on

struct Table {
    Task tasks[TASK_COUNT];
};

extern Table table;

consteval Task make_task(std::size_t number) {
    const Row &row = rows[number];
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
        .notify = n_common,
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
