#pragma once

// Finds the files of a station's log.

#include "station_log.h"

#include <optional>
#include <string>
#include <vector>

namespace vlog {

/// The files of the log in a folder, oldest first: its generations, then the log itself. The log is "logfile", or the
/// only one with generations. None if the folder cannot be read or has no log; `problem`, if given, says why.
std::optional<std::vector<std::string>> log_paths(const std::string &folder, std::string *problem = nullptr);

/// The stations of the arguments. Each folder is a station, and each STATION=FOLDER; all other files together are one.
/// A file that is named twice is read once. None if an argument is wrong: `problem` says why, and `is_usage` whether
/// the argument itself is invalid.
std::optional<std::vector<StationFiles>> stations_of(const std::vector<std::string> &arguments, std::string *problem,
                                                     bool *is_usage);

} // namespace vlog
