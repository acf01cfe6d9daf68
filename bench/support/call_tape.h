#pragma once

// Records the daemon's calls to the system, and repeats them in a bare program: journal lines with the same text,
// files opened and read with the same library functions, calls to systemd, and records.

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

enum class CallKind { trace, read_file, open_file, stat, statvfs, access, record, bus_text, bus_number };

struct Call {
    CallKind kind;
    std::string path = {};     ///< or the complete text of the trace line or record, or the unit's object path
    std::string property = {}; ///< of the unit; the function of a trace line
    int priority = 0;          ///< of a trace line
    int lines = 0;             ///< number of lines read from the file
    std::string code_file = {};
    std::string code_line = {};
};

using CallTape = std::vector<Call>;

/// Records the calls made by `run`.
CallTape note_calls(const std::function<void()> &run);
std::size_t count(const CallTape &tape, CallKind kind);

/// Repeats the calls; writes the records to `log`.
void play(const CallTape &tape, int log);
