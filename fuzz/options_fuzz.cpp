// The command line, one argument per line. open64 is wrapped, so that no log file is ever created.

#include "gdata.h"
#include "support/fuzz.h"
#include "trace.h"
#include "vigmond/options.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <vector>

namespace {

std::string opened; // the last path that could be opened

} // namespace

extern "C" int __real_open64(const char *path, int flags, ...);

/// A path of an odd length cannot be opened.
extern "C" int __wrap_open64(const char *path, int /*flags*/, ...) {
    if (std::strlen(path) % 2 != 0) {
        errno = EACCES;
        return -1;
    }
    opened = path;
    return __real_open64("/dev/null", O_WRONLY | O_CLOEXEC);
}

namespace {

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

void check_settings() {
    PROMISE(gdata_get_logfile() != nullptr);
    PROMISE(gdata_get_logsize() >= LOGSIZE_MIN && gdata_get_logsize() <= LOGSIZE_MAX);
    PROMISE(gdata_get_logcount() >= 0 && gdata_get_logcount() <= LOGCOUNT_MAX);
    PROMISE(gdata_get_loglevel() >= LOGLEVEL_FAIL && gdata_get_loglevel() <= LOGLEVEL_OK);
    PROMISE(gdata_get_severitylevel() >= SEVERITY_CRITICAL && gdata_get_severitylevel() <= SEVERITY_OK);
}

/// An accepted log file must have been opened, and only through the wrapper.
Options eat(std::vector<std::string> &arguments) {
    std::vector<char *> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string &argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    const std::string before = gdata_get_logfile();
    const Options options = eat_arguments(static_cast<int>(arguments.size()), argv.data());
    PROMISE(gdata_get_logfile() == before || gdata_get_logfile() == opened);
    gdata_set_commandline(static_cast<int>(arguments.size()), argv.data());
    return options;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    stderr = std::fopen("/dev/null", "we"); // the fuzzer keeps its own
    std::vector<std::string> arguments{"vigmond", "-L", "even"};
    eat(arguments);
    PROMISE(opened == "even");
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    std::vector<std::string> arguments = lines_of(text_of(data, size));
    const std::size_t longest = arguments.empty() ? std::string::npos : arguments.front().size();

    trace_mode = TRACE_DEBUG;
    const Options options = eat(arguments);
    PROMISE(options.program != nullptr && std::strchr(options.program, '/') == nullptr);
    PROMISE(std::strlen(options.program) <= longest);
    check_settings();
    usage(2, options.program, nullptr); // as at the end of the program's start
    return 0;
}
