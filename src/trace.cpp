#include "trace.h"

#include "log_sockets.h"
#include "time_of_day.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

constinit int trace_mode = TRACE_DEBUG;

namespace {

constexpr int MODE_STDERR = 3;
constexpr std::size_t LINE_SIZE = 1024;

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

/// What snprintf left in a buffer of `size` bytes when it returned `result`.
constexpr std::size_t written(int result, std::size_t size) {
    return result < 0 ? 0 : std::min(static_cast<std::size_t>(result), size - 1);
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
    std::array<char, LINE_SIZE> line; // NOLINT(cppcoreguidelines-pro-type-member-init): filled below
    const TimeOfDay now = utc_time_of_day(std::time(nullptr));

    const std::size_t used =
        written(std::snprintf(line.data(), line.size(), "(%d) [%u] %02d:%02d:%02d %s: %s(%s) ", level,
                              static_cast<unsigned>(gettid()), now.hour, now.minute, now.second,
                              code_file + std::strlen("CODE_FILE="), function, code_line + std::strlen("CODE_LINE=")),
                line.size());
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line.data() + used, line.size() - used, format, arguments);
    va_end(arguments);

    if (trace_mode == MODE_STDERR) {
        std::fprintf(stderr, "%s\n", line.data());
        std::fflush(stderr);
    } else if (!journal_is_full()) {
        journal_note_result(sd_journal_print_with_location(journal_priority(level), code_file, code_line, function,
                                                           "%s\n", line.data()));
    }
    errno = saved_errno;
}
