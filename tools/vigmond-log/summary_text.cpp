#include "summary.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace vlog {

namespace {

enum Column : std::uint8_t {
    COLUMN_ISSUE,
    COLUMN_NAME,
    COLUMN_SAMPLES,
    COLUMN_UNREADABLE,
    COLUMN_MIN,
    COLUMN_MEDIAN,
    COLUMN_P95,
    COLUMN_MAX,
    COLUMN_OK,
    COLUMN_WARN,
    COLUMN_FAIL,
    COLUMN_CHANGED,
    COLUMN_STATE,
    COLUMN_COUNT,
};
constexpr std::array<const char *, COLUMN_COUNT> HEADINGS{"issue",  "check",   "samples", "unread %", "min",
                                                          "median", "p95",     "max",     "OK %",     "WARN %",
                                                          "FAIL %", "changes", "state"};
/// Columns that a narrow terminal omits, in this order.
constexpr std::array DISPENSABLE{COLUMN_UNREADABLE, COLUMN_P95, COLUMN_SAMPLES, COLUMN_MEDIAN, COLUMN_CHANGED,
                                 COLUMN_OK,         COLUMN_MIN, COLUMN_MAX,     COLUMN_WARN};
constexpr std::size_t LEAST_NAME = 12;
constexpr std::size_t MOST_NAME = 60;

using Row = std::array<std::string, COLUMN_COUNT>;

std::string number_text(std::optional<std::int32_t> number) { return number ? std::to_string(*number) : "-"; }

std::string percent_text(double part, double whole) {
    std::array<char, 16> text{"-"};
    if (whole > 0) {
        std::snprintf(text.data(), text.size(), "%.1f", 100 * part / whole);
    }
    return text.data();
}

/// Replaces control characters.
std::string printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](char each) { return static_cast<unsigned char>(each) < ' ' || each == 127; }, '?');
    return text;
}

Row row_of(const CheckSummary &check) {
    const auto seconds = [&check](State of) {
        return static_cast<double>(check.seconds[static_cast<std::size_t>(of)]);
    };
    const double whole = seconds(State::ok) + seconds(State::warn) + seconds(State::fail);
    const std::string parameter = check.check.parameter.empty() ? "" : " " + check.check.parameter;
    return {issue_text(check.check.check.issue) + "[" + std::to_string(check.check.check.index) + "]",
            printable(check.check.name + parameter).substr(0, MOST_NAME),
            std::to_string(check.samples),
            percent_text(static_cast<double>(check.unreadable), static_cast<double>(check.samples)),
            number_text(check.min),
            number_text(check.median),
            number_text(check.p95),
            number_text(check.max),
            percent_text(seconds(State::ok), whole),
            percent_text(seconds(State::warn), whole),
            percent_text(seconds(State::fail), whole),
            std::to_string(check.changes),
            check.state ? state_label(*check.state) : "-"};
}

/// The width of each column; 0 if omitted.
std::array<std::size_t, COLUMN_COUNT> widths_of(const std::vector<Row> &rows, std::size_t most) {
    std::array<std::size_t, COLUMN_COUNT> widths{};
    for (const Row &row : rows) {
        for (std::size_t column = 0; column < COLUMN_COUNT; ++column) {
            widths[column] = std::max(widths[column], row[column].size());
        }
    }
    const auto total = [&widths] {
        std::size_t sum = 0;
        for (const std::size_t width : widths) {
            sum += width > 0 ? width + 1 : 0;
        }
        return sum - 1;
    };
    for (std::size_t at = 0; most > 0 && total() > most;) {
        if (widths[COLUMN_NAME] > LEAST_NAME) {
            widths[COLUMN_NAME] -= std::min(widths[COLUMN_NAME] - LEAST_NAME, total() - most);
        } else if (at < DISPENSABLE.size()) {
            widths[DISPENSABLE[at++]] = 0;
        } else {
            break;
        }
    }
    return widths;
}

std::string coloured(std::string text, const std::string &label, bool has_colours) {
    if (has_colours && (label == "FAIL" || label == "WARN")) {
        return (label == "FAIL" ? "\033[31m" : "\033[33m") + text + "\033[0m";
    }
    return text;
}

std::string counted(std::uint64_t number, const char *what) {
    return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

std::string heading(const StationSummary &summary) {
    std::string text = printable(summary.station) + ": ";
    if (!summary.first) {
        return text + "no records\n";
    }
    text += local_text(*summary.first) + " to " + local_text(*summary.last) + " (" +
            duration_text(std::max<std::int64_t>(*summary.last - *summary.first, 0)) + "), " +
            counted(summary.records, "record") + "\n" + counted(summary.starts, "start") + ", " +
            std::to_string(summary.unclean_ends) + " after the daemon was killed or the power was lost; " +
            counted(summary.gaps, "gap") + "; clock set " + counted(summary.leaps, "time") + "; " +
            counted(summary.foreign_lines, "foreign line") + "\n";
    return text;
}

std::string number_json(std::optional<std::int32_t> number) { return number ? std::to_string(*number) : "null"; }

std::string time_json(std::optional<Moment> time) { return time ? "\"" + iso_text(*time) + "\"" : "null"; }

} // namespace

std::string table_text(const StationSummary &summary, const TableStyle &style) {
    std::vector<Row> rows(1);
    std::copy(HEADINGS.begin(), HEADINGS.end(), rows[0].begin());
    std::transform(summary.checks.begin(), summary.checks.end(), std::back_inserter(rows), row_of);
    const std::array<std::size_t, COLUMN_COUNT> widths = widths_of(rows, style.width);
    std::string text = heading(summary);
    for (const Row &row : rows) {
        std::string line;
        for (std::size_t column = 0; column < COLUMN_COUNT; ++column) {
            if (widths[column] == 0) {
                continue;
            }
            const std::string cell = row[column].substr(0, widths[column]);
            const std::string blanks(widths[column] - cell.size(), ' ');
            const bool is_text = column == COLUMN_ISSUE || column == COLUMN_NAME || column == COLUMN_STATE;
            line += (line.empty() ? "" : " ") +
                    (is_text ? coloured(cell, row[COLUMN_STATE], style.has_colours && column == COLUMN_STATE) + blanks
                             : blanks + cell);
        }
        line.resize(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    return text + "\n";
}

std::string summary_json(const StationSummary &summary) {
    std::string text = "{\"station\":\"" + json_text(summary.station) + "\",\"first\":" + time_json(summary.first) +
                       ",\"last\":" + time_json(summary.last) + ",\"records\":" + std::to_string(summary.records) +
                       ",\"foreign_lines\":" + std::to_string(summary.foreign_lines) +
                       ",\"starts\":" + std::to_string(summary.starts) +
                       ",\"unclean_ends\":" + std::to_string(summary.unclean_ends) +
                       ",\"gaps\":" + std::to_string(summary.gaps) + ",\"checks\":[";
    for (const CheckSummary &check : summary.checks) {
        const auto seconds = [&check](State of) { return std::to_string(check.seconds[static_cast<std::size_t>(of)]); };
        text += (text.ends_with('[') ? "" : ",");
        text += "{\"issue\":\"" + issue_text(check.check.check.issue) +
                "\",\"index\":" + std::to_string(check.check.check.index) + ",\"name\":\"" +
                json_text(check.check.name) + "\",\"samples\":" + std::to_string(check.samples) +
                ",\"unreadable\":" + std::to_string(check.unreadable) + ",\"min\":" + number_json(check.min) +
                ",\"median\":" + number_json(check.median) + ",\"p95\":" + number_json(check.p95) +
                ",\"max\":" + number_json(check.max) + ",\"ok_seconds\":" + seconds(State::ok) +
                ",\"warn_seconds\":" + seconds(State::warn) + ",\"fail_seconds\":" + seconds(State::fail) +
                ",\"changes\":" + std::to_string(check.changes) +
                ",\"state\":" + (check.state ? "\"" + std::string(state_label(*check.state)) + "\"" : "null") + "}";
    }
    return text + "]}";
}

} // namespace vlog
