#include "trace.h"

#include "log_sockets.h"
#include "text_buffer.h"
#include "time_of_day.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <string_view>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

constinit int trace_mode = TRACE_DEBUG;

namespace {

constexpr int MODE_STDERR = 3;
constexpr std::size_t LINE_SIZE = 1024;

// Asked of the kernel once a thread: every line carries it.
constinit thread_local pid_t thread_id = 0;

void forget_thread_id() { thread_id = 0; }

[[maybe_unused]] const int forgotten_in_children = pthread_atfork(nullptr, nullptr, forget_thread_id);

pid_t own_thread_id() {
    if (thread_id == 0) {
        thread_id = gettid();
    }
    return thread_id;
}

constexpr int journal_priority(int level) {
    switch (level) {
    case TRACE_IMPORTANT:
        return LOG_NOTICE;
    case TRACE_INFO:
        return LOG_INFO;
    default:
        return LOG_DEBUG;
    }
}

char *put_number(char *at, int number) { return std::to_chars(at, at + sizeof "-2147483648", number).ptr; }

char *put_text(char *at, std::string_view text) { return std::copy(text.begin(), text.end(), at); }

char *put_two_digits(char *at, int number) {
    *at++ = static_cast<char>('0' + number / 10);
    *at++ = static_cast<char>('0' + number % 10);
    return at;
}

/// Writes "(level) [thread] hh:mm:ss ", by hand since printf takes as long for it as for the rest of a
/// line. Returns its end, far before that of a line.
char *put_head(char *line, int level) {
    const TimeOfDay now = utc_time_of_day(std::time(nullptr));
    char *at = put_number(put_text(line, "("), level);
    at = put_number(put_text(at, ") ["), own_thread_id());
    at = put_two_digits(put_text(at, "] "), now.hour);
    at = put_two_digits(put_text(at, ":"), now.minute);
    at = put_two_digits(put_text(at, ":"), now.second);
    return put_text(at, " ");
}

void append_place(TextBuffer &line, const char *file, const char *function, const char *source_line) {
    line.append(file);
    line.append(": ");
    line.append(function);
    line.append("(");
    line.append(source_line);
    line.append(") ");
}

/// Fills in what nearly all messages consist of, in a fraction of printf's time: "%s", "%d" and "%02d".
/// False at anything else.
bool append_plain(TextBuffer line, const char *format, std::va_list arguments) {
    for (const char *percent = strchrnul(format, '%'); *percent != '\0'; percent = strchrnul(format, '%')) {
        line.append({format, static_cast<std::size_t>(percent - format)});
        const bool two_digits = percent[1] == '0' && percent[2] == '2';
        const char *letter = percent + (two_digits ? 3 : 1);
        if (*letter == 'd') {
            const int number = va_arg(arguments, int);
            line.append(two_digits && number >= 0 && number < 10 ? "0" : "");
            line.append_number(number);
        } else if (*letter == 's' && !two_digits) {
            const char *text = va_arg(arguments, const char *);
            line.append(text == nullptr ? "(null)" : text);
        } else {
            return false;
        }
        format = letter + 1;
    }
    line.append(format);
    return true;
}

[[gnu::format(printf, 2, 0)]] void append_message(TextBuffer &line, const char *format, std::va_list arguments) {
    std::va_list again;
    va_copy(again, arguments);
    if (!append_plain(line, format, arguments)) {
        line.append_list(format, again);
    }
    va_end(again);
}

} // namespace

const char *trace_level_name(int level) {
    static constexpr std::array<const char *, 4> names{"IMPORTANT", "INFO", "DEBUG", "TRACE"};
    const auto row = static_cast<std::size_t>(level);
    return level >= 0 && row < names.size() ? names[row] : " --- ";
}

void trace_write(int level, const char *code_file, const char *code_line, const char *function, const char *format,
                 ...) {
    const int saved_errno = errno;    // a probe reads it after the call that it traced
    std::array<char, LINE_SIZE> text; // NOLINT(cppcoreguidelines-pro-type-member-init): filled below
    char *const head_end = put_head(text.data(), level);
    TextBuffer line(head_end, static_cast<std::size_t>(text.end() - head_end));
    append_place(line, code_file + std::strlen("CODE_FILE="), function, code_line + std::strlen("CODE_LINE="));
    std::va_list arguments;
    va_start(arguments, format);
    append_message(line, format, arguments);
    va_end(arguments);

    if (trace_mode == MODE_STDERR) {
        std::fprintf(stderr, "%s\n", text.data());
        std::fflush(stderr);
    } else if (!journal_is_full()) {
        journal_note_result(sd_journal_print_with_location(journal_priority(level), code_file, code_line, function,
                                                           "%s\n", text.data()));
    }
    errno = saved_errno;
}
