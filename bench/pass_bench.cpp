// One pass with all built-in tasks due, and the heartbeats of an hour, each compared with a bare program that makes
// the same calls, recorded in a first run.
//     pass_bench                       the ratios of processor time
//     pass_bench pass|bare_pass N      only N of these, for tools that count
//     pass_bench hour|bare_hour N

#include "bench_board.h"
#include "call_tape.h"
#include "gdata.h"
#include "init.h"
#include "logfile.h"
#include "logger.h"
#include "ratio.h"
#include "scheduler.h"

#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string_view>

namespace {

constexpr std::int64_t HOUR = 3600; // the longest interval: all tasks are due after it
constexpr std::int64_t HEARTBEAT = 10;

/// A full hour in the future: issues are stamped with the real time.
std::int64_t now = (std::time(nullptr) / HOUR + 1) * HOUR;

void pass() { scheduler_pass(now += HOUR); }

/// Starts with a pass in which all tasks are due.
void hour() {
    for (const std::int64_t end = now + HOUR; now < end;) {
        scheduler_pass(now += HEARTBEAT);
    }
}

CallTape pass_tape;
CallTape hour_tape;
int log_file = -1;

void bare_pass() { play(pass_tape, log_file); }
void bare_hour() { play(hour_tape, log_file); }

/// The daemon's state after start-up and some passes, without bus threads.
void start_daemon(const BenchBoard &board) {
    configure_daemon(board.paths());
    logfile_init();
    for (Task *task = gdata_get_task_head(); task != nullptr; task = task->next) {
        task->init(task);
    }
    constexpr int longest_delay = 10;
    for (int i = 0; i < 2 * longest_delay; ++i) {
        pass();
    }
    log_file = open(gdata_get_logfile(), O_WRONLY | O_APPEND | O_CLOEXEC);
}

void print_tape(const char *what, const CallTape &tape, int heartbeats) {
    struct Row {
        CallKind kind;
        const char *name;
    };
    std::printf("%s:", what);
    for (const Row &row :
         {Row{CallKind::trace, "lines"}, Row{CallKind::read_file, "files read"},
          Row{CallKind::open_file, "files opened"}, Row{CallKind::stat, "stat"}, Row{CallKind::statvfs, "statvfs"},
          Row{CallKind::access, "access"}, Row{CallKind::record, "records"},
          Row{CallKind::bus_text, "texts of systemd"}, Row{CallKind::bus_number, "numbers of systemd"}}) {
        std::printf(" %.1f %s,", static_cast<double>(count(tape, row.kind)) / heartbeats, row.name);
    }
    std::printf(" each\n");
}

struct Mode {
    const char *name;
    void (*run)();
};

constexpr std::array MODES{Mode{"pass", pass}, Mode{"bare_pass", bare_pass}, Mode{"hour", hour},
                           Mode{"bare_hour", bare_hour}};

void repeat(benchmark::State &bench, void (*run)()) {
    while (bench.KeepRunning()) {
        run();
    }
}

int measure(int argc, char **argv) {
    // Many short repetitions: nothing else on the machine disturbs the fastest ones.
    for (const Mode &mode : MODES) {
        const bool is_hour = mode.run == hour || mode.run == bare_hour;
        benchmark::RegisterBenchmark(mode.name, repeat, mode.run)
            ->Unit(benchmark::kMicrosecond)
            ->Iterations(is_hour ? 1 : 20)
            ->Repetitions(is_hour ? 15 : 60);
    }
    return run_and_print_ratios(argc, argv, {{"pass", "bare_pass"}, {"hour", "bare_hour"}});
}

} // namespace

int main(int argc, char **argv) {
    const BenchBoard board;
    start_daemon(board);
    pass_tape = note_calls(pass);
    hour_tape = note_calls(hour);
    print_tape("a pass", pass_tape, 1);
    print_tape("the heartbeats of an hour", hour_tape, HOUR / HEARTBEAT);
    const auto *const mode = std::find_if(MODES.begin(), MODES.end(), [argc, argv](const Mode &each) {
        return argc == 3 && std::strcmp(argv[1], each.name) == 0;
    });
    if (mode == MODES.end()) {
        return measure(argc, argv);
    }
    for (int i = std::atoi(argv[2]); i > 0; --i) { // NOLINT(cert-err34-c): for developers
        mode->run();
    }
    return 0;
}
