#include "logger.h"

#include "log_sockets.h"
#include "trace.h"

#include <charconv>
#include <string_view>
#include <syslog.h>

constinit const std::array<LoggerState, 7> logger_state_table{{
    {.state = -2, .priority = LOG_ERR, .label = "failed", .description = "minimum failure"},
    {.state = -1, .priority = LOG_WARNING, .label = "warning", .description = "minimum warning"},
    {.state = 0, .priority = LOG_NOTICE, .label = "notice", .description = "OK"},
    {.state = 1, .priority = LOG_WARNING, .label = "warning", .description = "maximum warning"},
    {.state = 2, .priority = LOG_ERR, .label = "failed", .description = "maximum failure"},
    {.state = 3, .priority = LOG_WARNING, .label = "warning", .description = "warning"},
    {.state = 4, .priority = LOG_ERR, .label = "fail", .description = "fail"},
}};

namespace {

constexpr std::size_t SENTENCE_SIZE = 1023;

/// For a state without a row: passes every severity level, with its own priority.
constexpr LoggerState UNKNOWN_STATE{.state = 0, .priority = -1, .label = "unknown", .description = "unknown"};

constinit int syslog_opened = 0;
constinit int lost_sentences = 0; ///< since the last report

const LoggerState &row_of(int state) {
    const LoggerState *row = logger_state_row(logger_state_table, state);
    return row == nullptr ? UNKNOWN_STATE : *row;
}

void open_syslog() { openlog("vigmond", LOG_PID | LOG_CONS, LOG_DAEMON); }

bool has_template(const Task *task) { return task_has(task, TASK_HAS_FORMAT) && task->format != nullptr; }

bool has_sentence(const Task *task) { return has_template(task) && *task->format != '\0'; }

/// States without a limit of their own use the upper failure limit.
std::int32_t threshold_of(const Task *task) {
    switch (task->state) {
    case -2:
        return task->minfail;
    case -1:
        return task->minwarn;
    case 1:
        return task->maxwarn;
    default:
        return task->maxfail;
    }
}

std::string_view direction_text(const Task *task) {
    if (task->state == 0) {
        return "at";
    }
    return task->state < 0 ? "below" : "above";
}

using NumberText = std::array<char, 12>; // "-2147483648"

std::string_view threshold_text(const Task *task, NumberText &number) {
    if (task->state == 0) {
        return "normal";
    }
    const char *end = std::to_chars(number.data(), number.data() + number.size(), threshold_of(task)).ptr;
    return {number.data(), static_cast<std::size_t>(end - number.data())};
}

/// The replacement for '%' and `letter`; empty for an unknown letter.
std::string_view insertion(const Task *task, char letter, NumberText &number) {
    switch (letter) {
    case '%':
        return "%";
    case 'P':
        return task_has(task, TASK_HAS_PARAMETER) && task->parameter != nullptr ? task->parameter : "";
    case 'D':
        return direction_text(task);
    case 'T':
        return threshold_text(task, number);
    default:
        return {};
    }
}

void append_comparison(TextBuffer &line, const Task *task) {
    if (task->state == 0) {
        line.append_format("is %s", row_of(0).description);
        return;
    }
    line.append_format("is %s %s threshold %d", task->state < 0 ? "below" : "above", row_of(task->state).description,
                       threshold_of(task));
}

} // namespace

const LoggerState *logger_state_row(std::span<const LoggerState> table, int state) {
    for (std::size_t row = table.size(); row > 0; --row) {
        if (table[row - 1].state == state) {
            return &table[row - 1];
        }
    }
    return nullptr;
}

int logger_init() {
    trace(TRACE_INFO, " ");
    if (syslog_opened == 0) {
        open_syslog();
    }
    const std::int32_t severity = gdata_set_severitylevel(gdata_get_severitylevel());
    // The severity level is looked up as if it were a state; the resulting labels are kept.
    trace(TRACE_TRACE, "severity_level: %s", row_of(severity).label);
    syslog_opened = 1;
    trace(TRACE_TRACE, "DONE");
    return 0;
}

int logger(Task *task) {
    trace(TRACE_DEBUG, " ");
    if (task->logging.run == nullptr) {
        return -1;
    }
    const int result = task->logging.run(task);
    task->do_log = 0;
    return result;
}

void logger_syslog(int state, const char *text) {
    trace(TRACE_TRACE, " ");
    if (syslog_opened == 0) {
        return;
    }
    const LoggerState &row = row_of(state);
    if (gdata_get_severitylevel() < row.priority) {
        return;
    }
    trace(TRACE_TRACE, "======= %d: %s =======", state, text);
    if (!syslog_has_room()) {
        trace(TRACE_DEBUG, "syslog is not read, the message is lost");
        ++lost_sentences;
        return;
    }
    syslog(row.priority, "[%s] %s", row.label, text);
    // Unread sentences fill the send buffer of their socket, which can block while the reader's queue still has room.
    // So each sentence gets a socket of its own.
    closelog();
    open_syslog();
}

void logger_tell_lost() {
    if (lost_sentences != 0 && syslog_has_room()) {
        trace(TRACE_IMPORTANT, "%d sentences lost, syslog was not read", lost_sentences);
        lost_sentences = 0;
    }
}

int logger_format(char *buffer, std::size_t size, const Task *task) {
    trace(TRACE_TRACE, " ");
    if (!has_template(task)) {
        return -1;
    }
    TextBuffer text(buffer, size);
    bool fits = true;
    for (const char *at = task->format; fits && *at != '\0'; ++at) {
        if (*at != '%') {
            fits = text.append(*at);
            continue;
        }
        const char letter = *++at;
        if (letter == '\0') {
            break;
        }
        trace(TRACE_TRACE, "%%%c", letter);
        NumberText number{};
        const std::string_view inserted = insertion(task, letter, number);
        if (inserted.empty() || inserted.size() > text.remaining()) {
            fits = letter != '%'; // a percent sign that does not fit ends the line, like text
            continue;
        }
        if (letter == 'P' || letter == 'T') {
            trace(TRACE_TRACE, "to %lu(%d) buf[%d] %lu(%d)", static_cast<unsigned long>(inserted.size()),
                  static_cast<int>(text.remaining() + 1), static_cast<int>(size - text.remaining() - 1),
                  static_cast<unsigned long>(inserted.size()), static_cast<int>(size));
        }
        text.append(inserted);
    }
    trace(TRACE_DEBUG, "%s", text.c_str());
    return 0;
}

void logger_id_prefix(char *buffer, std::size_t size, const Task *task) {
    trace(TRACE_TRACE, " ");
    if (size == 0) {
        return;
    }
    TextBuffer text(buffer, size);
    if (task->id == TASK_ID_UNSET) {
        text.append_format("ID: CBnn[%d]: ", task->index);
    } else {
        text.append_format("ID: CB%02d[%d]: ", task->id, task->index);
    }
    buffer[size - 1] = '\0';
}

TextBuffer logger_value_line(std::span<char> buffer, const Task *task) {
    logger_id_prefix(buffer.data(), buffer.size(), task);
    TextBuffer line = TextBuffer::after(buffer.data(), buffer.size());
    line.append_format("value: %d ", task->value);
    return line;
}

int bool_logger(Task *task) {
    trace(TRACE_DEBUG, " ");
    if (task->do_log == 1) {
        trace(TRACE_TRACE, "ID: CB%02d[%d], state: %d", task->id, task->index, task->state);
        std::array<char, SENTENCE_SIZE> line{};
        logger_id_prefix(line.data(), line.size(), task);
        if (has_sentence(task)) {
            logger_format(line.data(), line.size(), task); // overwrites the prefix, unlike threshold_logger
        } else {
            TextBuffer::after(line.data(), line.size()).append(task->state == 0 ? "OK" : "failed");
        }
        logger_syslog(task->state, line.data());
    }
    task->do_log = 0;
    return 0;
}

int threshold_logger(Task *task) {
    trace(TRACE_DEBUG, " ");
    if (task->do_log == 1) {
        trace(TRACE_TRACE, "ID: CB%02d[%d], state: %d", task->id, task->index, task->state);
        std::array<char, SENTENCE_SIZE> buffer{};
        TextBuffer line = logger_value_line(buffer, task);
        if (has_sentence(task)) {
            logger_format(line.end(), line.remaining() + 1, task);
        } else {
            append_comparison(line, task);
        }
        logger_syslog(task->state, buffer.data());
    }
    task->do_log = 0;
    return 0;
}

int common_logger(Task *task) {
    trace(TRACE_DEBUG, " ");
    return threshold_logger(task);
}

int NULL_logger(Task *task) {
    trace(TRACE_DEBUG, " ");
    if (task->do_log != 0) {
        trace(TRACE_TRACE, "skip logging ID: CB%02d[%d], state: %d", task->id, task->index, task->state);
    }
    task->do_log = 0;
    return 0;
}
