// One trace line compared with the library call alone for the same complete text.

#include "journal_sink.h"
#include "ratio.h"
#include "time_of_day.h"
#include "trace.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <ctime>
#include <string>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

namespace {

void trace_line(benchmark::State &bench) {
    while (bench.KeepRunning()) {
        trace_at(TRACE_TRACE, "analyzer.c", "threshold_analyzer", 180, "analyze ID: CB%02d[%d] -- value: %d (%s%s)", 20,
                 0, 43, "", "VALID");
    }
}
BENCHMARK(trace_line);

void journal_alone(benchmark::State &bench) {
    const TimeOfDay now = utc_time_of_day(std::time(nullptr));
    char text[128];
    std::snprintf(
        text, sizeof text,
        "(3) [%d] %02d:%02d:%02d analyzer.c: threshold_analyzer(180) analyze ID: CB20[0] -- value: 43 (VALID)",
        gettid(), now.hour, now.minute, now.second);
    while (bench.KeepRunning()) {
        sd_journal_print_with_location(LOG_DEBUG, "CODE_FILE=analyzer.c", "CODE_LINE=180", "threshold_analyzer", "%s\n",
                                       text);
    }
}
BENCHMARK(journal_alone);

} // namespace

int main(int argc, char **argv) {
    start_journal_sink();
    return run_and_print_ratios(argc, argv, {{"trace_line", "journal_alone"}});
}
