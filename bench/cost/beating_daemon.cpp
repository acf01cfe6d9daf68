// The daemon with a simulated clock, so that all tasks are due at each heartbeat. It ends by itself.
//     beating_daemon LOGFILE DISK EMMC PERIOD_MS HEARTBEATS [hold|trace]
// With "hold" it prints "done" and waits until it is killed; with "trace" its traces go to stdout.

#include "bench_daemon.h"
#include "gdata.h"
#include "init.h"
#include "process.h"
#include "scheduler.h"
#include "timer.h"
#include "trace.h"
#include "vigmond/startup.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string_view>
#include <unistd.h>

int main(int argc, char *argv[]) {
    if (argc < 6) {
        return 2;
    }
    const std::string_view mode = argc > 6 ? argv[6] : "";
    if (mode == "trace") {
        dup2(STDOUT_FILENO, STDERR_FILENO);
        trace_mode = TRACE_TRACE;
    }
    configure_daemon({.logfile = argv[1], .disk = argv[2], .emmc = argv[3]});
    const int period_ms = std::atoi(argv[4]);  // NOLINT(cert-err34-c): arguments of our own
    const int heartbeats = std::atoi(argv[5]); // NOLINT(cert-err34-c)
    gdata_set_commandline(argc, argv);
    signal_init();
    timer_init();
    process_init();
    init();
    constexpr std::int64_t hour = 3600;
    const std::int64_t start = std::time(nullptr); // not earlier: issues are stamped with the real time
    for (std::int64_t now = start; now < start + heartbeats * hour; now += hour) {
        timer_suspend();
        scheduler_pass(now);
        timer_continue();
        if (period_ms > 0) {
            usleep(static_cast<useconds_t>(period_ms) * 1000);
        }
    }
    if (mode == "hold") {
        std::puts("done");
        std::fflush(stdout);
        pause();
    }
    std::quick_exit(0);
}
