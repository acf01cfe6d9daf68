#pragma once

#include <functional>

/// Runs `body` in a child process and returns the child's wait status. A body that comes to its end
/// gives the exit status CHILD_DONE, or CHILD_FAILED when one of its expectations has failed.
int run_child(const std::function<void()> &body);

inline constexpr int CHILD_DONE = 42;
inline constexpr int CHILD_FAILED = 43;

/// Runs `body` with its expectations in a child process, so that what it does to the state of the
/// process (handlers, locks, counters that only grow) ends with it. It must come to its end.
void in_child(const std::function<void()> &body);
