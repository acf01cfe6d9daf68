// One evaluation, with its traces sent to the journal, and with its traces dropped when they reach the library.

#include "analyzer.h"

#include "journal_sink.h"
#include "line_tap.h"
#include "ratio.h"

#include <benchmark/benchmark.h>

namespace {

bool drop(int /*priority*/, const char * /*file*/, const char * /*line*/, const char * /*function*/,
          const char * /*format*/, std::va_list /*arguments*/) {
    return false;
}

/// The built-in temperature check with values of all five classes.
void evaluate(benchmark::State &bench) {
    Task task{};
    task.flags = TASK_RUNNABLE | TASK_VALUE_VALID | TASK_HAS_MINFAIL | TASK_HAS_MINWARN | TASK_HAS_MAXWARN |
                 TASK_HAS_MAXFAIL | TASK_HAS_HYSTERESIS | TASK_HAS_DELAY;
    task.id = 20;
    task.minfail = -40;
    task.minwarn = -30;
    task.maxwarn = 70;
    task.maxfail = 80;
    task.hysteresis = 5;
    task.delay = 5;
    task.analyzable = 1;
    task.value = -60;
    while (bench.KeepRunning()) {
        task.value = task.value == 100 ? -60 : task.value + 1;
        threshold_analyzer(&task);
    }
    benchmark::DoNotOptimize(task.state);
}

void traced_evaluation(benchmark::State &bench) {
    line_tap = nullptr;
    evaluate(bench);
}
BENCHMARK(traced_evaluation);

void evaluation(benchmark::State &bench) {
    line_tap = drop;
    evaluate(bench);
}
BENCHMARK(evaluation);

} // namespace

int main(int argc, char **argv) {
    start_journal_sink();
    return run_and_print_ratios(argc, argv, {{"traced_evaluation", "evaluation"}});
}
