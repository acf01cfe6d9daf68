#include "tasks.h"

#include "analyzer.h"
#include "builtin.h"
#include "logger.h"
#include "notifier.h"

#include <array>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

namespace {

// RUNNABLE 0x4, SOURCE 0x20, ANALYZE 0x40, NOTIFY 0x80, LOGGING 0x100, ID 0x200, INTERVAL 0x400,
// HYSTERESIS 0x8000, DELAY 0x10000 and BUILTIN 0x100000 are common to all: 0x1187e4. On top of them
// come MINFAIL 0x800, MINWARN 0x1000, MAXWARN 0x2000, MAXFAIL 0x4000, FORMAT 0x40000 and
// PARAMETER 0x80000:
constexpr std::uint32_t ALL_FORMAT_PARAMETER = 0x1dffe4; // + 0x7800 + 0xc0000
constexpr std::uint32_t MAXFAIL_PARAMETER = 0x19c7e4;    // + 0x4000 + 0x80000
constexpr std::uint32_t MAXWARN_PARAMETER = 0x19a7e4;    // + 0x2000 + 0x80000
constexpr std::uint32_t MAX_FORMAT_PARAMETER = 0x1de7e4; // + 0x6000 + 0xc0000
constexpr std::uint32_t MAXFAIL_FORMAT_PARAM = 0x1dc7e4; // + 0x4000 + 0xc0000
constexpr std::uint32_t MIN_FORMAT = 0x159fe4;           // + 0x1800 + 0x40000
constexpr std::uint32_t MIN_FORMAT_PARAMETER = 0x1d9fe4; // + 0x1800 + 0xc0000

struct Expected {
    const char *name;
    TaskOperation init;
    TaskOperation exec;
    std::int32_t id;
    std::int32_t index;
    const char *analyze;
    const char *logging;
    std::int32_t interval;
    std::array<std::int32_t, 4> limits; ///< minfail, minwarn, maxwarn, maxfail
    std::int32_t hysteresis;
    std::int32_t delay;
    std::uint32_t flags;
    std::string parameter; ///< "" for none
    std::string format;    ///< "" for none
};

const std::string THERMAL = "/sys/class/thermal/thermal_zone0/temp";
const std::string BLUETOOTH = "/sys/class/bluetooth/hci0/power/runtime_status";
const std::string ETH0 = "/sys/class/net/eth0/operstate";
const std::string SPACE = "%P: free space %D %T threshold.";
const std::string UNITS = "hostapd nginx ocppd rauc stationd wpa_supplicant corvana-portapi";
const std::string LOADER = "/usr/bin/load_logger -t 10 -c 120 -d /var/lib/evse/vigmond/";

// clang-format off
const std::vector<Expected> EXPECTED{
    {"temperature", temperature_init, temperature_exec, 20, 0, "common",    "common",      10, {-40, -30, 70, 80},  5,  5, ALL_FORMAT_PARAMETER, THERMAL,    "CPU temperature %D %T threshold."},
    {"bluetooth",   bluetooth_init,   bluetooth_exec,    5, 0, "bool",      "bluetooth",   60, {0, 0, 0, 1},        0, 10, MAXFAIL_PARAMETER,    BLUETOOTH,  ""},
    {"internet",    internet_init,    internet_exec,    10, 0, "common",    "common",      60, {0, 0, 5, 10},       2, 10, MAX_FORMAT_PARAMETER, "eth0",     "internet connection via ethernet %D %T threshold."},
    {"internet",    internet_init,    internet_exec,    13, 0, "common",    "common",      60, {0, 0, 5, 10},       2, 10, MAX_FORMAT_PARAMETER, "wlan0sta", "An internet connection via WiFi %D %T threshold."},
    {"ethernet",    ethernet_init,    ethernet_exec,    11, 0, "bool",      "ethernet",    60, {0, 0, 0, 1},        0, 10, MAXFAIL_PARAMETER,    ETH0,       ""},
    {"ethernet",    ethernet_init,    ethernet_exec,    12, 0, "bool",      "ethernet",    60, {0, 0, 0, 1},        0, 10, MAXFAIL_PARAMETER,    ETH0,       ""},
    {"memoryusage", memoryusage_init, memoryusage_exec, 21, 0, "threshold", "threshold",   10, {10, 25, 0, 0},     10,  5, MIN_FORMAT,           "",         "free memory %D %T threshold."},
    {"wearout",     wearout_init,     wearout_exec,      7, 0, "common",    "common",    3600, {0, 0, 50, 90},      5,  1, MAX_FORMAT_PARAMETER, "/dev/mmcblk1", "eMMC %P: wearout %D %T threshold."},
    {"wireless",    wireless_init,    wireless_exec,     1, 0, "bool",      "wireless",    60, {0, 0, 0, 1},        0, 10, MAXFAIL_FORMAT_PARAM, "wlan0sta", "wlan0sta"},
    {"wireless",    wireless_init,    wireless_exec,     2, 0, "bool",      "wireless",    60, {0, 0, 0, 1},        0, 10, MAXFAIL_FORMAT_PARAM, "wlan0sta", "wlan0sta"},
    {"wireless",    wireless_init,    wireless_exec,     4, 0, "threshold", "wireless",    60, {30, 50, 0, 0},      5, 10, MIN_FORMAT_PARAMETER, "wlan0sta", "wlan0sta"},
    {"wireless",    wireless_init,    wireless_exec,     9, 0, "threshold", "wireless",    10, {-70, -30, 0, 0},    5,  4, MIN_FORMAT_PARAMETER, "wlan0sta", "wlan0sta"},
    {"diskusage",   diskusage_init,   diskusage_exec,   22, 0, "common",    "common",     900, {10, 25, 0, 0},      5,  5, MIN_FORMAT_PARAMETER, "/rw-root", SPACE},
    {"diskusage",   diskusage_init,   diskusage_exec,   22, 1, "common",    "common",     900, {10, 25, 0, 0},      5,  5, MIN_FORMAT_PARAMETER, "/",        SPACE},
    {"diskusage",   diskusage_init,   diskusage_exec,   22, 2, "common",    "common",     900, {10, 25, 0, 0},      5,  5, MIN_FORMAT_PARAMETER, "/rw-root", SPACE},
    {"diskusage",   diskusage_init,   diskusage_exec,   22, 3, "common",    "common",     900, {10, 25, 0, 0},      5,  5, MIN_FORMAT_PARAMETER, "/tmp",     SPACE},
    {"diskusage",   diskusage_init,   diskusage_exec,   22, 4, "common",    "common",     900, {10, 25, 0, 0},      5,  5, MIN_FORMAT_PARAMETER, "/run",     SPACE},
    {"diskusage",   diskusage_init,   diskusage_exec,   22, 5, "common",    "common",     900, {10, 25, 0, 0},      5,  5, MIN_FORMAT_PARAMETER, "/var/lib/evse", SPACE},
    {"diskusage",   diskusage_init,   diskusage_exec,   22, 6, "common",    "common",     900, {10, 25, 0, 0},      5,  5, MIN_FORMAT_PARAMETER, "/var/lib/persistent", SPACE},
    {"diskusage",   diskusage_init,   diskusage_exec,   22, 7, "common",    "common",     900, {10, 25, 0, 0},      5,  5, MIN_FORMAT_PARAMETER, "/var/lib/parameter", SPACE},
    {"service",     service_init,     service_exec,     23, 0, "bool",      "service",     10, {0, 0, 0, 1},        0, 10, MAXFAIL_PARAMETER,    UNITS,      ""},
    {"load",        load_init,        load_exec,        31, 0, "common",    "load",       180, {0, 0, 75, 0},       5,  5, MAXWARN_PARAMETER,    LOADER,     ""},
    {"load",        load_init,        load_exec,        32, 0, "common",    "load",       180, {0, 0, 0, 90},       5,  5, MAXFAIL_PARAMETER,    LOADER,     ""},
};
// clang-format on

/// The operation behind a name of the dump.
TaskOperation operation_named(const std::string &name) {
    const std::array<NamedOperation, 10> analyzers_and_loggers{{
        {common_analyzer, "common analyzer"},
        {bool_analyzer, "bool analyzer"},
        {threshold_analyzer, "threshold analyzer"},
        {common_logger, "common logger"},
        {threshold_logger, "threshold logger"},
        {bluetooth_logger, "bluetooth logger"},
        {ethernet_logger, "ethernet logger"},
        {wireless_logger, "wireless logger"},
        {service_logger, "service logger"},
        {load_logger, "load logger"},
    }};
    for (const NamedOperation &operation : analyzers_and_loggers) {
        if (name == operation.name) {
            return operation.run;
        }
    }
    ADD_FAILURE() << name;
    return nullptr;
}

/// The tasks in list order.
std::vector<const Task *> walk() {
    std::vector<const Task *> tasks;
    for (const Task *task = builtin_tasks().first; task != nullptr; task = task->next) {
        tasks.push_back(task);
    }
    return tasks;
}

/// A text slot, "" for none.
std::string text(const char *slot) { return slot == nullptr ? "" : slot; }

class BuiltInTask : public testing::TestWithParam<std::size_t> {
  protected:
    const Expected &row = EXPECTED.at(GetParam());
    const Task &task = *walk().at(GetParam());
};

TEST_P(BuiltInTask, HasItsNameAndIssue) {
    EXPECT_STREQ(task.source, row.name);
    EXPECT_STREQ(task.name, row.name);
    EXPECT_EQ(task.id, row.id);
    EXPECT_EQ(task.index, row.index);
}

TEST_P(BuiltInTask, HasItsOperations) {
    EXPECT_EQ(task.init, row.init);
    EXPECT_EQ(task.exec, row.exec);
    EXPECT_EQ(task.analyze.run, operation_named(std::string(row.analyze) + " analyzer"));
    EXPECT_STREQ(task.analyze.name, row.analyze);
    EXPECT_EQ(task.notify.run, common_notifier);
    EXPECT_STREQ(task.notify.name, "common");
    EXPECT_EQ(task.logging.run, operation_named(std::string(row.logging) + " logger"));
    EXPECT_STREQ(task.logging.name, row.logging);
    EXPECT_EQ(task.precondition, nullptr);
    EXPECT_EQ(task.cleanup, nullptr);
}

TEST_P(BuiltInTask, HasItsLimitsAndTimes) {
    EXPECT_EQ(task.interval, row.interval);
    EXPECT_EQ((std::array{task.minfail, task.minwarn, task.maxwarn, task.maxfail}), row.limits);
    EXPECT_EQ(task.hysteresis, row.hysteresis);
    EXPECT_EQ(task.delay, row.delay);
    EXPECT_EQ(task.flags, row.flags);
}

TEST_P(BuiltInTask, HasItsTexts) {
    EXPECT_EQ(text(task.parameter), row.parameter);
    EXPECT_EQ(task.parameter == nullptr, row.parameter.empty());
    EXPECT_EQ(text(task.format), row.format);
    EXPECT_EQ(task.format == nullptr, row.format.empty());
}

TEST_P(BuiltInTask, StartsWithNothingMeasured) {
    EXPECT_EQ(task.next_run, 0);
    EXPECT_EQ(task.value, 0);
    EXPECT_EQ(task.error, 0);
    EXPECT_EQ(task.child_pid, 0);
    EXPECT_EQ(task.counter_minfail, 0);
    EXPECT_EQ(task.counter_minwarn, 0);
    EXPECT_EQ(task.counter_ok, 0);
    EXPECT_EQ(task.counter_maxwarn, 0);
    EXPECT_EQ(task.counter_maxfail, 0);
    EXPECT_EQ(task.state, 0);
    EXPECT_EQ(task.analyzable, 1);
    EXPECT_EQ(task.do_notify, 0);
    EXPECT_EQ(task.do_log, 0);
    EXPECT_EQ(task.do_logfile, 1);
}

INSTANTIATE_TEST_SUITE_P(Rows, BuiltInTask, testing::Range(std::size_t{0}, EXPECTED.size()), [](const auto &row) {
    return std::to_string(row.param + 1) + "_" + EXPECTED.at(row.param).name;
});

TEST(BuiltInTasks, AreALinkedListOfTheseRows) {
    const TaskList list = builtin_tasks();
    const std::vector<const Task *> tasks = walk();
    EXPECT_EQ(list.count, static_cast<std::int32_t>(EXPECTED.size()));
    ASSERT_EQ(tasks.size(), EXPECTED.size());
    EXPECT_EQ(tasks.front()->prev, nullptr);
    EXPECT_EQ(tasks.back(), list.last);
    EXPECT_EQ(list.last->next, nullptr);
    for (std::size_t i = 1; i < tasks.size(); ++i) {
        EXPECT_EQ(tasks[i]->prev, tasks[i - 1]) << i;
    }
}

TEST(BuiltInTasks, AreTheSameListWheneverAsked) { EXPECT_EQ(builtin_tasks().first, builtin_tasks().first); }

// Readers tell the diskusage tasks apart by their index.
TEST(BuiltInTasks, NoTwoShareIdAndIndex) {
    std::set<std::pair<std::int32_t, std::int32_t>> seen;
    for (const Task *task : walk()) {
        EXPECT_TRUE(seen.insert({task->id, task->index}).second) << task->id << " " << task->index;
    }
}

} // namespace
