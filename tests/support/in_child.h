#pragma once

#include <functional>

/// Runs `body` in a child process and returns the child's wait status. When the body returns, the exit status is
/// CHILD_DONE, or CHILD_FAILED if one of its expectations failed.
int run_child(const std::function<void()> &body);

inline constexpr int CHILD_DONE = 42;
inline constexpr int CHILD_FAILED = 43;

/// Runs `body` with its expectations in a child process, so that changes to the process state (handlers, locks,
/// counters that only grow) end with it. The body must return.
void in_child(const std::function<void()> &body);
