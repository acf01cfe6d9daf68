#pragma once

// Files of the daemon's own trace lines, which the baseline writes to the journal. A record is five texts, each with
// its terminator: priority, CODE_FILE=..., CODE_LINE=..., function, and the whole line.

#include <cstddef>
#include <string>
#include <vector>

struct LineTapes {
    std::string start; ///< the lines before the first pass
    std::string pass;  ///< the lines of a pass with all tasks due, after all states have settled
    std::size_t lines_of_pass = 0;
};

/// Extracts both tapes from the main thread's `lines`, as printed with -D.
LineTapes tapes_of(const std::vector<std::string> &lines);
