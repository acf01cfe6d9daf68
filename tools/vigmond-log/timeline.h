#pragma once

// Durations of states, changes of state, and gaps between the records.

#include "station_log.h"

#include <array>
#include <optional>
#include <vector>

namespace vlog {

/// What a record means for its check, given the previous records.
struct Step {
    std::optional<State> held; ///< the state from the check's previous record to this one
    std::int64_t seconds = 0;  ///< the duration of that
    bool is_gap = false;       ///< more than twice the check's interval since its previous record
    bool is_own_gap = false;   ///< a gap in which other checks were recorded
    Moment gap_begin = 0;      ///< the time of the check's previous record
    bool is_change = false;
    std::optional<State> from;  ///< the state before the change; none if unknown
    std::int64_t from_held = 0; ///< the duration of that state
};

/// No check was recorded although one was due twice, or the clock was set forward.
struct Pause {
    Moment begin;
    Moment end;
};

/// Follows the checks of one station through its log.
///
/// The state of a check is that of its last record with a value. It lasts from one record of the check to the next, but
/// not across a start of the daemon, a gap, or a clock that is set back.
class Timeline {
  public:
    /// A pause of a day or more means that the clock was set forward.
    static constexpr std::int64_t LEAP = 86400;

    explicit Timeline(const StationLog &log) : log_(log) {}

    /// Takes the next event of the log.
    void take(const Event &event);
    /// The step of the last event, if that is a record.
    [[nodiscard]] const Step &step() const { return step_; }
    /// The pause before the last event, if any.
    [[nodiscard]] const std::optional<Pause> &pause() const { return pause_; }
    /// All gaps so far; a pause counts once for all checks.
    [[nodiscard]] std::uint64_t gaps() const { return gaps_; }
    /// How often the clock was set back, or forward by a day or more.
    [[nodiscard]] std::uint64_t leaps() const { return leaps_; }
    /// The current state of a check.
    [[nodiscard]] std::optional<State> state(std::size_t check) const { return courses_[check].state; }

  private:
    struct Course {
        Moment last = 0;
        std::int64_t paused = 0; ///< the sum of all pauses until its last record
        bool has_last = false;   ///< recorded since the start and since the clock was set back
        std::optional<State> state;
        std::int64_t held = 0; ///< the duration of the state so far
    };

    [[gnu::cold]] void find_pause(Moment time);
    [[gnu::cold]] void forget_last();
    inline void take_record(const Event &event);
    [[gnu::cold]] void find_gap(const Event &event, Course *course);
    [[nodiscard]] std::int64_t limit(std::size_t check) const;

    const StationLog &log_;
    std::array<Course, MOST_CHECKS> courses_{};
    Step step_;
    std::optional<Pause> pause_;
    std::optional<Moment> before_;
    std::int64_t shortest_ = 0; ///< the shortest limit of all checks
    std::int64_t paused_ = 0;
    std::uint64_t gaps_ = 0;
    std::uint64_t leaps_ = 0;
};

} // namespace vlog
