#include "rig_failure.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

void rig_failure(const std::string &text) {
    std::fprintf(stderr, "station rig: %s\n", text.c_str());
    std::fflush(stderr);
    std::abort();
}

void rig_failure_of(const std::string &call) { rig_failure(call + ": " + std::strerror(errno)); }
