#pragma once

// The status log: a tab-separated file with a record of each run of a task, rotated when full. Comments are blocks: the
// header, and the marker at the end. Each record and each block is one write. If it does not fit on the disk, nothing
// of it remains: a partial write is undone, except in a pipe or a file that another process has appended to. There the
// next write starts a new line.

#include "gdata.h"
#include "handle.h"

#include <array>
#include <cstdint>
#include <ctime>
#include <sys/types.h>

/// A state's label, and the record level from which it is written.
struct LogfileStateRow {
    std::int32_t state;
    std::int32_t level;
    const char *label;
};

/// Searched from the first row.
extern const std::array<LogfileStateRow, 8> logfile_state_table;

/// Identifies a file independently of its name.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const FileIdentity &) const = default;
};

/// The module's state.
struct LogfileState {
    TextHandle logfile_name;        ///< null: the status log is off
    Descriptor logfile_stream;      ///< opened by the first record, closed by rotation
    FileIdentity logfile_identity;  ///< of the open file
    int logfile_is_file = 0;        ///< 0 for a standard stream, which is never rotated
    int logfile_header_written = 0; ///< the next header says "START" if 0, else "ROTATE"
    int logfile_initialised = 0;
    bool torn = false;                 ///< the last line of the stream is an incomplete record
    bool rotation_interrupted = false; ///< the last rotation was aborted because the process is about to end
    std::int64_t rotation_end = 0;     ///< monotonic seconds after which a rotation is interrupted; 0: no limit
    std::int32_t loglevel = LOGLEVEL_OK;
    std::int32_t logsize = 1048576;
    std::int32_t logcount = 10;
    int pass_error = -1;         ///< of this pass: 0, the errno of a loss, or -1 if nothing was written yet
    int last_error = 0;          ///< of the last pass that wrote anything
    std::time_t stamp_time = -1; ///< the time that `stamp` shows; -1 is none
    std::array<char, sizeof "0000-00-00 00:00:00"> stamp{};
};

/// The only instance. Tests set limits here that the settings do not allow.
LogfileState &logfile_state();

/// Reads the current settings and writes the first header; later calls do nothing. Returns 0.
int logfile_init();
/// Called at the start of each heartbeat: if the open file was moved or removed, opens the file that now has its
/// name, or creates it, and writes a header. If that fails, the old file stays open.
void logfile_follow_name();
/// Writes the task's record if its mark `do_logfile` is 1; does not clear the mark. Returns 0.
int logfile_run(Task *task);
/// Writes the task's record; returns 0.
int logfile_exec(Task *task);
/// Called at the end of a pass. Returns the errno of a record lost in the pass, or 0. After a pass without records
/// returns the previous result.
int logfile_pass_error();
/// Writes the closing block and leaves the stream open; returns 0.
int logfile_cleanup();
/// Appends a header block to the file `name`; does nothing if the file cannot be opened.
void lf_header(const char *name);
/// Appends a record of `state` with `text`, or a marker block if `mark` is 1; then rotates a full file.
void lf_print(std::int32_t state, const char *text, int mark);
