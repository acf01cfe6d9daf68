#include "line.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <strings.h>

namespace vlog {

namespace {

constexpr std::array<const char *, STATE_COUNT> LABELS{"OK", "WARN", "FAIL", "INV"};
constexpr std::size_t STAMP_LENGTH = 19;
constexpr std::size_t LONGEST_TEXT = 1024; // of a name, parameter or command line that is kept

/// A whole number as printf writes it, and nothing else.
template <typename Number> bool read_number(std::string_view text, Number *number) {
    const char *const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, *number);
    return error == std::errc() && stop == end && !text.empty();
}

bool is_digit(char character) { return character >= '0' && character <= '9'; }

/// Two digits; a number above 99 when they are none.
unsigned two_digits(const char *text) {
    const auto tens = static_cast<unsigned>(text[0] - '0');
    const auto ones = static_cast<unsigned>(text[1] - '0');
    return tens > 9 || ones > 9 ? 100 : tens * 10 + ones;
}

unsigned days_in(unsigned year, unsigned month) {
    constexpr std::array<unsigned, 12> days{31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool is_leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    return days[month - 1] + (month == 2 && is_leap ? 1 : 0);
}

/// Days since 1970-01-01 of a date of the Gregorian calendar.
std::int64_t days_since_1970(unsigned year, unsigned month, unsigned day) {
    const std::int64_t shifted = static_cast<std::int64_t>(year) - (month <= 2 ? 1 : 0); // years begin in March
    const std::int64_t era = (shifted >= 0 ? shifted : shifted - 399) / 400;
    const auto year_of_era = static_cast<unsigned>(shifted - era * 400);
    const unsigned day_of_year = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const unsigned day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
    return era * 146097 + static_cast<std::int64_t>(day_of_era) - 719468;
}

/// "2024-05-01 10:00"; none when that is no date and time.
std::optional<LocalTime> read_minute(const char *text) {
    const unsigned century = two_digits(text);
    const unsigned year = two_digits(text + 2);
    const unsigned month = two_digits(text + 5);
    const unsigned day = two_digits(text + 8);
    const unsigned hour = two_digits(text + 11);
    const unsigned minute = two_digits(text + 14);
    if (text[4] != '-' || text[7] != '-' || text[10] != ' ' || text[13] != ':' || century > 99 || year > 99 ||
        month < 1 || month > 12 || hour > 23 || minute > 59 || day < 1 || day > days_in(century * 100 + year, month)) {
        return std::nullopt;
    }
    return (days_since_1970(century * 100 + year, month, day) * 24 + hour) * 3600 + std::int64_t{minute} * 60;
}

/// Removes the text up to and including the next tab from `rest`; returns it without the tab.
std::string_view take_field(std::string_view *rest) {
    const std::size_t tab = rest->find('\t');
    const std::string_view field = rest->substr(0, tab);
    rest->remove_prefix(tab == std::string_view::npos ? rest->size() : tab + 1);
    return field;
}

std::optional<std::int32_t> optional_number(std::string_view text) {
    std::int32_t number = 0;
    return read_number(text, &number) ? std::optional(number) : std::nullopt;
}

} // namespace

const char *state_label(State state) { return LABELS[static_cast<std::size_t>(state)]; }

std::optional<State> state_of(std::string_view label) {
    const auto *const found = std::find(LABELS.begin(), LABELS.end(), label);
    return found == LABELS.end() ? std::nullopt : std::optional(static_cast<State>(found - LABELS.begin()));
}

std::string issue_text(std::int16_t issue) {
    if (issue == UNSET_ISSUE) {
        return "CBnn";
    }
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "CB%02d", issue);
    return text.data();
}

std::optional<std::int16_t> issue_of(std::string_view text) {
    if (!text.starts_with("CB") || text.size() < 4) {
        return std::nullopt;
    }
    text.remove_prefix(2);
    std::int16_t number = 0;
    if (text == "nn") {
        return UNSET_ISSUE;
    }
    if (!is_digit(text[0]) || !read_number(text, &number)) {
        return std::nullopt;
    }
    return number;
}

std::optional<LocalTime> read_stamp(std::string_view text) {
    if (text.size() != STAMP_LENGTH || text[16] != ':') {
        return std::nullopt;
    }
    if (text == "0000-00-00 00:00:00") {
        return NO_TIME;
    }
    const std::optional<LocalTime> minute = read_minute(text.data());
    const unsigned second = two_digits(text.data() + 17);
    return !minute || second > 60 ? std::nullopt : std::optional(*minute + second);
}

/// Keeps the stamp and the tab at the front of a text; false when there is none.
bool RecordReader::read_stamp(const char *text) {
    const unsigned second = two_digits(text + 17);
    if (has_minute_ && std::memcmp(text, stamp_text_.data(), MINUTE_LENGTH) == 0 && text[16] == ':' && second <= 60 &&
        text[STAMP_LENGTH] == '\t') {
        stamp_ = minute_ + second;
    } else {
        const std::optional<LocalTime> stamp = vlog::read_stamp({text, STAMP_LENGTH});
        if (!stamp || text[STAMP_LENGTH] != '\t') {
            return false;
        }
        stamp_ = *stamp;
        has_minute_ = stamp_ != NO_TIME;
        minute_ = stamp_ - second;
    }
    std::memcpy(stamp_text_.data(), text, STAMP_LENGTH + 1);
    return true;
}

bool RecordReader::read(std::string_view line, Record *record) {
    if (line.size() <= STAMP_LENGTH || !read_stamp(line.data())) {
        return false;
    }
    line.remove_prefix(STAMP_LENGTH + 1);
    const std::optional<State> state = state_of(take_field(&line));
    const std::optional<std::int16_t> issue = issue_of(take_field(&line));
    if (!state || !issue || !read_number(take_field(&line), &record->check.index)) {
        return false;
    }
    record->local = stamp_;
    record->state = *state;
    record->check.issue = *issue;
    record->readable = line != "NaN";
    record->value = 0;
    return !record->readable || read_number(line, &record->value);
}

CommentReader::Fields CommentReader::split(std::string_view line) {
    Fields fields;
    while (fields.count < MOST_FIELDS && !line.empty()) {
        fields.texts[fields.count++] = take_field(&line);
    }
    return fields;
}

std::string_view CommentReader::trimmed(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(' ');
    return begin == std::string_view::npos ? "" : text.substr(begin, text.find_last_not_of(' ') - begin + 1);
}

CommentReader::Found CommentReader::read(std::string_view line) {
    const std::string upper = std::move(upper_headings_);
    upper_headings_.clear();
    if (!line.starts_with("##\t")) {
        return Found::nothing;
    }
    line.remove_prefix(3);
    const Fields fields = split(line);
    if (!upper.empty()) {
        read_headings(split(upper), fields);
        return Found::nothing;
    }
    if (fields.count > 0 && trimmed(fields.texts[0]) == "name") {
        upper_headings_ = line.substr(0, LONGEST_TEXT);
        return Found::nothing;
    }
    if (read_marker(line, fields)) {
        return Found::marker;
    }
    return read_definition(line, fields) ? Found::definition : Found::nothing;
}

bool CommentReader::read_marker(std::string_view line, const Fields &fields) {
    constexpr std::array<const char *, 3> occasions{"START", "ROTATE", "FINISHED"};
    if (fields.count < 2) {
        return false;
    }
    const std::optional<LocalTime> local = read_stamp(fields.texts[0]);
    const auto *const occasion = std::find(occasions.begin(), occasions.end(), fields.texts[1]);
    if (!local || occasion == occasions.end()) {
        return false;
    }
    const std::size_t before = fields.texts[0].size() + fields.texts[1].size() + 2;
    marker_.local = *local;
    marker_.occasion = static_cast<Occasion>(occasion - occasions.begin());
    marker_.command_line = line.substr(std::min(before, line.size()), LONGEST_TEXT);
    return true;
}

void CommentReader::read_headings(const Fields &upper, const Fields &lower) {
    constexpr std::array<const char *, COLUMN_COUNT> headings{
        "name ", "ID ", "ID index", "inter- val", "min fail", "min warn", "max warn", "max fail", "param "};
    for (std::size_t column = 0; column < COLUMN_COUNT; ++column) {
        position_[column] = MOST_FIELDS;
        for (std::size_t at = 0; at < upper.count; ++at) {
            const std::string_view below = at < lower.count ? trimmed(lower.texts[at]) : "";
            if (std::string(trimmed(upper.texts[at])) + " " + std::string(below) == headings[column]) {
                position_[column] = at;
            }
        }
    }
}

std::string_view CommentReader::field(const Fields &fields, Column column) const {
    const std::size_t at = position_[column];
    return at < fields.count ? trimmed(fields.texts[at]) : "";
}

bool CommentReader::read_definition(std::string_view line, const Fields &fields) {
    const std::optional<std::int16_t> number = issue_of(field(fields, COLUMN_ISSUE));
    std::uint16_t index_number = 0;
    if (!number || !read_number(field(fields, COLUMN_INDEX), &index_number)) {
        return false;
    }
    definition_.check = {.issue = *number, .index = index_number};
    definition_.name = field(fields, COLUMN_NAME).substr(0, LONGEST_TEXT);
    definition_.interval = optional_number(field(fields, COLUMN_INTERVAL));
    definition_.minfail = optional_number(field(fields, COLUMN_MINFAIL));
    definition_.minwarn = optional_number(field(fields, COLUMN_MINWARN));
    definition_.maxwarn = optional_number(field(fields, COLUMN_MAXWARN));
    definition_.maxfail = optional_number(field(fields, COLUMN_MAXFAIL));
    const std::size_t at = position_[COLUMN_PARAMETER];
    std::string_view text = field(fields, COLUMN_PARAMETER);
    if (at < fields.count && at == *std::max_element(position_.begin(), position_.end())) {
        const auto begin = static_cast<std::size_t>(fields.texts[at].data() - line.data());
        text = line.substr(begin); // the last column has what follows a tab in it too
    }
    definition_.parameter = text.substr(0, LONGEST_TEXT);
    return true;
}

Level level_of(std::string_view command_line) {
    Level level = Level::all;
    const auto set = [&level](std::string_view value) {
        const auto is = [value](const char *name) {
            return value.size() == std::strlen(name) && strncasecmp(value.data(), name, value.size()) == 0;
        };
        level = is("fail") ? Level::failures : is("warning") ? Level::warnings : is("OK") ? Level::all : level;
    };
    bool is_value = false;
    for (std::size_t open = command_line.find('"'); open != std::string_view::npos;) {
        const std::size_t close = command_line.find('"', open + 1);
        const std::string_view word = command_line.substr(open + 1, close - open - 1);
        if (is_value) {
            set(word);
        } else if (word.starts_with("--logl") && word.find('=') != std::string_view::npos) {
            set(word.substr(word.find('=') + 1));
        } else if (word.starts_with("-l") && word.size() > 2) {
            set(word.substr(2));
        }
        is_value = !is_value && (word == "-l" || word == "-Dl" ||
                                 (word.starts_with("--logl") && word.find('=') == std::string_view::npos));
        open = close == std::string_view::npos ? close : command_line.find('"', close + 1);
    }
    return level;
}

} // namespace vlog
