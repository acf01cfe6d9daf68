#pragma once

// The current values for the node exporter's textfile collector.

#include "session.h"

#include <map>
#include <optional>
#include <set>
#include <string>

namespace vlog {

/// The latest value and state of one check in the tail of a log.
struct Present {
    Definition check;
    std::optional<std::int32_t> value; ///< none if it could not be read
    std::optional<State> state;        ///< none if no value could be read
    Moment time = 0;
};

/// The result of reading the tail of a log.
struct PresentLog {
    std::vector<Present> checks;
    std::map<std::int16_t, std::string> issues; ///< the issues of the log and the names of their checks
    bool is_running = false;                    ///< FINISHED is not the last event
    Moment last = 0;                            ///< time of the last record
    Level level = Level::all;                   ///< which records the daemon writes
};

/// Reads the header and the tail of a plain log. None on failure; `problem` says why.
std::optional<PresentLog> read_present(const std::string &path, std::string *problem);

/// The text of the file. Lines of the old text, `before`, are kept for checks that are missing from the log's tail:
/// some are due only once an hour, and the log may just have been rotated. `raised` are the raised issues, if known.
std::string textfile_text(const PresentLog &log, const std::string &before, Moment now,
                          const std::optional<std::set<std::int16_t>> &raised = std::nullopt);

} // namespace vlog
