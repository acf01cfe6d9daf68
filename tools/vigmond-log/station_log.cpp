#include "station_log.h"

#include <utility>

namespace vlog {

StationLog::StationLog(const StationFiles &files, unsigned threads, std::atomic<std::uint64_t> *read_so_far,
                       Complaint complain)
    : paths_(files.paths), complain_(std::move(complain)),
      unpacker_(std::make_unique<Unpacker>(files.paths, threads, read_so_far)) {
    checks_.reserve(MOST_CHECKS);
}

bool StationLog::next(Event *event) {
    for (;;) {
        if (chunk_ == nullptr || at_ == chunk_->items.size()) {
            if (!next_chunk()) {
                return false;
            }
        } else if (take(chunk_->items[at_++], event)) {
            return true;
        }
    }
}

bool StationLog::next_chunk() {
    chunk_ = unpacker_->next();
    at_ = 0;
    if (chunk_ == nullptr) {
        return false;
    }
    counts_.foreign_lines += chunk_->foreign_lines;
    if (!chunk_->problem.empty()) {
        complain_(paths_[chunk_->file], chunk_->problem);
    }
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

/// A line without a time has that of the previous line. False if there is none.
bool StationLog::set_time(LocalTime local, Event *event) {
    if (local == NO_TIME && !before_) {
        ++counts_.foreign_lines;
        return false;
    }
    event->time = local == NO_TIME ? *before_ : clock_.moment_of(local, before_);
    event->is_set_back = before_ && event->time < *before_;
    event->set_back = event->is_set_back ? *before_ - event->time : 0;
    return true;
}

std::optional<std::size_t> StationLog::find(CheckId check) {
    const auto hash = static_cast<std::uint32_t>(check.index) * 0x9E3779B1U + static_cast<std::uint16_t>(check.issue);
    for (std::size_t at = hash % SLOTS;; at = (at + 1) % SLOTS) { // a quarter full at most
        std::int16_t &slot = slots_[at];
        if (slot == 0) {
            if (checks_.size() == MOST_CHECKS) {
                return std::nullopt;
            }
            checks_.push_back({});
            checks_.back().check = check;
            slot = static_cast<std::int16_t>(checks_.size());
        }
        const auto place = static_cast<std::size_t>(slot - 1);
        if (checks_[place].check == check) {
            return place;
        }
    }
}

void StationLog::define(const Definition &definition) {
    if (const std::optional<std::size_t> place = find(definition.check)) {
        checks_[*place] = definition;
    }
}

bool StationLog::is_repeated(const Event &event) const {
    const Last &last = last_[event.check];
    return last.is_set && last.time == event.time && last.value == event.value && last.state == event.state &&
           last.readable == event.readable;
}

bool StationLog::take_record(const Item &item, Event *event) {
    const std::optional<std::size_t> place = find(item.check());
    if (!place) {
        ++counts_.foreign_lines;
        return false;
    }
    if (!set_time(item.local(), event)) {
        return false;
    }
    is_running_ = true;
    event->kind = EventKind::record;
    event->check = *place;
    event->state = item.state();
    event->readable = item.readable();
    event->value = item.value();
    if (is_repeated(*event)) {
        ++counts_.repeated;
        return false;
    }
    before_ = event->time;
    last_[*place] = {
        .time = event->time, .value = event->value, .state = event->state, .readable = event->readable, .is_set = true};
    ++counts_.records;
    return true;
}

bool StationLog::take_marker(const Item &item, Event *event) {
    if (!set_time(item.local(), event)) {
        return false;
    }
    before_ = event->time;
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

} // namespace vlog
