#pragma once

// The present values for the node exporter's textfile collector.

#include "session.h"

#include <map>
#include <optional>
#include <set>
#include <string>

namespace vlog {

/// What the tail of a log says about one check.
struct Present {
    Definition check;
    std::optional<std::int32_t> value; ///< none when it could not be read
    std::optional<State> state;        ///< none when no value could be read
    Moment time = 0;
};

/// What the tail of a log says.
struct PresentLog {
    std::vector<Present> checks;
    std::map<std::int16_t, std::string> issues; ///< of all checks, with the names of their checks
    bool is_running = false;                    ///< the last sign of life is not FINISHED
    Moment last = 0;                            ///< of the last record
    Level level = Level::all;                   ///< which records are written
};

/// Reads the header and the last of a plain log; none, with what is wrong in `problem`.
std::optional<PresentLog> read_present(const std::string &path, std::string *problem);

/// The text of the file. Lines of the file as it was, `before`, stay for checks of which the log's tail says nothing:
/// some are due once an hour only, and the log may just have been rotated. `raised` are the raised issues, if known.
std::string textfile_text(const PresentLog &log, const std::string &before, Moment now,
                          const std::optional<std::set<std::int16_t>> &raised = std::nullopt);

} // namespace vlog
