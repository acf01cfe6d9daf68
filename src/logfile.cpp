#include "logfile.h"

#include "common.h"
#include "logfile/header.h"
#include "logfile/whole_write.h"
#include "monotonic_clock.h"
#include "no_destructor.h"
#include "rotation.h"
#include "signals.h"
#include "trace.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <utility>

constinit const std::array<LogfileStateRow, 8> logfile_state_table{{
    {-2, 1, "FAIL"},
    {-1, 2, "WARN"},
    {0, 3, "OK"},
    {1, 2, "WARN"},
    {2, 1, "FAIL"},
    {3, 2, "WARN"},
    {4, 1, "FAIL"},
    {-1, 2, "INV"}, // kept: never found, because an earlier row has the same state
}};

namespace {

constinit NoDestructor<LogfileState> the_state;

/// For a state without a row: written at every level.
constexpr LogfileStateRow UNKNOWN_STATE_ROW{0, -1, "INV"};

const LogfileStateRow &state_row_of(std::int32_t state) {
    const auto *const row = std::find_if(logfile_state_table.begin(), logfile_state_table.end(),
                                         [state](const LogfileStateRow &each) { return each.state == state; });
    return row == logfile_state_table.end() ? UNKNOWN_STATE_ROW : *row;
}

bool same_name(const char *name, const char *other) { return strcasecmp(name, other) == 0; }

/// The local time as text. Formatted once per second, because each call of localtime checks the zone file. Zeros if
/// that fails, so that no record is lost.
const char *stamp() {
    LogfileState &log = logfile_state();
    if (log.stamp_time == -1 || log.stamp_time != std::time(nullptr)) {
        log.stamp_time = time_stamp(log.stamp.data(), log.stamp.size(), "%Y-%m-%d %H:%M:%S");
        if (log.stamp_time == -1) {
            log.stamp = std::to_array("0000-00-00 00:00:00");
        }
    }
    return log.stamp.data();
}

/// A duplicate of a standard stream's descriptor, so that every stream can be closed in the same way.
Descriptor duplicate(std::FILE *standard) {
    return Descriptor(fcntl(fileno(standard), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

template <std::size_t N> bool write_whole(LogfileState &log, const std::array<iovec, N> &pieces) {
    static_assert(N <= MAX_PIECES);
    if (log.logfile_is_file == 0 && !logfile_has_room(log.logfile_stream)) {
        errno = EAGAIN;
        return false;
    }
    return logfile_write_whole(log.logfile_stream, pieces, &log.torn);
}

/// Records the outcome of a write; a loss overrides a success in the same pass. Keeps errno.
void note_outcome(LogfileState &log, bool written) { log.pass_error = std::max(log.pass_error, written ? 0 : errno); }

/// False, with errno set, if the header was lost.
bool write_header(LogfileState &log, const Descriptor &file) {
    const TextHandle block = logfile_header_text(stamp(), log.logfile_header_written == 0 ? "START" : "ROTATE");
    if (!block) {
        errno = ENOMEM;
        return false;
    }
    return logfile_write_whole(file, std::array{piece(block.get())}, &log.torn);
}

bool write_marker(LogfileState &log, const char *text) {
    return write_whole(log, std::array{piece("##\n##\t"), piece(stamp()), piece("\t"), piece(text), piece("\t"),
                                       piece(gdata_get_commandline()), piece("\n##\n")});
}

bool write_record(LogfileState &log, const char *label, const char *text) {
    return write_whole(log,
                       std::array{piece(stamp()), piece("\t"), piece(label), piece("\t"), piece(text), piece("\n")});
}

bool is_off(const LogfileState &log) {
    const char *name = log.logfile_name.get();
    return name == nullptr || std::strcmp(name, "/dev/null") == 0;
}

FileIdentity identity_of(const Descriptor &file) {
    struct stat status {};
    fstat(file.get(), &status); // never fails for an open file
    return {.device = status.st_dev, .inode = status.st_ino};
}

/// Makes `file` the open stream.
void take_file(LogfileState &log, Descriptor file) {
    log.logfile_is_file = 1;
    log.logfile_identity = identity_of(file);
    log.logfile_stream = std::move(file);
}

/// Opens the stream of the configured name; false, with errno set, on failure.
bool open_stream(LogfileState &log) {
    const char *name = log.logfile_name.get();
    log.logfile_is_file = 0;
    if (same_name(name, "stderr")) {
        log.logfile_stream = duplicate(stderr);
    } else if (same_name(name, "stdout")) {
        log.logfile_stream = duplicate(stdout);
    } else {
        Descriptor file = open_for_append(name);
        if (!file) {
            return false;
        }
        take_file(log, std::move(file));
    }
    return static_cast<bool>(log.logfile_stream);
}

/// Flushes stdout and stderr before a record that is written past their buffers.
void flush_standard_streams(const LogfileState &log) {
    if (log.logfile_is_file == 0) {
        std::fflush(stdout);
        std::fflush(stderr);
    }
}

/// Writes a marker if `mark` is 1, otherwise a record if the level permits; false, with errno set, if it was lost.
bool write_entry(LogfileState &log, std::int32_t state, const char *text, int mark) {
    const LogfileStateRow &row = state_row_of(state);
    if (mark != 1 && row.level > log.loglevel) {
        return true;
    }
    const bool written = mark == 1 ? write_marker(log, text) : write_record(log, row.label, text);
    note_outcome(log, written);
    return written;
}

/// Seconds for the rotation at the end of the process. Compressing a log of the default size takes about 4 s on the
/// board; the service manager waits 30 s.
constexpr std::int64_t LONGEST_LAST_ROTATION = 10;

/// Called by file_rotate. True if the process is to end or the last rotation takes too long: other programs may have
/// made the log very large. The next start repeats an interrupted rotation.
bool interrupt_rotation() {
    LogfileState &log = logfile_state();
    const bool late = log.rotation_end != 0 && monotonic_seconds() > log.rotation_end;
    log.rotation_interrupted = late || signals_termination_pending();
    return log.rotation_interrupted;
}

void rotate_when_full(LogfileState &log) {
    if (log.logfile_is_file == 0 || lseek(log.logfile_stream.get(), 0, SEEK_END) < log.logsize) {
        return;
    }
    log.logfile_stream.reset();
    log.rotation_interrupted = false;
    file_rotate(log.logfile_name.get(), log.logcount, interrupt_rotation);
    if (!log.rotation_interrupted) {
        log.torn = false;
        lf_header(log.logfile_name.get());
    }
}

/// Stores the configured name; if it is a file, writes the first header. The status log stays off if the file cannot
/// be opened.
void take_name(LogfileState &log, const char *name) {
    const bool bare = same_name(name, "/dev/null") || same_name(name, "stderr") || same_name(name, "stdout");
    if (!bare && !open_for_append(name)) {
        note_outcome(log, false);
        return;
    }
    log.logfile_name.reset(strdup(name));
    note_outcome(log, static_cast<bool>(log.logfile_name));
    if (!bare && log.logfile_name) {
        file_rotate_leftover(name);
        lf_header(log.logfile_name.get());
    }
}

} // namespace

LogfileState &logfile_state() { return the_state.get(); }

int logfile_init() {
    trace(TRACE_INFO, " ");
    LogfileState &log = logfile_state();
    if (log.logfile_initialised == 1) {
        return 0;
    }
    if (const char *name = gdata_get_logfile(); name != nullptr) {
        take_name(log, name);
    }
    log.logcount = gdata_set_logcount(gdata_get_logcount());
    log.logsize = gdata_set_logsize(gdata_get_logsize());
    log.loglevel = gdata_set_loglevel(gdata_get_loglevel());
    log.logfile_initialised = 1;
    trace(TRACE_INFO, "level: %d file: %s size: %d count: %d", log.loglevel,
          log.logfile_name ? log.logfile_name.get() : "(null)", log.logsize, log.logcount);
    return 0;
}

void lf_header(const char *name) {
    trace(TRACE_TRACE, " ");
    LogfileState &log = logfile_state();
    const Descriptor file = open_for_append(name);
    if (!file || !write_header(log, file)) {
        note_outcome(log, false);
        trace(TRACE_TRACE, "%s: %s", name, std::strerror(errno));
        return;
    }
    log.logfile_header_written = 1;
}

void lf_print(std::int32_t state, const char *text, int mark) {
    trace(TRACE_TRACE, " ");
    LogfileState &log = logfile_state();
    if (!log.logfile_stream) {
        if (is_off(log)) {
            return;
        }
        if (!open_stream(log)) {
            note_outcome(log, false);
            trace(TRACE_TRACE, "%s: %s", log.logfile_name.get(), std::strerror(errno));
            return;
        }
    }
    flush_standard_streams(log);
    if (!write_entry(log, state, text, mark)) {
        trace(TRACE_TRACE, "%s: %s", log.logfile_name.get(), std::strerror(errno));
    }
    if (mark != 1 || !log.rotation_interrupted) { // a marker does not restart an interrupted rotation
        rotate_when_full(log);
    }
}

void logfile_follow_name() {
    LogfileState &log = logfile_state();
    if (!log.logfile_stream || log.logfile_is_file == 0) {
        return;
    }
    const char *name = log.logfile_name.get();
    struct stat status {};
    if (stat(name, &status) == 0 &&
        log.logfile_identity == FileIdentity{.device = status.st_dev, .inode = status.st_ino}) {
        return;
    }
    Descriptor file = open_for_append(name);
    if (!file || log.logfile_identity == identity_of(file)) {
        return;
    }
    trace(TRACE_DEBUG, "%s: another file", name);
    take_file(log, std::move(file));
    log.torn = false;
    lf_header(name);
}

int logfile_exec(Task *task) {
    trace(TRACE_TRACE, " ");
    std::array<char, 16> id{"CBnn"};
    if (task->id != TASK_ID_UNSET) {
        std::snprintf(id.data(), id.size(), "CB%02d", task->id);
    }
    const bool valid = task_has(task, TASK_VALUE_VALID);
    std::array<char, 16> value{"NaN"};
    if (valid) {
        std::snprintf(value.data(), value.size(), "%d", task->value);
    }
    std::array<char, 1023> text{};
    std::snprintf(text.data(), text.size(), "%s\t%d\t%s", id.data(), task->index, value.data());
    lf_print(valid ? task->state : -1, text.data(), 0);
    return 0;
}

int logfile_run(Task *task) {
    trace(TRACE_DEBUG, " ");
    if (task->do_logfile == 1) {
        logfile_exec(task);
    }
    return 0;
}

int logfile_pass_error() {
    LogfileState &log = logfile_state();
    if (log.pass_error != -1) {
        log.last_error = std::exchange(log.pass_error, -1);
    }
    return log.last_error;
}

int logfile_cleanup() {
    trace(TRACE_DEBUG, " ");
    logfile_state().rotation_end = monotonic_seconds() + LONGEST_LAST_ROTATION;
    lf_print(0, "FINISHED", 1);
    return 0;
}
