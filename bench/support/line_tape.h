#pragma once

// The daemon's own trace lines, as files that the baseline writes to the journal again. A record is five
// texts, each with its terminator: priority, CODE_FILE=..., CODE_LINE=..., function, and the whole line.

#include <cstddef>
#include <string>
#include <vector>

struct LineTapes {
    std::string start; ///< of what precedes the first pass
    std::string pass;  ///< of a pass with everything due, once all states have settled
    std::size_t lines_of_pass = 0;
};

/// Cuts the main thread's `lines`, as -D prints them, into the two.
LineTapes tapes_of(const std::vector<std::string> &lines);
