#include "vigmond/startup.h"

#include "cleanup.h"
#include "gdata.h"
#include "handle.h"
#include "log_sockets.h"
#include "signals.h"
#include "supervision.h"
#include "trace.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>

namespace {

constinit int lock_fd = -1; // stays open, and so locked, until the process ends

/// ".lock" in the directory of the log file; null when out of memory.
TextHandle lock_path() {
    const char *logfile = gdata_get_logfile();
    const std::size_t size = std::strlen(logfile) + sizeof "./.lock";
    TextHandle directory(strdup(logfile));
    TextHandle path = text_allocate(size);
    if (directory && path) {
        std::snprintf(path.get(), size, "%s/%s", dirname(directory.get()), ".lock");
        return path;
    }
    return nullptr;
}

/// Kept: truncates the file even while its owner runs. Never follows a link.
Descriptor open_lock_file(const char *path) {
    return Descriptor(
        open(path, O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH));
}

bool lock_whole_file(const Descriptor &file) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(file.get(), F_SETLK, &lock) == 0;
}

/// The process that holds the lock; 0 if it has ended or is in another pid namespace.
pid_t lock_owner(const Descriptor &file) {
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    const bool held = fcntl(file.get(), F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
    return held ? lock.l_pid : 0;
}

/// Tells a user on a terminal why the daemon does not start.
void explain(const char *path, const Descriptor &file, int error) {
    if (isatty(STDERR_FILENO) == 0) {
        return;
    }
    if (!file) {
        std::fprintf(stderr, "cannot open %s: %s\n", path, std::strerror(error));
    } else if (const pid_t owner = lock_owner(file); owner > 0) {
        std::fprintf(stderr, "another vigmond holds %s (pid %d)\n", path, owner);
    } else {
        std::fprintf(stderr, "cannot lock %s: %s\n", path, std::strerror(error));
    }
}

struct ExitSignal {
    int signo;
    const char *failure;
};

constexpr std::array<ExitSignal, 4> EXIT_SIGNALS{{
    {SIGTERM, "SIGTERM FAILED"},
    {SIGQUIT, "SIGQUIT FAILED"},
    {SIGHUP, "SIGHUP  FAILED"},
    {SIGINT, "SIGINT  FAILED"},
}};

/// The text of the first signal whose handler could not be installed, or none.
const char *install_exit_handlers() {
    struct sigaction action {};
    action.sa_handler = sig_exit_handler;
    sigemptyset(&action.sa_mask);
    for (const int signo : {SIGQUIT, SIGHUP, SIGINT, SIGTERM}) {
        sigaddset(&action.sa_mask, signo);
    }
    for (const ExitSignal &row : EXIT_SIGNALS) {
        if (sigaction(row.signo, &action, nullptr) != 0) {
            return row.failure;
        }
    }
    return nullptr;
}

const char *install_reinit_handler() {
    struct sigaction action {};
    action.sa_handler = sig_reinit_handler;
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGALRM);
    return sigaction(SIGUSR1, &action, nullptr) != 0 ? "SIGUSR1 FAILED" : nullptr;
}

} // namespace

void standard_streams_init() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) < 0 && errno == EBADF) {
            open("/dev/null", O_RDWR); // gets the lowest free number, which is `fd`
        }
    }
}

bool is_single_proc() {
    trace(TRACE_TRACE, " ");
    if (lock_fd != -1) {
        return true;
    }
    const TextHandle path = lock_path();
    if (!path) {
        trace(TRACE_DEBUG, "out of memory");
        return false;
    }
    Descriptor file = open_lock_file(path.get());
    if (!file || !lock_whole_file(file)) {
        const int error = errno;
        trace(TRACE_DEBUG, "%s", std::strerror(error));
        explain(path.get(), file, error);
        return false;
    }
    dprintf(file.get(), "%d\n", getpid());
    lock_fd = file.release();
    return true;
}

void signal_init() {
    trace(TRACE_INFO, " ");
    signals_block();
    const char *failure = install_exit_handlers();
    if (failure == nullptr) {
        failure = install_reinit_handler();
    }
    if (failure != nullptr) {
        trace(TRACE_TRACE, "%s", failure);
    }
}

void sig_exit_handler(int /*signo*/) {
    log_sockets_resume(); // try to write the last traces
    trace(TRACE_TRACE, " ");
    supervision_stopping();
    cleanup();
    std::exit(EXIT_FAILURE);
}

void sig_reinit_handler(int /*signo*/) {
    trace(TRACE_TRACE, " ");
    for (Task *task = gdata_get_task_head(); task != nullptr; task = task->next) {
        task->flags |= TASK_REINIT;
    }
}
