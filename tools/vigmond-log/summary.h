#pragma once

// What a station's log amounts to.

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
    std::optional<std::int32_t> median; ///< this and p95 are values that occurred
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

/// Sums up one station as the session's arguments ask for; none when it has no log.
std::optional<StationSummary> sum_up(Session *session, const StationFiles &station);

/// How a table is to look.
struct TableStyle {
    std::size_t width = 0; ///< of the terminal; 0 is no limit
    bool has_colours = false;
};
/// One row a check, the span and the events above it.
std::string table_text(const StationSummary &summary, const TableStyle &style);
/// One of the stations in the JSON text.
std::string summary_json(const StationSummary &summary);

} // namespace vlog
