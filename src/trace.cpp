#include "trace.h"

#include "log_sockets.h"
#include "text_buffer.h"
#include "time_of_day.h"

#include <algorithm>
#include <array>
#include <atomic>
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
constexpr std::size_t TRACE_SIZE = 1024;

/// ") [thread] hh:mm:ss ", part of each line. Each thread formats it once a second.
struct Stamp {
    std::time_t second;
    std::size_t time_at; ///< offset of the time; 0: the thread's id is not known yet
    std::size_t length;
    std::array<char, 32> text;
};

constinit thread_local Stamp last_stamp{};

void forget_stamp() { last_stamp = {}; }

[[maybe_unused]] const int FORGOTTEN_IN_CHILDREN = pthread_atfork(nullptr, nullptr, forget_stamp);

/// Lost lines, since the last report and since the start.
constinit std::atomic<unsigned> lost_lines = 0;
constinit std::atomic<unsigned> total_lost_lines = 0;

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

void renew_stamp(std::time_t second) {
    char *const start = last_stamp.text.data();
    if (last_stamp.time_at == 0) {
        const char *end = put_text(put_number(put_text(start, ") ["), gettid()), "] ");
        last_stamp.time_at = static_cast<std::size_t>(end - start);
    }
    const TimeOfDay now = utc_time_of_day(second);
    char *at = put_two_digits(start + last_stamp.time_at, now.hour);
    at = put_two_digits(put_text(at, ":"), now.minute);
    at = put_text(put_two_digits(put_text(at, ":"), now.second), " ");
    last_stamp.length = static_cast<std::size_t>(at - start);
    last_stamp.second = second;
}

/// Writes "(level) [thread] hh:mm:ss " and returns its end. It always fits in a line.
char *put_head(char *line, int level) {
    const std::time_t now = std::time(nullptr);
    if (now != last_stamp.second || last_stamp.time_at == 0) {
        renew_stamp(now);
    }
    char *const at = put_number(put_text(line, "("), level);
    std::copy(last_stamp.text.begin(), last_stamp.text.end(), at); // all of it: a constant size needs no call of memcpy
    return at + last_stamp.length;
}

/// The location of a trace; the first two as journal fields.
struct Place {
    const char *file;
    const char *line;
    const char *function;
};

using LineText = std::array<char, TRACE_SIZE>;

/// Writes everything that precedes the message.
TextBuffer begin_line(LineText *text, int level, const Place &place) {
    char *const head_end = put_head(text->data(), level);
    TextBuffer line(head_end, static_cast<std::size_t>(text->end() - head_end));
    line.append(place.file + std::strlen("CODE_FILE="));
    line.append(": ");
    line.append(place.function);
    line.append("(");
    line.append(place.line + std::strlen("CODE_LINE="));
    line.append(") ");
    return line;
}

/// False if the journal refused the line.
bool send(int level, const Place &place, const LineText &text) {
    const int result = sd_journal_print_with_location(journal_priority(level), place.file, place.line, place.function,
                                                      "%s\n", text.data());
    journal_note_result(result);
    return result >= 0;
}

/// Traces how many lines were lost; false if the journal refuses that too.
bool report_lost_lines() {
    constexpr Place place{"CODE_FILE=" TRACE_FILE, "CODE_LINE=" TRACE_STRING(__LINE__), "trace_write"};
    const unsigned count = lost_lines.exchange(0, std::memory_order_relaxed);
    LineText text; // NOLINT(cppcoreguidelines-pro-type-member-init): filled below
    TextBuffer line = begin_line(&text, TRACE_IMPORTANT, place);
    line.append_format("%u traces lost", count);
    const bool reported = count == 0 || send(TRACE_IMPORTANT, place, text);
    if (!reported) {
        lost_lines.fetch_add(count, std::memory_order_relaxed);
    }
    return reported;
}

void write_to_journal(int level, const Place &place, const LineText &text) {
    const bool reported =
        lost_lines.load(std::memory_order_relaxed) == 0 || (!journal_is_paused() && report_lost_lines());
    if (!reported || !send(level, place, text)) {
        lost_lines.fetch_add(1, std::memory_order_relaxed);
        total_lost_lines.fetch_add(1, std::memory_order_relaxed);
    }
}

} // namespace

unsigned trace_lost_lines() { return total_lost_lines.load(std::memory_order_relaxed); }

const char *trace_level_name(int level) {
    static constexpr std::array<const char *, 4> names{"IMPORTANT", "INFO", "DEBUG", "TRACE"};
    const auto row = static_cast<std::size_t>(level);
    return level >= 0 && row < names.size() ? names[row] : " --- ";
}

void trace_write(int level, const char *code_file, const char *code_line, const char *function, const char *format,
                 ...) {
    const int saved_errno = errno; // probes read errno after tracing a call
    const Place place{code_file, code_line, function};
    LineText text; // NOLINT(cppcoreguidelines-pro-type-member-init): filled below
    TextBuffer line = begin_line(&text, level, place);
    std::va_list arguments;
    va_start(arguments, format);
    line.append_list(format, arguments);
    va_end(arguments);

    if (trace_mode == MODE_STDERR) {
        std::fprintf(stderr, "%s\n", text.data());
        std::fflush(stderr);
    } else {
        write_to_journal(level, place, text);
    }
    errno = saved_errno;
}
