#include "builtin/load/child.h"

#include "builtin/load.h"
#include "capabilities.h"
#include "common.h"
#include "handle.h"
#include "process.h"
#include "signals.h"
#include "trace.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <getopt.h>
#include <sys/types.h>
#include <unistd.h>

namespace {

constexpr int MAX_TOKENS = 8;
constexpr std::size_t ARGUMENTS = 9;

/// The load logger's command line, with its own copies of the texts.
struct Command {
    TextHandle parameter;
    TextHandle directory;
    std::array<char, 31> issue;
    std::array<char *, MAX_TOKENS + 1> tokens;
    std::array<const char *, ARGUMENTS + 1> arguments;
};

// The load logger's whole ENVIRONMENT; the home directory at the end is kept.
constexpr std::array<const char *, 2> ENVIRONMENT{"PATH=/usr/bin:/usr/sbin:/home/tovik/bin", nullptr};

/// The directory of the status log file, "." when it has none; null when out of memory.
TextHandle log_directory() {
    const char *logfile = gdata_get_logfile();
    TextHandle directory(strdup(logfile == nullptr ? "." : logfile));
    if (!directory) {
        return directory;
    }
    char *slash = std::strrchr(directory.get(), '/');
    if (slash == nullptr) {
        return TextHandle(strdup("."));
    }
    *(slash == directory.get() ? slash + 1 : slash) = '\0';
    return directory;
}

const char *base_name(const char *path) {
    const char *slash = std::strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

/// Replaces the defaults by the parameter's options.
void take_options(Command *command, int count) {
    optind = 0; // restart the parser
    opterr = 0;
    for (int option = 0; option != -1;) {
        option = getopt(count, command->tokens.data(), "c:d:t:");
        if (option == 'c') {
            command->arguments[2] = optarg;
        } else if (option == 't') {
            command->arguments[4] = optarg;
        } else if (option == 'd') {
            command->arguments[6] = optarg;
        }
    }
}

/// Built before the fork: the child of a threaded process must not allocate.
bool build_command(const Task *task, Command *command) {
    command->parameter.reset(strdup(task->parameter));
    command->directory = log_directory();
    if (!command->parameter || !command->directory) {
        return false;
    }
    std::snprintf(command->issue.data(), command->issue.size(), "CB%02d[%d]", task->id, task->index);
    command->arguments = {nullptr, "-c", "150", "-t", "6", "-d", command->directory.get(), "-i", command->issue.data()};
    const int count = strsplit(command->parameter.get(), command->tokens.data(), MAX_TOKENS);
    if (count > 0) {
        command->arguments[0] = base_name(command->tokens[0]);
        take_options(command, count); // permutes all tokens but the first
    }
    return true;
}

void trace_execve(const Command &command) {
    const auto &argument = command.arguments;
    trace_as("load_logger", TRACE_TRACE,
             "execve(\"%s\", [\"%s\", \"%s\", \"%s\", \"%s\", \"%s\", \"%s\", \"%s\", \"%s\", \"%s\"])",
             command.tokens[0], argument[0], argument[1], argument[2], argument[3], argument[4], argument[5],
             argument[6], argument[7], argument[8]);
}

/// Restores the signals for the program: the defaults for those that the daemon handles, and the inherited
/// dispositions and mask for the others. The handled ones stay blocked until then, so that no handler of the daemon
/// runs in the child.
void restore_signals() {
    for (const int signo : {SIGALRM, SIGCHLD, SIGUSR1, SIGTERM, SIGQUIT, SIGHUP, SIGINT}) {
        std::signal(signo, SIG_DFL);
    }
    signals_restore_failed_writes();
    sigset_t mask = signals_original_mask();
    sigdelset(&mask, SIGCHLD);
    sigdelset(&mask, SIGALRM);
    sigprocmask(SIG_SETMASK, &mask, nullptr);
}

/// Becomes the load logger. Ends with _exit so that the daemon's buffers are not written twice.
[[noreturn]] void run_child(const Task *task, const Command &command) {
    trace_as("load_logger", TRACE_TRACE, "fork: child: pid: %d param: \"%s\"", getpid(), task->parameter);
    setsid();
    if (command.tokens[0] != nullptr) {
        trace_execve(command);
        restore_signals();
        capabilities_keep_from_programs();
        execve(command.tokens[0], const_cast<char *const *>(command.arguments.data()), // NOLINT
               const_cast<char *const *>(ENVIRONMENT.data()));                         // NOLINT
    }
    const int error = command.tokens[0] == nullptr ? ENOENT : errno;
    trace_as("load_logger", TRACE_TRACE, "child: exec failed: %s", std::strerror(error));
    if (command.tokens[0] != nullptr) {
        trace_execve(command);
    }
    _exit(EXIT_FAILURE);
}

void register_child(pid_t pid, Task *task) {
    trace_as("load_logger", TRACE_TRACE, "fork: parent: pid: %d", getpid());
    if (process_add(pid, task) != 0) {
        kill(pid, SIGTERM); // nothing would notice its end
        task->child_pid = 0;
        return;
    }
    task->cleanup = load_cleanup;
    task->flags |= TASK_HAS_CLEANUP;
}

} // namespace

int load_start_child(Task *task) {
    Command command{};
    if (!build_command(task, &command)) {
        trace_as("load_logger", TRACE_TRACE, "fork failed: %s", std::strerror(ENOMEM));
        return -1;
    }
    process_suspend_sig();
    const pid_t pid = fork();
    if (pid == 0) {
        run_child(task, command);
    }
    if (pid > 0) {
        register_child(pid, task);
    } else {
        trace_as("load_logger", TRACE_TRACE, "fork failed: %s", std::strerror(errno));
    }
    process_continue_sig();
    return pid > 0 ? 0 : -1;
}
