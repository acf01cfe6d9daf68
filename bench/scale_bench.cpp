// A pass over the built-in table, ten and a hundred times as many tasks: the time per task must not grow. Without the
// wireless tasks: each must walk a list of all of them and trace each step.

#include "bench_board.h"
#include "gdata.h"
#include "logfile.h"
#include "scheduler.h"
#include "tasks.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <string_view>
#include <vector>

namespace {

constexpr std::int64_t HOUR = 3600;

std::int64_t now = std::time(nullptr);

/// `copies` of the table's tasks, initialised, each with its own index.
std::vector<Task> table_of(std::size_t copies) {
    std::vector<Task> tasks;
    for (std::size_t copy = 0; copy < copies; ++copy) {
        for (const Task *task = builtin_tasks().first; task != nullptr; task = task->next) {
            const std::string_view source = task->source;
            if (source != "wireless" && source != "service") {
                tasks.push_back(*task);
                tasks.back().index += static_cast<std::int32_t>(100 * copy);
            }
        }
    }
    for (std::size_t i = 0; i < tasks.size(); ++i) {
        tasks[i].prev = i == 0 ? nullptr : &tasks[i - 1];
        tasks[i].next = i + 1 == tasks.size() ? nullptr : &tasks[i + 1];
    }
    return tasks;
}

double processor_microseconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return 1e6 * static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e3;
}

/// The minimum of several passes, per task.
double microseconds_a_task(std::vector<Task> &tasks) {
    gdata_set_tasks({.first = &tasks.front(), .last = &tasks.back(), .count = static_cast<std::int32_t>(tasks.size())});
    for (Task &task : tasks) {
        task.init(&task);
    }
    double least = 1e12;
    for (int pass = 0; pass < 30; ++pass) {
        const double before = processor_microseconds();
        scheduler_pass(now += HOUR);
        least = std::min(least, processor_microseconds() - before);
    }
    return least / static_cast<double>(tasks.size());
}

} // namespace

int main() {
    const BenchBoard board;
    configure_daemon(board.paths());
    logfile_init();
    double smallest = 0;
    for (const std::size_t copies : {1U, 10U, 100U}) {
        std::vector<Task> tasks = table_of(copies);
        const double each = microseconds_a_task(tasks);
        smallest = copies == 1 ? each : smallest;
        std::printf("CPU us a task in a table %zu times as long over the table's: %.2f / %.2f = %.3f\n", copies, each,
                    smallest, each / smallest);
    }
    return 0;
}
