#pragma once

// Sentences about changes of state, to syslog.

#include "gdata.h"
#include "text_buffer.h"

#include <array>
#include <cstddef>
#include <span>

/// The words for a state.
struct LoggerState {
    int state;
    int priority; ///< of syslog
    const char *label;
    const char *description;
};

extern const std::array<LoggerState, 7> logger_state_table;

/// The last row of `table` for `state`; null if absent.
const LoggerState *logger_state_row(std::span<const LoggerState> table, int state);

/// Opens syslog on the first call; nothing is written before that. Returns 0.
int logger_init();
/// Runs the task's logger, clears `do_log` and returns the logger's result. Without a logger returns -1 and keeps the
/// mark.
int logger(Task *task);

/// Writes `text` with the label of `state` (-2..4), if the severity level permits.
void logger_syslog(int state, const char *text);
/// Traces how many sentences were lost, once syslog accepts messages again.
void logger_tell_lost();
/// Expands the task's template into `buffer` and returns 0. Without a template returns -1 and writes nothing. Text that
/// does not fit is cut; an insertion that does not fit is omitted.
int logger_format(char *buffer, std::size_t size, const Task *task);
/// Writes the prefix of every line, "ID: CB07[0]: ".
void logger_id_prefix(char *buffer, std::size_t size, const Task *task);
/// Starts a line with a value in `buffer`: "ID: CB07[0]: value: 91 ".
TextBuffer logger_value_line(std::span<char> buffer, const Task *task);

// The logging operations; all return 0.

/// For a value that is good or bad.
int bool_logger(Task *task);
/// Reports the value and how it compares with the limit.
int threshold_logger(Task *task);
/// `threshold_logger` for most built-in tasks.
int common_logger(Task *task);
/// Clears `do_log` and writes nothing.
int NULL_logger(Task *task);
