#pragma once

// The command line.

/// What `main` does once the options are parsed.
enum class OptionsOutcome {
    run,    ///< start, or dump if asked to
    helped, ///< -h: exit with 0
    failed, ///< an unknown option: exit with 255
    version ///< -v: exit with 0 at once and print nothing more
};

struct Options {
    const char *program; ///< argv[0] after its last slash, borrowed
    bool dump_requested;
    OptionsOutcome outcome;
};

/// Applies the options to the settings; prints warnings and the version to stderr. Permutes argv. An invalid
/// value is never fatal.
Options eat_arguments(int argc, char *argv[]);

/// Prints "program: message" to stderr when a format is given. Mode 0 only counts the call; mode 2
/// prints the usage text if a call was counted; mode 1 prints it in any case.
[[gnu::format(printf, 3, 4)]] void usage(int mode, const char *program, const char *format, ...);
