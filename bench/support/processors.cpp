#include "processors.h"

#include <cstdio>
#include <sched.h>

namespace {

cpu_set_t allowed() {
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof set, &set);
    return set;
}

} // namespace

int first_processor() {
    const cpu_set_t set = allowed();
    int processor = 0;
    while (processor < CPU_SETSIZE - 1 && !CPU_ISSET(processor, &set)) {
        ++processor;
    }
    return processor;
}

int last_processor() {
    const cpu_set_t set = allowed();
    int processor = CPU_SETSIZE - 1;
    while (processor > 0 && !CPU_ISSET(processor, &set)) {
        --processor;
    }
    return processor;
}

void keep_to(int processor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor, &set);
    if (sched_setaffinity(0, sizeof set, &set) != 0) {
        std::perror("sched_setaffinity");
    }
}
