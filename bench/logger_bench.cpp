// One expansion of a built-in template compared with one snprintf of the same sentence, without traces.

#include "logger.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cstdio>

// The journal is not measured.
extern "C" int sd_journal_print_with_location(int /*priority*/, const char * /*file*/, const char * /*line*/,
                                              const char * /*function*/, const char * /*format*/, ...) {
    return 0;
}

namespace {

Task disk_task() {
    Task task{};
    task.flags = TASK_HAS_FORMAT | TASK_HAS_PARAMETER;
    task.format = "%P: free space %D %T threshold.";
    task.parameter = "/var/lib/persistent";
    task.minwarn = 25;
    task.state = -1;
    return task;
}

void expand_template(benchmark::State &bench) {
    const Task task = disk_task();
    std::array<char, 1023> line{};
    while (bench.KeepRunning()) {
        benchmark::DoNotOptimize(logger_format(line.data(), line.size(), &task));
        benchmark::ClobberMemory();
    }
}

void print_same_sentence(benchmark::State &bench) {
    const Task task = disk_task();
    std::array<char, 1023> line{};
    while (bench.KeepRunning()) {
        benchmark::DoNotOptimize(std::snprintf(line.data(), line.size(), "%s: free space %s %d threshold.",
                                               task.parameter, "below", task.minwarn));
        benchmark::ClobberMemory();
    }
}

} // namespace

BENCHMARK(expand_template);
BENCHMARK(print_same_sentence);
BENCHMARK_MAIN();
