#include "timer.h"

#include "gdata.h"
#include "signals.h"
#include "time_of_day.h"
#include "trace.h"

#include <csignal>
#include <ctime>
#include <pthread.h>
#include <sys/time.h>

namespace {

volatile std::sig_atomic_t alarm_count = 0;
constinit sigset_t alarm_set{};

/// Expires `first` seconds from now, then every `steps` seconds.
int start_interval_timer(int steps, int first) {
    itimerval beat{};
    beat.it_interval.tv_sec = steps;
    beat.it_value.tv_sec = first;
    return setitimer(ITIMER_REAL, &beat, nullptr);
}

int install_alarm_handler() {
    struct sigaction action {};
    action.sa_handler = sig_alarm_handler;
    sigemptyset(&action.sa_mask);
    return sigaction(SIGALRM, &action, nullptr);
}

} // namespace

int timer_init() {
    trace(TRACE_INFO, " ");
    sigemptyset(&alarm_set);
    sigaddset(&alarm_set, SIGALRM);
    timer_suspend();
    if (install_alarm_handler() != 0) {
        trace(TRACE_TRACE, "FAILED");
        return -1;
    }
    const std::int64_t now = std::time(nullptr);
    const std::int32_t steps = gdata_get_intervalsteps();
    const int first = steps - static_cast<int>(now % steps);
    trace(TRACE_DEBUG, "it_interval.tv_sec: %d it_value.tv_sec: %d", steps, first);
    if (start_interval_timer(steps, first) != 0) {
        trace(TRACE_TRACE, "FAILED");
        return -1;
    }
    const TimeOfDay start = utc_time_of_day(now);
    trace(TRACE_DEBUG, "INIT done: %02d:%02d:%02d", start.hour, start.minute, start.second);
    return 0;
}

void sig_alarm_handler(int /*signo*/) {
    trace(TRACE_TRACE, " ");
    alarm_count = alarm_count + 1;
}

// This function blocks before it traces, and timer_continue() traces before it unblocks: the SIGALRM handler must
// not interrupt the main thread inside a library.
void timer_suspend() {
    pthread_sigmask(SIG_BLOCK, &alarm_set, nullptr);
    trace(TRACE_TRACE, " ");
}

void timer_continue() {
    trace(TRACE_TRACE, " ");
    pthread_sigmask(SIG_UNBLOCK, &alarm_set, nullptr);
}

void runrun_wait() {
    pthread_sigmask(SIG_BLOCK, &alarm_set, nullptr);
    trace(TRACE_DEBUG, "\n"); // the empty line is kept
    const sigset_t all = signals_all();
    do { // wait even if a heartbeat was counted during a long pass: the next pass starts at the next heartbeat
        signals_wait(all);
    } while (alarm_count == 0);
    alarm_count = 0;
    pthread_sigmask(SIG_UNBLOCK, &alarm_set, nullptr);
}
