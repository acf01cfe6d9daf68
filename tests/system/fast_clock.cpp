// Preloaded into the installed daemon by the tests on a booted system, so that confirming an issue takes seconds
// instead of minutes: wall clock and heartbeat run FAST_CLOCK times as fast from the start on. The clock starts at
// FAST_CLOCK_START, if given, and jumps by the number of seconds in the file FAST_CLOCK_LEAP.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <sys/time.h>

namespace {

constexpr std::int64_t MICROSECONDS = 1'000'000;

std::int64_t real_microseconds() {
    std::timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * MICROSECONDS + now.tv_nsec / 1000;
}

std::int64_t number_of(const char *name, std::int64_t otherwise) {
    const char *given = std::getenv(name);
    return given == nullptr ? otherwise : std::strtoll(given, nullptr, 10);
}

std::int64_t factor() { return number_of("FAST_CLOCK", 1); }

std::int64_t leap() {
    const char *name = std::getenv("FAST_CLOCK_LEAP");
    std::FILE *file = name == nullptr ? nullptr : std::fopen(name, "re");
    long long seconds = 0;
    if (file != nullptr) {
        static_cast<void>(std::fscanf(file, "%lld", &seconds)); // NOLINT(cert-err34-c): the tests' own
        std::fclose(file);
    }
    return seconds;
}

timeval divided(const timeval &time) {
    const std::int64_t microseconds = (time.tv_sec * MICROSECONDS + time.tv_usec) / factor();
    return {.tv_sec = microseconds / MICROSECONDS, .tv_usec = static_cast<suseconds_t>(microseconds % MICROSECONDS)};
}

} // namespace

// With 64-bit times on a 32-bit board the headers rename these to __..64, as in the daemon.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the C library's are reserved
extern "C" {

time_t time(time_t *result) noexcept {
    static const std::int64_t real_start = real_microseconds();
    static const std::int64_t start = number_of("FAST_CLOCK_START", real_start / MICROSECONDS);
    const time_t now = start + (real_microseconds() - real_start) * factor() / MICROSECONDS + leap();
    if (result != nullptr) {
        *result = now;
    }
    return now;
}

int setitimer(__itimer_which_t which, const itimerval *timer, itimerval *old) noexcept {
    using Setitimer = int(__itimer_which_t, const itimerval *, itimerval *);
#ifdef __LP64__
    constexpr const char *symbol = "setitimer";
#else
    constexpr const char *symbol = "__setitimer64";
#endif
    auto *real = reinterpret_cast<Setitimer *>(dlsym(RTLD_NEXT, symbol));
    const itimerval sooner{.it_interval = divided(timer->it_interval), .it_value = divided(timer->it_value)};
    return real(which, &sooner, old);
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
