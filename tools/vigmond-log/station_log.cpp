#include "station_log.h"

#include <utility>

namespace vlog {

StationLog::StationLog(const StationFiles &files, unsigned threads, std::atomic<std::uint64_t> *read_so_far,
                       Complaint complain)
    : paths_(files.paths), complain_(std::move(complain)),
      unpacker_(std::make_unique<Unpacker>(files.paths, threads, read_so_far)) {
    checks_.reserve(MOST_CHECKS);
}

bool StationLog::next_chunk() {
    chunk_ = unpacker_->next();
    if (chunk_ == nullptr) {
        return false;
    }
    item_ = chunk_->items.data();
    items_end_ = item_ + chunk_->items.size();
    counts_.foreign_lines += chunk_->foreign_lines;
    if (!chunk_->problem.empty()) {
        complain_(paths_[chunk_->file], chunk_->problem);
    }
    return true;
}

/// Without a time of its own a line has that of the one before it; false when there is none.
bool StationLog::set_time(LocalTime local, Event *event) {
    if (local == NO_TIME && !before_) {
        ++counts_.foreign_lines;
        return false;
    }
    event->is_set_back = false;
    event->set_back = 0;
    if (local == NO_TIME || (before_ && local == local_before_)) {
        event->time = *before_;
        return true;
    }
    event->time = clock_.moment_of(local, before_);
    if (before_ && event->time < *before_) {
        event->is_set_back = true;
        event->set_back = *before_ - event->time;
    }
    return true;
}

/// The place of a check, which is added if it is new; NO_PLACE when there is no room for it.
std::size_t StationLog::find(CheckId check) {
    const auto hash = static_cast<std::uint32_t>(check.index) * 0x9E3779B1U + static_cast<std::uint16_t>(check.issue);
    for (std::size_t at = hash % SLOTS;; at = (at + 1) % SLOTS) { // a quarter full at most
        Slot &slot = slots_[at];
        if (slot.place < 0) {
            return add(check, &slot);
        }
        if (slot.check == check) {
            return static_cast<std::size_t>(slot.place);
        }
    }
}

std::size_t StationLog::add(CheckId check, Slot *slot) {
    const std::size_t place = checks_.size();
    if (place == MOST_CHECKS) {
        return NO_PLACE;
    }
    checks_.push_back({});
    checks_.back().check = check;
    *slot = {.check = check, .place = static_cast<std::int16_t>(place)};
    return place;
}

void StationLog::define(const Definition &definition) {
    const std::size_t place = find(definition.check);
    if (place != NO_PLACE) {
        checks_[place] = definition;
    }
}

bool StationLog::take_record(const Item &item, Event *event) {
    const std::size_t place = find(item.check());
    if (place == NO_PLACE) {
        ++counts_.foreign_lines;
        return false;
    }
    if (!set_time(item.local(), event)) {
        return false;
    }
    is_running_ = true;
    const Last now{
        .time = event->time, .value = item.value(), .state = item.state(), .readable = item.readable(), .is_set = true};
    if (last_[place] == now) {
        ++counts_.repeated;
        return false;
    }
    last_[place] = now;
    before_ = now.time;
    if (item.local() != NO_TIME) {
        local_before_ = item.local();
    }
    ++counts_.records;
    event->kind = EventKind::record;
    event->check = place;
    event->state = now.state;
    event->readable = now.readable;
    event->value = now.value;
    return true;
}

bool StationLog::take(const Item &item, Event *event) {
    switch (item.kind()) {
    case ItemKind::record:
        return take_record(item, event);
    case ItemKind::definition:
        define(chunk_->definitions[item.place()]);
        return false;
    default:
        return take_marker(item, event);
    }
}

bool StationLog::take_marker(const Item &item, Event *event) {
    if (!set_time(item.local(), event)) {
        return false;
    }
    before_ = event->time;
    local_before_ = item.local() != NO_TIME ? item.local() : local_before_;
    command_line_ = chunk_->command_lines[item.place()];
    level_ = level_of(command_line_);
    switch (item.kind()) {
    case ItemKind::start:
        event->kind = EventKind::start;
        event->is_unclean = std::exchange(is_running_, true);
        ++counts_.starts;
        counts_.unclean_ends += event->is_unclean ? 1 : 0;
        last_ = {};
        break;
    case ItemKind::finished:
        event->kind = EventKind::finished;
        is_running_ = false;
        break;
    default:
        event->kind = EventKind::rotate;
    }
    return true;
}

bool StationLog::next(Event *event) {
    for (;;) {
        if (item_ == items_end_) {
            if (!next_chunk()) {
                return false;
            }
        } else if (take(*item_++, event)) {
            return true;
        }
    }
}

} // namespace vlog
