#pragma once

// Sentences about changes of state, to syslog.

#include "gdata.h"

#include <cstddef>

/// Opens syslog the first time; until then nothing is written. Returns 0.
int logger_init();
/// Runs the task's logger and clears its mark; its result, or -1 when it has none.
int logger(Task *task);

/// Writes `text` under the label of `state` (-2..4), if the severity level lets it pass.
void logger_syslog(int state, const char *text);
/// Expands the task's template into `buffer`; 0, or -1, the buffer untouched, when it has none.
/// What does not fit is cut, an insertion that does not fit whole is left out.
int logger_format(char *buffer, std::size_t size, const Task *task);
/// Writes the head of every line, "ID: CB07[0]: ".
void logger_id_prefix(char *buffer, std::size_t size, const Task *task);

// The logging operations; all return 0.
int bool_logger(Task *task);
int threshold_logger(Task *task);
int common_logger(Task *task);
int NULL_logger(Task *task);
