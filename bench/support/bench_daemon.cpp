#include "bench_daemon.h"

#include "gdata.h"
#include "tasks.h"

#include <string_view>

void configure_daemon(const BoardPaths &paths) {
    gdata_set_tasks(builtin_tasks());
    gdata_set_logfile(paths.logfile);
    gdata_set_logsize(LOGSIZE_MAX);
    for (Task *task = gdata_get_task_head(); task != nullptr; task = task->next) {
        const std::string_view parameter = task->parameter == nullptr ? "" : task->parameter;
        if (parameter == "/rw-root") {
            task->parameter = paths.disk;
        } else if (parameter == "/dev/mmcblk1") {
            task->parameter = paths.emmc;
        }
        if (std::string_view(task->source) == "load") {
            task->maxwarn = task->maxfail = 101;
        }
    }
}
