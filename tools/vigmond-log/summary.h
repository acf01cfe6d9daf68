#pragma once

// The summary of a station's log.

#include "session.h"
#include "timeline.h"
#include "value_counts.h"

#include <array>
#include <optional>
#include <string>
#include <vector>

namespace vlog {

struct CheckSummary {
    Definition check;
    std::uint64_t samples = 0;
    std::uint64_t unreadable = 0;
    std::optional<std::int32_t> min;
    std::optional<std::int32_t> median; ///< median and p95 are values that occurred
    std::optional<std::int32_t> p95;
    std::optional<std::int32_t> max;
    std::array<std::int64_t, STATE_COUNT> seconds{}; ///< in each state
    std::uint64_t changes = 0;
    std::optional<State> state; ///< the last
};

struct StationSummary {
    std::string station;
    std::optional<Moment> first;
    std::optional<Moment> last;
    std::uint64_t records = 0;
    std::uint64_t foreign_lines = 0;
    std::uint64_t starts = 0;
    std::uint64_t unclean_ends = 0;
    std::uint64_t gaps = 0;
    std::uint64_t leaps = 0; ///< of the clock
    std::vector<CheckSummary> checks;
};

/// Summarises one station with the filters of the session's arguments; none if it has no log.
std::optional<StationSummary> sum_up(Session *session, const StationFiles &station);

/// The layout of a table.
struct TableStyle {
    std::size_t width = 0; ///< of the terminal; 0 for no limit
    bool has_colours = false;
};
/// The span and the events, then one row per check.
std::string table_text(const StationSummary &summary, const TableStyle &style);
/// The station's element of the JSON text.
std::string summary_json(const StationSummary &summary);

} // namespace vlog
