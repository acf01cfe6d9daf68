#include "cleanup.h"

#include "common.h"
#include "gdata.h"
#include "handle.h"
#include "logfile.h"
#include "trace.h"

namespace {

struct CleanupEntry {
    CleanupFunction function;
    void *argument;
};

constinit DListNode list_head{};

int run_registered() {
    int result = -1;
    for (const DListNode *node = list_head.next; node != nullptr; node = node->next) {
        const auto *entry = static_cast<const CleanupEntry *>(node->data);
        result = entry->function(entry->argument);
    }
    return result;
}

void clean_up_tasks() {
    for (Task *task = gdata_get_task_head(); task != nullptr; task = task->next) {
        trace_as("cleanup", TRACE_TRACE, "task: %s(CB%02d[%d])", task->name, task->id, task->index);
        if (task_has(task, TASK_RUNNABLE | TASK_HAS_CLEANUP) && task->cleanup != nullptr) {
            task->cleanup(task);
        }
    }
}

} // namespace

int cleanup() {
    trace(TRACE_INFO, " ");
    const int result = run_registered();
    clean_up_tasks();
    logfile_cleanup();
    trace(TRACE_TRACE, "DONE");
    return result;
}

int cleanup_add(CleanupFunction function, void *argument) {
    trace(TRACE_TRACE, " ");
    DListNode *node = d_list_create();
    if (node == nullptr) {
        return -1;
    }
    auto entry = record_allocate<CleanupEntry>();
    if (!entry || d_list_add(&list_head, node) == nullptr) {
        d_list_delete(node);
        return -1;
    }
    *entry = {.function = function, .argument = argument};
    node->data = entry.release(); // the list exists until the process ends
    trace(TRACE_TRACE, "DONE");
    return 0;
}
