#include "process.h"

#include "common.h"
#include "trace.h"

#include <cerrno>
#include <pthread.h>
#include <sys/wait.h>

namespace {

constinit DListNode registry_head{.next = nullptr, .prev = nullptr, .id = -2, .data = nullptr};
constinit sigset_t child_set{};
constinit bool was_blocked = false;

} // namespace

int process_init() {
    trace(TRACE_INFO, " ");
    struct sigaction action {};
    action.sa_sigaction = sig_child_handler;
    action.sa_flags = SA_SIGINFO | SA_NOCLDSTOP;
    sigemptyset(&action.sa_mask);
    sigemptyset(&child_set);
    sigaddset(&child_set, SIGCHLD);
    if (sigaction(SIGCHLD, &action, nullptr) != 0) {
        trace(TRACE_TRACE, "FAILED");
        return -1;
    }
    trace(TRACE_TRACE, "DONE");
    return 0;
}

int process_add(pid_t pid, Task *task) {
    trace(TRACE_TRACE, "pid: %d, task: %s", pid, task->parameter == nullptr ? "" : task->parameter);
    DListNode *node = d_list_create();
    if (node == nullptr) {
        return -1;
    }
    task->child_pid = pid;
    node->data = task;
    d_list_add(&registry_head, node);
    return 0;
}

int process_cmp(const void *task, const void *key) {
    const auto *owner = static_cast<const Task *>(task);
    const pid_t pid = *static_cast<const pid_t *>(key);
    trace(TRACE_TRACE, "val: %d pid: %d", owner->child_pid, pid);
    return owner->child_pid == pid ? 1 : 0;
}

int process_remove(pid_t pid) {
    trace(TRACE_TRACE, "pid: %d", pid);
    DListNode *node = d_list_search(registry_head.next, process_cmp, &pid);
    trace(TRACE_TRACE, "%s", node == nullptr ? "MISSING" : "FOUND");
    if (node == nullptr) {
        return -1;
    }
    auto *task = static_cast<Task *>(node->data);
    task->flags |= TASK_REINIT;
    task->child_pid = 0;
    trace(TRACE_TRACE, "dp->prev: %p dp->next: %p", static_cast<void *>(node->prev), static_cast<void *>(node->next));
    d_list_delete(d_list_remove(node));
    trace(TRACE_TRACE, "DONE");
    return 0;
}

void process_suspend_sig() {
    trace(TRACE_TRACE, " ");
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &child_set, &before);
    was_blocked = sigismember(&before, SIGCHLD) == 1;
}

void process_continue_sig() {
    trace(TRACE_TRACE, " ");
    if (!was_blocked) {
        pthread_sigmask(SIG_UNBLOCK, &child_set, nullptr);
    }
}

void sig_child_handler(int signo, siginfo_t *info, void * /*context*/) {
    const int saved_errno = errno;
    trace(TRACE_TRACE, "signal: %d", signo);
    trace(TRACE_TRACE, "signo: %d errno: %d code: %d pid: %d uid: %d status: %d", info->si_signo, info->si_errno,
          info->si_code, info->si_pid, static_cast<int>(info->si_uid), info->si_status);
    if (info->si_signo != signo) {
        trace(TRACE_TRACE, "false event");
        return;
    }
    for (pid_t pid = waitpid(-1, nullptr, WNOHANG); pid > 0; pid = waitpid(-1, nullptr, WNOHANG)) {
        process_remove(pid);
    }
    trace(TRACE_TRACE, "signal: %d DONE", signo);
    errno = saved_errno;
}
