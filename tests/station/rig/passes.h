#pragma once

// The passes in a trace.

#include "trace_line.h"

#include <string>
#include <vector>

/// The times of the passes, "12:00:07", in order.
inline std::vector<std::string> pass_times(const TraceLog &trace) {
    const std::string start = "RUN: at ";
    std::vector<std::string> times;
    for (const std::string &message : trace.messages_of("scheduler")) {
        if (message.starts_with(start)) {
            times.push_back(message.substr(start.size()));
        }
    }
    return times;
}

/// The times at which tasks with this source ran, one for each such task.
inline std::vector<std::string> run_times(const TraceLog &trace, const std::string &source) {
    const std::string start = "RUN: at ";
    std::vector<std::string> times;
    std::string pass;
    for (const std::string &message : trace.messages_of("scheduler")) {
        if (message.starts_with(start)) {
            pass = message.substr(start.size());
        } else if (message.starts_with(source + ": next_run: ")) {
            times.push_back(pass);
        }
    }
    return times;
}
