#include "captured_syslog.h"

#include <array>
#include <cstdarg>
#include <cstdio>

namespace {

std::vector<SyslogMessage> &captured_messages() {
    static std::vector<SyslogMessage> messages;
    return messages;
}

std::vector<SyslogOpening> &captured_openings() {
    static std::vector<SyslogOpening> openings;
    return openings;
}

[[gnu::format(printf, 2, 0)]] void capture(int priority, const char *format, std::va_list arguments) {
    std::array<char, 8192> text{};
    std::vsnprintf(text.data(), text.size(), format, arguments);
    captured_messages().push_back({priority, text.data()});
}

} // namespace

// Linked before the C library's own; hardened builds call the second name. <syslog.h> is not included, since it defines
// the first one in such builds.
extern "C" {
void openlog(const char *identity, int options, int facility) {
    captured_openings().push_back({identity, options, facility});
}

[[gnu::format(printf, 2, 3)]] void syslog(int priority, const char *format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    capture(priority, format, arguments);
    va_end(arguments);
}

[[gnu::format(printf, 3, 4)]] void __syslog_chk(int priority, int /*flag*/, const char *format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    capture(priority, format, arguments);
    va_end(arguments);
}
}

CapturedSyslog::CapturedSyslog() {
    captured_messages().clear();
    captured_openings().clear();
}

// NOLINTBEGIN(readability-convert-member-functions-to-static): there is something to read only while one lives
const std::vector<SyslogMessage> &CapturedSyslog::messages() const { return captured_messages(); }

const std::vector<SyslogOpening> &CapturedSyslog::openings() const { return captured_openings(); }
// NOLINTEND(readability-convert-member-functions-to-static)
