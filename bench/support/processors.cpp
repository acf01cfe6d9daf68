#include "processors.h"

#include <cstdio>
#include <sched.h>

namespace {

/// The first processor that this thread may use, searching from `processor` in the direction `step`.
int next_allowed(int processor, int step) {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    sched_getaffinity(0, sizeof allowed, &allowed);
    while (processor >= 0 && processor < CPU_SETSIZE && !CPU_ISSET(processor, &allowed)) {
        processor += step;
    }
    return processor;
}

} // namespace

void keep_to(int processor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    if (sched_setaffinity(0, sizeof set, &set) != 0) {
        std::perror("sched_setaffinity");
    }
}

int leave_last_processor() {
    const int last = next_allowed(CPU_SETSIZE - 1, -1);
    keep_to(next_allowed(0, 1));
    return last;
}
