#include "line_tap.h"

#include <systemd/sd-journal.h>

constinit LineTap line_tap = nullptr;

// Replaces the library's function and behaves like it, except for the tap.
extern "C" int sd_journal_print_with_location(int priority, const char *file, const char *line, const char *function,
                                              const char *format, ...) {
    std::va_list arguments;
    if (line_tap != nullptr) {
        va_start(arguments, format);
        const bool goes_on = line_tap(priority, file, line, function, format, arguments);
        va_end(arguments);
        if (!goes_on) {
            return 0;
        }
    }
    va_start(arguments, format);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const int result = sd_journal_printv_with_location(priority, file, line, function, format, arguments);
#pragma GCC diagnostic pop
    va_end(arguments);
    return result;
}
