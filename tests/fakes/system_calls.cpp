#include "system_calls.h"

#include <array>
#include <cerrno>
#include <ctime>
#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

SystemCalls &system_calls() {
    static auto &calls = *new SystemCalls; // still used during exit
    return calls;
}

namespace {

template <typename Function> Function *next_in_line(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

int fail_with(int error) {
    errno = error;
    return -1;
}

int arm_for_real(int kind, const itimerval &timer) {
    const std::array<long, 4> in_kernel_layout{
        static_cast<long>(timer.it_interval.tv_sec), static_cast<long>(timer.it_interval.tv_usec),
        static_cast<long>(timer.it_value.tv_sec), static_cast<long>(timer.it_value.tv_usec)};
    return static_cast<int>(syscall(SYS_setitimer, kind, in_kernel_layout.data(), nullptr));
}

} // namespace

// Linked before the C library's own.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the headers' are reserved
extern "C" {

std::time_t time(std::time_t *result) noexcept {
    std::timespec system{};
    clock_gettime(CLOCK_REALTIME, &system);
    const SystemCalls &calls = system_calls();
    const std::time_t now = calls.clock ? static_cast<std::time_t>(calls.clock()) : system.tv_sec;
    if (result != nullptr) {
        *result = now;
    }
    return now;
}

int setitimer(__itimer_which_t kind, const itimerval *timer, itimerval * /*old*/) noexcept {
    SystemCalls &calls = system_calls();
    calls.timer = *timer;
    calls.timer_kind = kind;
    if (calls.timer_fails) {
        return fail_with(EINVAL);
    }
    return calls.timer_is_real ? arm_for_real(kind, *timer) : 0;
}

int sigaction(int signo, const struct sigaction *action, struct sigaction *old) noexcept {
    if (action != nullptr && signo == system_calls().sigaction_fails_for) {
        return fail_with(EINVAL);
    }
    static auto *const next = next_in_line<int(int, const struct sigaction *, struct sigaction *)>("sigaction");
    return next(signo, action, old);
}

int sigwaitinfo(const sigset_t *set, siginfo_t *info) {
    SystemCalls &calls = system_calls();
    const int number = ++calls.waits;
    if (calls.before_wait) {
        calls.before_wait(number);
    }
    if (calls.interrupted_waits > 0) {
        --calls.interrupted_waits;
        return fail_with(EINTR);
    }
    static auto *const next = next_in_line<int(const sigset_t *, siginfo_t *)>("sigwaitinfo");
    return next(set, info);
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
