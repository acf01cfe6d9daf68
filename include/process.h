#pragma once

// The registry of child processes, each tied to its task.

#include "gdata.h"

#include <csignal>
#include <sys/types.h>

/// Installs the SIGCHLD handler; 0, or -1 after a trace.
int process_init();
/// Registers the running child `pid` of `task`; 0, or -1 when out of memory.
int process_add(pid_t pid, Task *task);
/// Removes the child and marks its task for restart; 0, or -1 for an unknown pid.
int process_remove(pid_t pid);
/// List comparison: 1 when the task's child is the pid that `key` points to.
int process_cmp(const void *task, const void *key);
/// Blocks SIGCHLD while a child is started, so that it is registered before its end is handled.
void process_suspend_sig();
/// Unblocks SIGCHLD, unless it was blocked before process_suspend_sig().
void process_continue_sig();
/// Reaps every child that has ended.
void sig_child_handler(int signo, siginfo_t *info, void *context);
