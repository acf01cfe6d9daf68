#pragma once

// Replacements for time, setitimer, sigaction and sigwaitinfo. They call the C library unless a test sets otherwise.

#include <csignal>
#include <cstdint>
#include <functional>
#include <optional>
#include <sys/time.h>

struct SystemCalls {
    std::function<std::int64_t()> clock{};  ///< replaces the system's clock for time()
    bool timer_fails = false;               ///< setitimer returns -1
    bool timer_is_real = false;             ///< setitimer is called; otherwise it is only recorded below
    std::optional<itimerval> timer;         ///< the last timer asked for
    int timer_kind = -1;                    ///< the kind of that timer
    int sigaction_fails_for = 0;            ///< sigaction returns -1 for this signal
    int waits = 0;                          ///< calls of sigwaitinfo so far
    std::function<void(int)> before_wait{}; ///< runs inside sigwaitinfo, with the number of the wait
    int interrupted_waits = 0;              ///< this many calls of sigwaitinfo end with EINTR
};

/// The state of the calls above, shared by the whole test program.
SystemCalls &system_calls();
