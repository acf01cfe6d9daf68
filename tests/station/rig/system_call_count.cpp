#include "system_call_count.h"

#include "rig_failure.h"

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int SYSTEM_CALL_STOP = SIGTRAP | 0x80; // with PTRACE_O_TRACESYSGOOD

constexpr auto NO_CALL = static_cast<std::uint64_t>(-1);

#ifdef SYS_rt_sigtimedwait_time64
constexpr long WAIT_FOR_SIGNAL = SYS_rt_sigtimedwait_time64;
#else
constexpr long WAIT_FOR_SIGNAL = SYS_rt_sigtimedwait;
#endif

/// The call that the stopped process is about to make; nr -1 at any other stop.
__ptrace_syscall_info call_begun(pid_t pid, int status) {
    __ptrace_syscall_info info{};
    if (WSTOPSIG(status) != SYSTEM_CALL_STOP || ptrace(PTRACE_GET_SYSCALL_INFO, pid, sizeof info, &info) <= 0 ||
        info.op != PTRACE_SYSCALL_INFO_ENTRY) {
        info.entry.nr = NO_CALL;
    }
    return info;
}

bool is_wait_without_end(const __ptrace_syscall_info &info) {
    return static_cast<long>(info.entry.nr) == WAIT_FOR_SIGNAL && info.entry.args[2] == 0;
}

/// The signal to be delivered after a stop; 0 for the tracer's own stops.
int signal_of(int status) { return WSTOPSIG(status) == SYSTEM_CALL_STOP || status >> 16 != 0 ? 0 : WSTOPSIG(status); }

void tell(int pipe, long number) {
    if (write(pipe, &number, sizeof number) != sizeof number) {
        _exit(EXIT_FAILURE);
    }
}

/// Writes the number of each call to the pipe, and that of the wait at its start and its end.
[[noreturn]] void follow(pid_t pid, int pipe) {
    if (ptrace(PTRACE_SEIZE, pid, 0, PTRACE_O_TRACESYSGOOD) != 0 || ptrace(PTRACE_INTERRUPT, pid, 0, 0) != 0) {
        rig_failure_of("following the daemon");
    }
    int waits = 0;
    int status = 0;
    while (waits < 2 && waitpid(pid, &status, __WALL) == pid && WIFSTOPPED(status)) {
        const __ptrace_syscall_info info = call_begun(pid, status);
        waits += is_wait_without_end(info) ? 1 : 0;
        if (waits > 0 && info.entry.nr != NO_CALL) {
            tell(pipe, static_cast<long>(info.entry.nr));
        }
        ptrace(waits < 2 ? PTRACE_SYSCALL : PTRACE_DETACH, pid, 0, signal_of(status));
    }
    _exit(EXIT_SUCCESS);
}

} // namespace

SystemCallCount::SystemCallCount(pid_t pid) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        rig_failure_of("pipe");
    }
    follower_ = fork();
    if (follower_ == 0) {
        follow(pid, ends[1]);
    }
    close(ends[1]);
    numbers_.reset(ends[0]);
    long number = 0;
    if (read(numbers_.get(), &number, sizeof number) != sizeof number) {
        rig_failure_of("the daemon's wait");
    }
}

SystemCalls SystemCallCount::until_next_wait() {
    SystemCalls calls;
    for (long number = 0; read(numbers_.get(), &number, sizeof number) == sizeof number;) {
        ++calls[number];
    }
    waitpid(follower_, nullptr, 0);
    --calls[WAIT_FOR_SIGNAL]; // the wait that ends the count
    return calls;
}
