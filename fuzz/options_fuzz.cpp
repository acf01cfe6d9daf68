// The command line: one argument a line of the input. The program is linked so that fopen passes by
// here, and no log file is ever made.

#include "gdata.h"
#include "support/fuzz.h"
#include "trace.h"
#include "vigmond/options.h"

#include <cerrno>
#include <cstring>
#include <vector>

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the linker's names
extern "C" std::FILE *__real_fopen64(const char *path, const char *mode);

/// A path of an odd length cannot be opened.
extern "C" std::FILE *__wrap_fopen64(const char *path, const char *mode) {
    if (std::strlen(path) % 2 != 0) {
        errno = EACCES;
        return nullptr;
    }
    return __real_fopen64("/dev/null", mode);
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

extern "C" int LLVMFuzzerInitialize(int * /*argc*/, char *** /*argv*/) {
    stderr = __real_fopen64("/dev/null", "we"); // the fuzzer keeps its own
    return 0;
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

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    std::vector<std::string> arguments = lines_of(text_of(data, size));
    std::vector<char *> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string &argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    const char *program = argv[0];

    trace_mode = TRACE_DEBUG;
    const Options options = eat_arguments(static_cast<int>(arguments.size()), argv.data());
    PROMISE(options.program != nullptr && std::strchr(options.program, '/') == nullptr);
    PROMISE(program == nullptr || std::strlen(options.program) <= std::strlen(program));
    check_settings();
    usage(2, options.program, nullptr); // as the program's start ends
    gdata_set_commandline(static_cast<int>(arguments.size()), argv.data());
    return 0;
}
