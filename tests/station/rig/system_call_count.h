#pragma once

// The system calls that the daemon's main thread makes from one wait for a signal to the next.

#include "handle.h"

#include <map>
#include <sys/types.h>

using SystemCalls = std::map<long, int>; ///< how often, under the number of the call

class SystemCallCount {
  public:
    /// Follows the process, which waits, and returns when it waits again, now under observation.
    explicit SystemCallCount(pid_t pid);
    /// Follows it to its next wait: the calls between the two.
    SystemCalls until_next_wait();

  private:
    pid_t follower_; ///< a process of its own: its tracee's stops are nobody else's
    Descriptor numbers_;
};
