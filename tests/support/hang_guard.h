#pragma once

#include <csignal>
#include <ctime>

/// Aborts the test program if it still runs after a minute. For tests that would hang if the code under test were
/// wrong; there SIGALRM is in use.
class HangGuard {
  public:
    HangGuard() {
        sigevent event{};
        event.sigev_notify = SIGEV_SIGNAL;
        event.sigev_signo = SIGABRT;
        armed_ = timer_create(CLOCK_MONOTONIC, &event, &timer_) == 0;
        constexpr itimerspec a_minute{.it_interval = {}, .it_value = {.tv_sec = 60, .tv_nsec = 0}};
        timer_settime(timer_, 0, &a_minute, nullptr);
    }
    ~HangGuard() {
        if (armed_) {
            timer_delete(timer_);
        }
    }
    HangGuard(const HangGuard &) = delete;
    HangGuard &operator=(const HangGuard &) = delete;

  private:
    timer_t timer_{};
    bool armed_ = false;
};
