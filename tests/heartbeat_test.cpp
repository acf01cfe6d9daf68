// A steady heartbeat with the whole table of checks: our own code allocates and leaks nothing.

#include "captured_traces.h"
#include "fake_systemd.h"
#include "gdata.h"
#include "in_child.h"
#include "logfile.h"
#include "memory_fault.h"
#include "private_bus.h"
#include "process_state.h"
#include "scheduler.h"
#include "scratch_folder.h"
#include "tasks.h"

#include <cstdlib>
#include <ctime>
#include <gtest/gtest.h>
#include <string_view>

namespace {

constexpr std::int64_t HOUR = 3600; // all tasks are due again after it

/// The daemon after its start, without the bus service.
void start_daemon(const PrivateBus &bus, const std::string &logfile) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
    gdata_set_tasks(builtin_tasks());
    gdata_set_logfile(logfile.c_str());
    gdata_set_logsize(LOGSIZE_MAX);
    logfile_init();
    for (Task *task = gdata_get_task_head(); task != nullptr; task = task->next) {
        task->init(task);
        if (std::string_view(task->source) == "load") {
            task->flags &= ~std::uint32_t{TASK_HAS_PARAMETER}; // no load logger here
        }
    }
}

/// Heartbeats in which all tasks are due; their traces are not kept.
void live(int count) {
    static std::int64_t now = std::time(nullptr); // the real time, with which issues are stamped
    for (int i = 0; i < count; ++i) {
        const CapturedTraces forget_those_before;
        scheduler_pass(now += HOUR);
    }
}

TEST(SteadyHeartbeat, AllocatesNothingOfItsOwnAndLeaksNothing) {
    in_child([] { // the modules keep their state
        const PrivateBus bus;
        FakeSystemd systemd(bus);
        for (const char *unit : {"nginx_2eservice", "ocppd_2eservice"}) {
            systemd.load(unit);
            systemd.activate(unit);
        }
        systemd.change_time("1000");
        const ScratchFolder folder;
        start_daemon(bus, folder / "logfile");
        constexpr int settled = 20; // longer than every delay
        live(settled);
        const int allocations = allocation_count();
        const std::ptrdiff_t descriptors = open_descriptors();
        live(50);
        EXPECT_EQ(allocation_count(), allocations);
        EXPECT_EQ(open_descriptors(), descriptors);
        systemd.obey("delay 30"); // longer than the library waits for a reply
        live(3);
        EXPECT_EQ(allocation_count(), allocations);
        EXPECT_EQ(open_descriptors(), descriptors);
    });
}

} // namespace
