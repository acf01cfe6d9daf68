#pragma once

#include <ctime>
#include <optional>

/// While it is set, what `time` answers in a test program that is linked so that those calls pass by here;
/// else they are answered truly.
extern std::optional<std::time_t> chosen_time;
