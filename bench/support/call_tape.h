#pragma once

// What the daemon asks of the system, noted while it runs and done again by a bare program: each
// journal line with the same text, each file opened and read with the same library calls, each question
// to systemd, each record.

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

enum class CallKind { trace, read_file, open_file, stat, statvfs, access, record, bus_text, bus_number };

struct Call {
    CallKind kind;
    std::string path = {};     ///< or the finished text of the trace line or record, or the unit's object
    std::string property = {}; ///< of the unit; of a trace line its function
    int priority = 0;          ///< of a trace line
    int lines = 0;             ///< read from the file
    std::string code_file = {};
    std::string code_line = {};
};

using CallTape = std::vector<Call>;

/// Notes the calls made by `run`.
CallTape note_calls(const std::function<void()> &run);
std::size_t count(const CallTape &tape, CallKind kind);

/// Makes the calls again; the records go to `log`.
void play(const CallTape &tape, int log);
