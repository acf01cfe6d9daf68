#pragma once

// Which files make up a station's log.

#include "station_log.h"

#include <optional>
#include <string>
#include <vector>

namespace vlog {

/// The files of the log in a folder, oldest first: its generations, then the log itself. The log is "logfile" or the
/// only one that has generations. None when the folder cannot be read or has no log; `problem`, if given, says why.
std::optional<std::vector<std::string>> log_paths(const std::string &folder, std::string *problem = nullptr);

/// The stations that the arguments name: each folder is one, and STATION=FOLDER; all other files are one together. A
/// file that is named twice is read once. None when something is wrong with an argument: `problem` says what, and
/// `is_usage` whether it is the argument itself.
std::optional<std::vector<StationFiles>> stations_of(const std::vector<std::string> &arguments, std::string *problem,
                                                     bool *is_usage);

} // namespace vlog
