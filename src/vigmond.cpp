// The daemon's entry: options, single instance, signals, modules, then the endless loop.

#include "capabilities.h"
#include "cleanup.h"
#include "gdata.h"
#include "init.h"
#include "log_sockets.h"
#include "process.h"
#include "scheduler.h"
#include "signals.h"
#include "tasks.h"
#include "timer.h"
#include "trace.h"
#include "vigmond/options.h"
#include "vigmond/startup.h"

#include <cstdlib>

namespace {

/// Everything between the options and the loop; false when the daemon cannot run.
bool start_up() {
    if (!is_single_proc()) {
        cleanup();
        trace_as("main", TRACE_IMPORTANT, "vigmond is already running --> terminating");
        return false;
    }
    signal_init();
    if (timer_init() != 0 || process_init() != 0) {
        return false;
    }
    init();
    return true;
}

} // namespace

int main(int argc, char *argv[]) {
    standard_streams_init();
    signals_ignore_failed_writes();
    capabilities_lower_raw_io();
    setenv("DBUS_FATAL_WARNINGS", "0", 0); // out of memory triggers libdbus's own checks, which would abort
    {
        const JournalOpening opening;
        trace(TRACE_INFO, " ");
    }
    gdata_set_tasks(builtin_tasks());
    const Options options = eat_arguments(argc, argv);
    if (options.outcome == OptionsOutcome::version) {
        return 0;
    }
    usage(2, options.program, nullptr);
    gdata_set_commandline(argc, argv);
    if (options.outcome != OptionsOutcome::run) {
        return options.outcome == OptionsOutcome::helped ? 0 : -1;
    }
    trace(TRACE_INFO, "DBG %s", trace_level_name(trace_mode));
    if (options.dump_requested) {
        gdata_config_print();
        return 0;
    }
    if (!start_up()) {
        return -1;
    }
    scheduler();
    cleanup(); // not reached: scheduler() never returns
    return 0;
}
