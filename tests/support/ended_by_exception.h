#pragma once

#include <functional>

/// Runs `body`. An exception ends the process.
void ended_by_exception(const std::function<void()> &body) noexcept;
