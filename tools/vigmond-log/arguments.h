#pragma once

// The command line of vigmond-log.

#include "line.h"

#include <optional>
#include <string>
#include <vector>

namespace vlog {

enum class Command : std::uint8_t { show, changes, summary, plot, export_data };
enum class Format : std::uint8_t { none, csv, jsonl, openmetrics };

struct Arguments {
    Command command = Command::summary;
    std::vector<std::string> inputs; ///< as given; empty for the log of this station
    std::string since;
    std::string until;
    std::string timezone;
    std::string output; ///< a file; empty for standard output
    std::string textfile;
    std::optional<std::int16_t> issue;
    std::optional<State> state;
    Format format = Format::none;
    bool json = false;
    bool bus = false;
    bool help = false;
    bool version = false;
};

/// Reads the command line. None if it is wrong; `problem` says why.
std::optional<Arguments> read_arguments(int argc, char **argv, std::string *problem);

/// The text of --help.
extern const char *const USAGE;

} // namespace vlog
