#include "signals.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <initializer_list>
#include <pthread.h>

namespace {

constinit sigset_t original_mask{};
constinit bool is_blocked = false;

/// A signal that ends a process when a write fails.
struct WriteSignal {
    int signo;
    sighandler_t original;
};

constinit std::array<WriteSignal, 2> write_signals{{
    {.signo = SIGPIPE, .original = SIG_DFL}, // the reader of the pipe has closed it
    {.signo = SIGXFSZ, .original = SIG_DFL}, // a write past the file size limit
}};

constinit bool in_handler = false;

sigset_t set_of(std::initializer_list<int> signals) {
    sigset_t set;
    sigemptyset(&set);
    for (const int signo : signals) {
        sigaddset(&set, signo);
    }
    return set;
}

/// A signal without an installed handler takes its default action.
void deliver_default(int signo) {
    const sigset_t open = set_of({signo});
    raise(signo);
    pthread_sigmask(SIG_UNBLOCK, &open, nullptr);
    pthread_sigmask(SIG_BLOCK, &open, nullptr);
}

void run_handler(int signo, siginfo_t *info) {
    struct sigaction action {};
    in_handler = true;
    if (sigaction(signo, nullptr, &action) == 0) {
        if ((action.sa_flags & SA_SIGINFO) != 0) {
            action.sa_sigaction(signo, info, nullptr);
        } else if (action.sa_handler == SIG_DFL) {
            deliver_default(signo);
        } else if (action.sa_handler != SIG_IGN) {
            action.sa_handler(signo);
        }
    }
    in_handler = false;
}

/// Handles each signal once: one that keeps coming must not delay the others.
void dispatch_pending(sigset_t set) {
    constexpr std::timespec at_once{};
    siginfo_t info{};
    while (true) {
        const int signo = sigtimedwait(&set, &info, &at_once);
        if (signo > 0) {
            sigdelset(&set, signo);
            run_handler(signo, &info);
        } else if (errno != EINTR) {
            return;
        }
    }
}

} // namespace

sigset_t signals_all() { return set_of({SIGALRM, SIGCHLD, SIGUSR1, SIGTERM, SIGQUIT, SIGHUP, SIGINT}); }

sigset_t signals_handled() { return set_of({SIGCHLD, SIGUSR1, SIGTERM, SIGQUIT, SIGHUP, SIGINT}); }

void signals_block() {
    const sigset_t handled = signals_handled();
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &handled, &before);
    if (!is_blocked) {
        original_mask = before;
        is_blocked = true;
    }
}

sigset_t signals_original_mask() { return original_mask; }

void signals_ignore_failed_writes() {
    for (WriteSignal &signal : write_signals) {
        signal.original = std::signal(signal.signo, SIG_IGN);
    }
}

void signals_restore_failed_writes() {
    for (const WriteSignal &signal : write_signals) {
        std::signal(signal.signo, signal.original);
    }
}

void signals_dispatch(const sigset_t &set) {
    if (in_handler) { // a handler always finishes first
        return;
    }
    const int saved_errno = errno;
    dispatch_pending(set);
    errno = saved_errno;
}

void signals_wait(const sigset_t &set) {
    const int saved_errno = errno;
    siginfo_t info{};
    int signo = -1;
    do { // EINTR after SIGSTOP and SIGCONT
        signo = sigwaitinfo(&set, &info);
    } while (signo < 0 && errno == EINTR);
    if (signo > 0) {
        run_handler(signo, &info);
    }
    dispatch_pending(set);
    errno = saved_errno;
}

void signals_safe_point() { signals_dispatch(signals_handled()); }

bool signals_termination_pending() {
    constexpr std::array terminations{SIGTERM, SIGQUIT, SIGHUP, SIGINT};
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    return std::any_of(terminations.begin(), terminations.end(),
                       [&pending](int signo) { return sigismember(&pending, signo) == 1; });
}

void signals_pause(int milliseconds) {
    const int saved_errno = errno;
    const sigset_t handled = signals_handled();
    const std::timespec pause{.tv_sec = milliseconds / 1000, .tv_nsec = milliseconds % 1000 * 1'000'000L};
    siginfo_t info{};
    const int signo = sigtimedwait(&handled, &info, &pause);
    if (signo > 0) {
        run_handler(signo, &info);
    }
    dispatch_pending(handled);
    errno = saved_errno;
}
