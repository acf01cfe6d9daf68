#include "timeline.h"

#include <algorithm>
#include <limits>

namespace vlog {

namespace {

constexpr std::int64_t NO_LIMIT = std::numeric_limits<std::int64_t>::max();

} // namespace

/// The longest time from one record of the check to the next that is no gap.
std::int64_t Timeline::limit(std::size_t check) const {
    const std::optional<std::int32_t> interval = log_.checks()[check].interval;
    return interval && *interval > 0 ? 2 * static_cast<std::int64_t>(*interval) : NO_LIMIT;
}

void Timeline::take(const Event &event) {
    pause_.reset();
    step_ = {};
    if (event.is_set_back) {
        ++leaps_;
        forget_last();
    } else if (event.kind == EventKind::start) {
        forget_last();
    } else if (before_ && event.time - *before_ > shortest_) {
        find_pause(event.time);
    }
    if (event.kind == EventKind::record) {
        take_record(event);
    } else {
        shortest_ = 0; // a table of checks may follow
    }
    before_ = event.time;
}

void Timeline::forget_last() {
    for (Course &course : courses_) {
        course.has_last = false;
    }
}

/// A pause needs a check that was recorded in time before it and was due twice during it.
void Timeline::find_pause(Moment time) {
    std::int64_t least = NO_LIMIT;
    shortest_ = NO_LIMIT;
    for (std::size_t check = 0; check < log_.checks().size(); ++check) {
        const Course &course = courses_[check];
        const std::int64_t most = limit(check);
        shortest_ = std::min(shortest_, most);
        if (course.has_last && most != NO_LIMIT && *before_ - course.last <= most) {
            least = std::min(least, most);
        }
    }
    if (log_.level() != Level::all || time - *before_ <= least) {
        return;
    }
    pause_ = Pause{.begin = *before_, .end = time};
    paused_ += time - *before_;
    if (time - *before_ >= LEAP) {
        ++leaps_;
    } else {
        ++gaps_;
    }
}

void Timeline::find_gap(const Event &event, Course *course) {
    const bool are_all = log_.level() == Level::all;
    const std::int64_t passed = event.time - course->last;
    step_.is_gap = true;
    step_.gap_begin = course->last;
    step_.is_own_gap = are_all && passed - (paused_ - course->paused) > limit(event.check);
    gaps_ += step_.is_own_gap ? 1 : 0;
    if (!are_all) {
        course->state.reset(); // it was good, or the daemon did not run
    }
}

void Timeline::take_record(const Event &event) {
    Course &course = courses_[event.check];
    if (course.has_last) {
        const std::int64_t passed = event.time - course.last;
        if (passed > limit(event.check)) {
            find_gap(event, &course);
        } else if (course.state) {
            step_.held = course.state;
            step_.seconds = passed;
            course.held += passed;
        }
    }
    if (event.readable && course.state != event.state) {
        step_.is_change = course.state.has_value() || (step_.is_gap && log_.level() != Level::all);
        step_.from = course.state;
        step_.from_held = course.held;
        course.state = event.state;
        course.held = 0;
    }
    course.last = event.time;
    course.paused = paused_;
    course.has_last = true;
}

} // namespace vlog
