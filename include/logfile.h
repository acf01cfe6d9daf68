#pragma once

// The status log: a tab-separated file of every evaluation, rotated when full. Each record and each
// block is in the kernel when its call returns; what finds no room is lost whole. Only where a piece of it
// cannot be taken back (a pipe, a file that others have written to since) that piece stays, on a line of
// its own.

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

/// Which file it is, whatever its name.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const FileIdentity &) const = default;
};

/// The module's state.
struct LogfileState {
    TextHandle logfile_name;        ///< none: the status log is off
    Descriptor logfile_stream;      ///< opened by the first record, closed by rotation
    FileIdentity logfile_identity;  ///< of the open file
    int logfile_is_file = 0;        ///< 0 for a standard stream, which is never rotated
    int logfile_header_written = 0; ///< the next header says "START" if 0, else "ROTATE"
    int logfile_initialised = 0;
    bool torn = false;                 ///< the last line of the stream is a piece of a record
    bool rotation_interrupted = false; ///< the last one, because the process is to end
    std::int64_t rotation_end = 0;     ///< the second of the monotonic clock after which one is; 0 is none
    std::int32_t loglevel = LOGLEVEL_OK;
    std::int32_t logsize = 1048576;
    std::int32_t logcount = 10;
    int pass_error = -1;         ///< of what was written in this pass: 0 or the errno of a loss; -1 for nothing yet
    int last_error = 0;          ///< the same of the last pass in which there was something to write
    std::time_t stamp_time = -1; ///< that of `stamp`; -1 is none
    std::array<char, sizeof "0000-00-00 00:00:00"> stamp{};
};

/// The one instance. Tests set limits here that no setting allows.
LogfileState &logfile_state();

/// Takes the settings in force and writes the first header; once in a process. Returns 0.
int logfile_init();
/// For the start of each heartbeat: when the open file was moved or removed, opens the file that has its name
/// now, or a new one, and begins it with a header. While none can be opened, the old one stays open.
void logfile_follow_name();
/// Writes the task's record when its mark `do_logfile` is 1, which it leaves alone; returns 0.
int logfile_run(Task *task);
/// Writes the task's record; returns 0.
int logfile_exec(Task *task);
/// Ends a pass: the errno with which records were lost in it, 0 when none was. A pass without a record is
/// as the one before.
int logfile_pass_error();
/// Writes the closing block and leaves the stream open; returns 0.
int logfile_cleanup();
/// Appends a header block to the file `name`; nothing when it cannot be opened.
void lf_header(const char *name);
/// Appends a record of `state` with `text`, or with `mark` 1 a marker block, and rotates a full file.
void lf_print(std::int32_t state, const char *text, int mark);
