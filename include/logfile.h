#pragma once

// The status log: a tab-separated file of every evaluation, rotated when full.

#include "gdata.h"

#include <cstdint>

/// Opens the status log with the settings in force and writes its first header; once. Returns 0.
int logfile_init();
/// Writes the task's record when its mark allows it; returns 0.
int logfile_run(Task *task);
/// Writes the task's record; returns 0.
int logfile_exec(Task *task);
/// Writes the closing block; returns 0.
int logfile_cleanup();
/// Appends a header block to the file `name`; nothing when it cannot be opened.
void lf_header(const char *name);
/// Appends a record of `state` with `text`, or with `mark` 1 a marker block, and rotates a full file.
void lf_print(std::int32_t state, const char *text, int mark);
