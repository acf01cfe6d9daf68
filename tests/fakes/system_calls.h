#pragma once

// Stand in front of the C library in the test programs they are linked to: time, setitimer,
// sigaction and sigwaitinfo pass through unless a test asks otherwise.

#include <csignal>
#include <cstdint>
#include <functional>
#include <optional>
#include <sys/time.h>

struct SystemCalls {
    std::function<std::int64_t()> clock{};  ///< what time() says instead of the system's clock
    bool timer_fails = false;               ///< setitimer gives -1
    bool timer_is_real = false;             ///< setitimer is carried out; else it is only kept below
    std::optional<itimerval> timer;         ///< the last timer asked for
    int timer_kind = -1;                    ///< the kind of that timer
    int sigaction_fails_for = 0;            ///< sigaction gives -1 for this signal
    int waits = 0;                          ///< calls of sigwaitinfo so far
    std::function<void(int)> before_wait{}; ///< runs inside sigwaitinfo, with the number of the wait
    int interrupted_waits = 0;              ///< as many calls of sigwaitinfo end with EINTR
};

/// The state of the calls above, shared by the whole test program.
SystemCalls &system_calls();
