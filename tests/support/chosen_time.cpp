#include "chosen_time.h"

constinit std::optional<std::time_t> chosen_time;

namespace {

std::time_t answer_time(std::time_t *result) {
    std::timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const std::time_t seconds = chosen_time.value_or(now.tv_sec);
    if (result != nullptr) {
        *result = seconds;
    }
    return seconds;
}

} // namespace

extern "C" {
std::time_t __wrap_time(std::time_t *result) { return answer_time(result); }
std::time_t __wrap___time64(std::time_t *result) { return answer_time(result); }
}
