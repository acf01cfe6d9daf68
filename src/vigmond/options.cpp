#include "vigmond/options.h"

#include "gdata.h"
#include "revision.h"
#include "trace.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <span>
#include <strings.h>

namespace {

constexpr std::int32_t KIB = 1024;
constexpr const char *VERSION = "Revision: " REVISION_VERSION " -- GIT-ID: " REVISION_GIT_ID;

constinit int usage_count = 0;

/// The usage text says "fail" for severity 3 though only "failed" is accepted; kept.
const char *usage_severity_name(std::int32_t level) {
    return level == SEVERITY_FAILED ? "fail" : gdata_severitylevel_name(level);
}

void print_usage_text(const char *prog) {
    std::fprintf(stderr, "usage:\n");
    std::fprintf(stderr, "%s [-h|--help] | [-d|--dump] [-v|--version]\n", prog);
    std::fprintf(stderr,
                 "%s [[-D|--debug] [-s SEV|--severitylevel=SEV] [-L FILE|--logfile=FILE] [-S SIZE|--logfilesize=SIZE] "
                 "[-l LEVEL|--loglevel=LEVEL]]\n",
                 prog);
    std::fprintf(stderr, "    -h, --help      this message\n"
                         "    -d, --dump      dump internal configuration (can be used as configuration file).\n"
                         "    -D, --debug     enable tracing output - send all output to stderr.\n");
    std::fprintf(stderr,
                 "    -L FILE, --logfile=FILE\n"
                 "                use \"FILE\" for logging (default: %s)\n",
                 gdata_get_logfile());
    std::fprintf(stderr,
                 "    -S SIZE, --logfilesize=SIZE\n"
                 "                use \"SIZE\" for maximum logfile size in KB (default: %d - min: %d, max: %d)\n",
                 gdata_get_logsize() / KIB, LOGSIZE_MIN / KIB, LOGSIZE_MAX / KIB);
    std::fprintf(
        stderr,
        "    -C CNT,  --logfilecount=CNT\n"
        "                use \"CNT\" for maximum number of logfiles preserved (default: %d - min: %d, max: %d)\n",
        gdata_get_logcount(), 0, LOGCOUNT_MAX);
    std::fprintf(stderr,
                 "    -l LEVEL, --loglevel=LEVEL\n"
                 "                use \"LEVEL\" for logging level (default: %s)\n"
                 "                valid values: %s, %s, or %s)\n",
                 gdata_loglevel_name(gdata_get_loglevel()), "fail", "warning", "OK");
    std::fprintf(stderr,
                 "    -s SEV, --severitylevel=SEV\n"
                 "                use \"SEV\" for severitylevel level (default: %s)\n"
                 "                valid values: %s, %s, %s, or %s)\n",
                 usage_severity_name(gdata_get_severitylevel()), "critical", "fail", "warning", "OK");
    std::fprintf(stderr, "    -v, --version   print git-commit ID.\n");
}

/// A decimal number as parsed by strtol, clamped so that 1024 times the number fits.
std::int64_t parse_number(const char *text) {
    constexpr std::int64_t limit = std::int64_t{1} << 31;
    return std::clamp<std::int64_t>(std::strtol(text, nullptr, 10), -limit, limit);
}

std::int32_t to_int32(std::int64_t number) {
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(number, INT32_MIN, INT32_MAX));
}

void warn_invalid_value(const char *prog, char option, const char *given, std::int32_t used) {
    usage(0, prog, "WARNING: option -%c: invalid value \"%s\" - using \"%d\" instead.", option, given, used);
}

void warn_invalid_argument(const char *prog, char option, const char *given, const char *used) {
    usage(0, prog, "WARNING: option -%c: invalid argument \"%s\" - using \"%s\" instead.", option, given, used);
}

void set_logcount(const char *prog, const char *text) {
    const std::int64_t count = parse_number(text);
    if (gdata_set_logcount(to_int32(count)) != count) {
        warn_invalid_value(prog, 'C', text, gdata_get_logcount());
    }
}

void set_logsize(const char *prog, const char *text) {
    const std::int64_t bytes = parse_number(text) * KIB;
    if (gdata_set_logsize(to_int32(bytes)) != bytes) {
        warn_invalid_value(prog, 'S', text, gdata_get_logsize() / KIB);
    }
}

void set_logfile(const char *prog, const char *path) {
    if (gdata_can_log_to(path) && std::strcmp(gdata_set_logfile(path), path) == 0) {
        return;
    }
    const int error = errno; // of the open, or of the copy when out of memory
    usage(0, prog, "WARNING: option -%c: \"%s\": %s - using \"%s\" instead.", 'L', path, std::strerror(error),
          gdata_get_logfile());
}

/// The row named `text`, ignoring case; null if absent.
const LevelName *find_level(std::span<const LevelName> table, const char *text) {
    const auto row = std::find_if(table.begin(), table.end(),
                                  [text](const LevelName &entry) { return strcasecmp(entry.name, text) == 0; });
    return row == table.end() ? nullptr : &*row;
}

void set_loglevel(const char *prog, const char *text) {
    if (const LevelName *row = find_level(LOG_LEVELS, text)) {
        gdata_set_loglevel(row->level);
    } else {
        warn_invalid_argument(prog, 'l', text, gdata_loglevel_name(gdata_get_loglevel()));
    }
}

void set_severitylevel(const char *prog, const char *text) {
    if (const LevelName *row = find_level(SEVERITY_LEVELS, text)) {
        gdata_set_severitylevel(row->level);
    } else {
        warn_invalid_argument(prog, 's', text, gdata_severitylevel_name(gdata_get_severitylevel()));
    }
}

void show_help(Options &options) {
    trace_at(TRACE_TRACE, "vigmond.c", "eat_arguments", 276, " "); // both locations are fixed
    usage(0, options.program, nullptr);
    trace_at(TRACE_TRACE, "vigmond.c", "eat_arguments", 278, " ");
    if (options.outcome != OptionsOutcome::failed) {
        options.outcome = OptionsOutcome::helped;
    }
}

void reject(Options &options, int option) {
    options.outcome = OptionsOutcome::failed;
    const int character = optopt != 0 ? optopt : option; // 0 for an unknown long option
    usage(0, options.program, "WARNING: invalid option -%c - ignored.", character);
}

void apply(Options &options, int option) {
    switch (option) {
    case 'd':
        options.dump_requested = true;
        break;
    case 'D':
        trace_mode = TRACE_TRACE;
        break;
    case 'h':
        show_help(options);
        break;
    case 'v':
        std::fprintf(stderr, "Version Data: %s\n", VERSION);
        options.outcome = OptionsOutcome::version;
        break;
    case 'L':
        set_logfile(options.program, optarg);
        break;
    case 'S':
        set_logsize(options.program, optarg);
        break;
    case 'C':
        set_logcount(options.program, optarg);
        break;
    case 'l':
        set_loglevel(options.program, optarg);
        break;
    case 's':
        set_severitylevel(options.program, optarg);
        break;
    default:
        reject(options, option);
        break;
    }
}

constexpr std::array<option, 10> LONG_OPTIONS{{
    {"help", no_argument, nullptr, 'h'},
    {"dump", no_argument, nullptr, 'd'},
    {"debug", no_argument, nullptr, 'D'},
    {"version", no_argument, nullptr, 'v'},
    {"logfile", required_argument, nullptr, 'L'},
    {"logfilesize", required_argument, nullptr, 'S'},
    {"logfilecount", required_argument, nullptr, 'C'},
    {"loglevel", required_argument, nullptr, 'l'},
    {"severitylevel", required_argument, nullptr, 's'},
    {nullptr, 0, nullptr, 0},
}};

const char *program_name(char *const argv[]) {
    if (argv[0] == nullptr) {
        return "";
    }
    const char *slash = std::strrchr(argv[0], '/');
    return slash == nullptr ? argv[0] : slash + 1;
}

} // namespace

void usage(int mode, const char *prog, const char *format, ...) {
    trace(TRACE_TRACE, " ");
    if (format != nullptr) {
        std::fprintf(stderr, "%s: ", prog);
        std::va_list arguments;
        va_start(arguments, format);
        std::vfprintf(stderr, format, arguments);
        va_end(arguments);
        std::fputc('\n', stderr);
    }
    if (mode == 0) {
        ++usage_count;
    } else if (mode == 2 && usage_count == 0) {
        usage_count = 1;
    } else {
        print_usage_text(prog);
    }
}

Options eat_arguments(int argc, char *argv[]) {
    Options options{.program = program_name(argv), .dump_requested = false, .outcome = OptionsOutcome::run};
    opterr = 0;
    optind = 0; // restart, for tests that parse more than once
    while (options.outcome != OptionsOutcome::version) {
        const int option = getopt_long(argc, argv, "dDhvl:L:C:S:s:", LONG_OPTIONS.data(), nullptr);
        if (option == -1) {
            break;
        }
        apply(options, option);
    }
    return options;
}
