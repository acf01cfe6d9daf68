#pragma once

#include <ctime>
#include <optional>

/// While set, the result of `time` in test programs linked with --wrap for it; otherwise they get the real time.
extern std::optional<std::time_t> chosen_time;
