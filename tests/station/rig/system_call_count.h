#pragma once

// The system calls that the daemon's main thread makes from one wait for a signal to the next.

#include "handle.h"

#include <map>
#include <sys/types.h>

using SystemCalls = std::map<long, int>; ///< the count by number of the call

class SystemCallCount {
  public:
    /// Attaches to the waiting process and returns when it waits again.
    explicit SystemCallCount(pid_t pid);
    /// Counts the calls up to its next wait.
    SystemCalls until_next_wait();

  private:
    pid_t follower_; ///< a separate process, so that nobody else waits for the tracee's stops
    Descriptor numbers_;
};
