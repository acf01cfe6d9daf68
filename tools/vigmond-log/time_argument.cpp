#include "time_argument.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <ctime>

namespace vlog {

namespace {

struct Unit {
    std::string_view name;
    std::int64_t seconds;
};

constexpr std::array UNITS{
    Unit{"seconds", 1},      Unit{"second", 1},       Unit{"sec", 1},         Unit{"s", 1},
    Unit{"minutes", 60},     Unit{"minute", 60},      Unit{"min", 60},        Unit{"m", 60},
    Unit{"months", 2629800}, Unit{"month", 2629800},  Unit{"M", 2629800},     Unit{"hours", 3600},
    Unit{"hour", 3600},      Unit{"hr", 3600},        Unit{"h", 3600},        Unit{"days", 86400},
    Unit{"day", 86400},      Unit{"d", 86400},        Unit{"weeks", 604800},  Unit{"week", 604800},
    Unit{"w", 604800},       Unit{"years", 31557600}, Unit{"year", 31557600}, Unit{"y", 31557600},
};
constexpr std::int64_t MOST_SECONDS = 100LL * 31557600 * 100; // ten thousand years

bool take(std::string_view *text, std::string_view prefix) {
    const bool is_there = text->starts_with(prefix);
    text->remove_prefix(is_there ? prefix.size() : 0);
    return is_there;
}

bool take_end(std::string_view *text, std::string_view suffix) {
    const bool is_there = text->ends_with(suffix);
    text->remove_suffix(is_there ? suffix.size() : 0);
    return is_there;
}

void skip_blanks(std::string_view *text) {
    while (take(text, " ")) {
    }
}

std::optional<std::int64_t> take_number(std::string_view *text) {
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), number);
    if (error != std::errc() || number < 0 || text->starts_with('-') || number > MOST_SECONDS) {
        return std::nullopt;
    }
    text->remove_prefix(static_cast<std::size_t>(end - text->data()));
    return number;
}

/// "1h 30min"; a number without a unit is seconds.
std::optional<std::int64_t> span_of(std::string_view text) {
    std::int64_t seconds = 0;
    skip_blanks(&text);
    if (text.empty()) {
        return std::nullopt;
    }
    while (!text.empty()) {
        const std::optional<std::int64_t> number = take_number(&text);
        if (!number) {
            return std::nullopt;
        }
        skip_blanks(&text);
        const std::string_view word = text.substr(0, text.find_first_of(" 0123456789"));
        const auto *const unit =
            std::find_if(UNITS.begin(), UNITS.end(), [word](const Unit &each) { return each.name == word; });
        if (!word.empty() && unit == UNITS.end()) {
            return std::nullopt;
        }
        seconds += *number * (word.empty() ? 1 : unit->seconds);
        if (seconds < 0 || seconds > MOST_SECONDS) {
            return std::nullopt;
        }
        text.remove_prefix(word.size());
        skip_blanks(&text);
    }
    return seconds;
}

Moment to_moment(LocalTime local, bool is_utc) {
    LocalClock clock;
    return is_utc ? local : clock.moment_of(local, std::nullopt);
}

/// The local time of midnight at the start of the day of `now`.
LocalTime midnight(Moment now, bool is_utc) {
    const LocalTime local = now + (is_utc ? 0 : zone_offset(now));
    return local - (local % 86400 + 86400) % 86400;
}

/// The seconds since midnight of "10:00:00", "10:00" or an empty text.
std::optional<std::int64_t> time_of_day(std::string_view text) {
    if (text.empty()) {
        return 0;
    }
    const std::size_t dot = text.find('.');
    if (dot != std::string_view::npos && text.size() > 8) {
        text = text.substr(0, dot); // drop fractions of a second
    }
    const std::string whole = "1970-01-01 " + std::string(text) + (text.size() == 5 ? ":00" : "");
    return read_stamp(whole);
}

std::optional<Moment> calendar_moment(std::string_view text, Moment now) {
    constexpr std::size_t date_length = 10;
    const bool is_utc = take_end(&text, " UTC") || take_end(&text, "Z");
    LocalTime day = midnight(now, is_utc);
    if (text.size() >= date_length && text[4] == '-') {
        const std::optional<LocalTime> date = read_stamp(std::string(text.substr(0, date_length)) + " 00:00:00");
        if (!date || *date == NO_TIME) {
            return std::nullopt;
        }
        day = *date;
        text.remove_prefix(date_length);
        if (!text.empty() && !take(&text, "T") && !take(&text, " ")) {
            return std::nullopt;
        }
        skip_blanks(&text);
    } else if (text.empty()) {
        return std::nullopt;
    }
    const std::optional<std::int64_t> seconds = time_of_day(text);
    return seconds ? std::optional(to_moment(day + *seconds, is_utc)) : std::nullopt;
}

} // namespace

std::optional<Moment> moment_of_argument(const std::string &argument, Moment now) {
    std::string_view text = argument;
    skip_blanks(&text);
    while (take_end(&text, " ")) {
    }
    for (const auto &[word, days] : {std::pair{"yesterday", -1}, std::pair{"today", 0}, std::pair{"tomorrow", 1}}) {
        if (text == word) {
            return to_moment(midnight(now, false) + std::int64_t{days} * 86400, false);
        }
    }
    if (text == "now") {
        return now;
    }
    if (take(&text, "@")) {
        const std::optional<std::int64_t> seconds = take_number(&text);
        return text.empty() ? seconds : std::nullopt;
    }
    int direction = take(&text, "-") ? -1 : take(&text, "+") ? 1 : 0;
    if (direction == 0) {
        direction = take_end(&text, " ago") ? -1 : take_end(&text, " left") ? 1 : 0;
    }
    if (direction == 0) {
        return calendar_moment(text, now);
    }
    const std::optional<std::int64_t> span = span_of(text);
    return span ? std::optional(now + direction * *span) : std::nullopt;
}

} // namespace vlog
