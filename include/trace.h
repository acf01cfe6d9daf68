#pragma once

// Diagnostic traces: the journal in normal operation, stderr in debug mode.

enum TraceLevel : int { TRACE_IMPORTANT = 0, TRACE_INFO = 1, TRACE_DEBUG = 2, TRACE_TRACE = 3 };

/// The destination of all trace lines: 3 is stderr, any other value is the journal. Does not filter. Written
/// during option parsing only.
extern constinit int trace_mode;

/// The name of a trace level as the start-up banner prints it; " --- " for an unknown one.
const char *trace_level_name(int level);

/// The number of lines that the journal has refused since the start.
unsigned trace_lost_lines();

/// Writes one trace line of at most 1023 characters: level, thread id, UTC time of day, place,
/// message. `code_file` and `code_line` are the journal fields "CODE_FILE=..." and "CODE_LINE=...",
/// constants of the call site. Keeps errno; does not allocate or lock.
[[gnu::format(printf, 5, 6)]] void trace_write(int level, const char *code_file, const char *code_line,
                                               const char *function, const char *format, ...);

#define TRACE_QUOTE(text) #text
#define TRACE_STRING(text) TRACE_QUOTE(text)

/// Traces with a given location; for the few lines whose location is fixed.
#define trace_at(level, file, function, line, ...)                                                                     \
    trace_write((level), "CODE_FILE=" file, "CODE_LINE=" TRACE_STRING(line), (function), __VA_ARGS__)

/// Traces with the caller's file and line under another function's name, where that name is fixed.
#define trace_as(function, level, ...) trace_at((level), TRACE_FILE, (function), __LINE__, __VA_ARGS__)

/// Traces with the caller's location. The build defines TRACE_FILE for each source.
#define trace(level, ...) trace_at((level), TRACE_FILE, __func__, __LINE__, __VA_ARGS__)
