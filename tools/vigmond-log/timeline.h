#pragma once

// What happens between the records: how long a state was held, when it changed, and where nothing was recorded.

#include "station_log.h"

#include <array>
#include <optional>
#include <vector>

namespace vlog {

/// What a record says about its check, seen together with those before it.
struct Step {
    std::optional<State> held; ///< the state in which the check was from its record before to this one
    std::int64_t seconds = 0;  ///< for how long
    bool is_gap = false;       ///< more than twice the check's interval passed since its record before
    bool is_own_gap = false;   ///< and others were recorded in between
    Moment gap_begin = 0;      ///< its record before
    bool is_change = false;
    std::optional<State> from;  ///< the state before the change; none when it is not known
    std::int64_t from_held = 0; ///< for how long it was held in all
};

/// Nothing was recorded of any check although one was due twice, or the clock was set forward.
struct Pause {
    Moment begin;
    Moment end;
};

/// Follows the checks of one station through its log.
///
/// The state of a check is that of its last record with a value: a value that cannot be read leaves it as it is. It
/// is held from one record of the check to the next, but not across a start of the daemon, a gap, or a clock that is
/// set back.
class Timeline {
  public:
    /// A station does not pause for a day: then it was the clock.
    static constexpr std::int64_t LEAP = 86400;

    explicit Timeline(const StationLog &log) : log_(log) {}

    /// Takes the next event of the log.
    void take(const Event &event);
    /// Of the event that was taken, when it is a record.
    [[nodiscard]] const Step &step() const { return step_; }
    /// What passed before the event that was taken.
    [[nodiscard]] const std::optional<Pause> &pause() const { return pause_; }
    /// All gaps so far; a pause is one, for all checks that it holds up.
    [[nodiscard]] std::uint64_t gaps() const { return gaps_; }
    /// How often the clock was set back, or forward by a day or more.
    [[nodiscard]] std::uint64_t leaps() const { return leaps_; }
    /// The state of a check now.
    [[nodiscard]] std::optional<State> state(std::size_t check) const { return courses_[check].state; }

  private:
    struct Course {
        Moment last = 0;
        std::int64_t paused = 0; ///< of all pauses until then
        bool has_last = false;   ///< since the start, or since the clock was set back
        std::optional<State> state;
        std::int64_t held = 0; ///< how long the state was held so far
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
    std::int64_t shortest_ = 0; ///< no check has a shorter limit
    std::int64_t paused_ = 0;
    std::uint64_t gaps_ = 0;
    std::uint64_t leaps_ = 0;
};

} // namespace vlog
