#include "output.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <sys/stat.h>

namespace vlog {

namespace {

/// The file that the signal handler removes. Changed only while the signals are blocked.
constinit std::array<char, 4096> unfinished_file{};

constexpr std::array ENDING_SIGNALS{SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE};

void remove_and_end(int signo) {
    unlink(unfinished_file.data());
    signal(signo, SIG_DFL);
    raise(signo);
}

/// Blocks the signals that end the program, so that none arrives between creating a file and registering it.
class ScopedSignalBlock {
  public:
    ScopedSignalBlock() {
        sigset_t blocked;
        sigemptyset(&blocked);
        for (const int signo : ENDING_SIGNALS) {
            sigaddset(&blocked, signo);
        }
        pthread_sigmask(SIG_BLOCK, &blocked, &before_);
    }
    ~ScopedSignalBlock() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    ScopedSignalBlock(const ScopedSignalBlock &) = delete;
    ScopedSignalBlock &operator=(const ScopedSignalBlock &) = delete;

  private:
    sigset_t before_{};
};

/// Sets the file that the handler removes; none if empty. The signals must be blocked.
void set_unfinished(const std::string &path) {
    std::snprintf(unfinished_file.data(), unfinished_file.size(), "%s", path.c_str());
    for (const int signo : ENDING_SIGNALS) {
        struct sigaction action {};
        sigaction(signo, nullptr, &action);
        if (action.sa_handler != SIG_IGN) {
            action.sa_handler = path.empty() ? SIG_DFL : remove_and_end;
            sigaction(signo, &action, nullptr);
        }
    }
}

/// The length of the UTF-8 character at the front; 0 if it is invalid.
std::size_t utf8_length(std::string_view text) {
    const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
    const std::size_t length = byte(0) < 0x80                      ? 1
                               : byte(0) >= 0xC2 && byte(0) < 0xE0 ? 2
                               : (byte(0) & 0xF0) == 0xE0          ? 3
                               : byte(0) >= 0xF0 && byte(0) < 0xF5 ? 4
                                                                   : 0;
    if (length > text.size()) {
        return 0;
    }
    for (std::size_t at = 1; at < length; ++at) {
        if ((byte(at) & 0xC0) != 0x80) {
            return 0;
        }
    }
    if (length > 2) { // overlong, a surrogate, or above U+10FFFF
        const unsigned front = byte(0) * 256U + byte(1);
        const bool is_bad = (front >= 0xE080 && front < 0xE0A0) || (front >= 0xEDA0 && front < 0xEE00) ||
                            (front >= 0xF080 && front < 0xF090) || front >= 0xF490;
        return is_bad ? 0 : length;
    }
    return length;
}

} // namespace

Output::Output(std::string path) : path_(std::move(path)) {
    if (path_.empty()) {
        return;
    }
    const std::size_t slash = path_.rfind('/');
    const std::size_t name = slash == std::string::npos ? 0 : slash + 1;
    temporary_ = path_.substr(0, name) + "." + path_.substr(name) + ".XXXXXX";
    const ScopedSignalBlock block;
    Descriptor file(mkostemp(temporary_.data(), O_CLOEXEC));
    if (!file) {
        problem_ = path_ + ": " + std::strerror(errno);
        temporary_.clear();
        return;
    }
    set_unfinished(temporary_);
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(file.get(), 0666 & ~mask);
    file_ = stream_on(std::move(file), "w");
}

Output::~Output() {
    if (!temporary_.empty()) {
        const ScopedSignalBlock block;
        unlink(temporary_.c_str());
        set_unfinished("");
    }
}

void Output::print(const char *format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stream(), format, arguments);
    va_end(arguments);
}

bool Output::finish() {
    if (!problem_.empty()) {
        return false;
    }
    const bool is_written = std::fflush(stream()) == 0 && std::ferror(stream()) == 0 &&
                            (temporary_.empty() || fsync(fileno(stream())) == 0 || errno == EINVAL);
    if (!is_written || (!temporary_.empty() && rename(temporary_.c_str(), path_.c_str()) != 0)) {
        problem_ = (path_.empty() ? "standard output" : path_) + ": " + std::strerror(errno);
        return false;
    }
    if (!temporary_.empty()) {
        const ScopedSignalBlock block;
        temporary_.clear();
        set_unfinished("");
    }
    return true;
}

bool Output::is_terminal() const { return path_.empty() && isatty(STDOUT_FILENO) == 1; }

std::string utf8_text(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        result += length == 0 ? "\xEF\xBF\xBD" : std::string(text.substr(0, length));
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return result;
}

std::string json_text(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const auto first = static_cast<unsigned char>(text.front());
        const std::size_t length = utf8_length(text);
        std::array<char, 8> escaped{};
        if (length == 0) {
            result += "\\ufffd";
        } else if (first == '"' || first == '\\') {
            result += {'\\', text.front()};
        } else if (first < ' ' || first == '<' || first == '>' || first == '&' || first == 127) { // < > & for HTML
            std::snprintf(escaped.data(), escaped.size(), "\\u%04x", first);
            result += escaped.data();
        } else {
            result += text.substr(0, length);
        }
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return result;
}

std::string duration_text(std::int64_t seconds) {
    struct Unit {
        const char *name;
        std::int64_t seconds;
    };
    std::string text;
    for (const Unit &unit : {Unit{"d", 86400}, Unit{"h", 3600}, Unit{"min", 60}, Unit{"s", 1}}) {
        if (seconds >= unit.seconds) {
            text += (text.empty() ? "" : " ") + std::to_string(seconds / unit.seconds) + unit.name;
            seconds %= unit.seconds;
        }
    }
    return text.empty() ? "0s" : text;
}

} // namespace vlog
