#include "log_file.h"

#include <array>
#include <chrono>
#include <cstdio>

namespace model {

namespace {

struct LevelRow {
    int state;
    int level;
    const char *label;
};

constexpr LevelRow LEVELS[] = {{-2, 1, "FAIL"}, {-1, 2, "WARN"}, {0, 3, "OK"}, {1, 2, "WARN"}, {2, 1, "FAIL"}};

std::string column(const std::string &text, std::size_t width) {
    return "\t" + (text.size() < width ? std::string(width - text.size(), ' ') : "") + text;
}

std::string column(std::optional<std::int64_t> number) { return column(number ? std::to_string(*number) : "NaN", 6); }

std::string name_column(const std::string &name) {
    return "##\t" + name + (name.size() < 12 ? std::string(12 - name.size(), ' ') : "");
}

std::string heading(const std::string &name, const std::vector<std::string> &columns, const std::string &last) {
    std::string line = name_column(name);
    for (const std::string &each : columns) {
        line += column(each, 6);
    }
    return line + "\t" + last + "\n";
}

std::string check_line(const Check &check) {
    return name_column(check.name) + "\t  " + label_of(check) + column(check.index) + column(check.interval) +
           column(check.min_fail) + column(check.min_warn) + column(check.max_warn) + column(check.max_fail) +
           (check.parameter ? "\t" + *check.parameter : "") + "\n";
}

/// From the last Sunday of March to the last Sunday of October, at 01:00 UTC.
bool is_summer(std::chrono::sys_seconds now) {
    using namespace std::chrono;
    const year this_year = year_month_day(floor<days>(now)).year();
    const sys_seconds begin = sys_days(this_year / March / Sunday[last]) + hours(1);
    const sys_seconds end = sys_days(this_year / October / Sunday[last]) + hours(1);
    return now >= begin && now < end;
}

} // namespace

std::string local_stamp(std::int64_t now) {
    using namespace std::chrono;
    const sys_seconds utc{seconds(now)};
    const sys_seconds local = utc + hours(is_summer(utc) ? 2 : 1);
    const year_month_day date(floor<days>(local));
    const hh_mm_ss time(local - floor<days>(local));
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%04d-%02u-%02u %02d:%02d:%02d", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()));
    return text.data();
}

LogFile::LogFile(Settings settings, std::vector<Check> checks, std::string old, std::int64_t now)
    : settings_(std::move(settings)), checks_(std::move(checks)), text_(std::move(old)) {
    text_ += header("START", now);
}

std::string LogFile::marker(const std::string &what, std::int64_t now) const {
    return "##\n##\t" + local_stamp(now) + "\t" + what + "\t" + command_line_of(settings_) + "\n##\n";
}

std::string LogFile::header(const std::string &occasion, std::int64_t now) const {
    std::string text = marker(occasion, now);
    text += heading("name", {"ID", "ID", "inter-", "min", "min", "max", "max"}, "param");
    text += heading("", {"", "index", "val", "fail", "warn", "warn", "fail"}, "");
    for (const Check &check : checks_) {
        text += check_line(check);
    }
    return text + "## date    time    \tstate\tID\tindex\tvalue\n";
}

void LogFile::record(const Check &check, int state, std::optional<std::int32_t> value, std::int64_t now) {
    const LevelRow &row = LEVELS[(value ? state : -1) + 2];
    if (row.level <= settings_.record_level) {
        text_ += local_stamp(now) + "\t" + row.label + "\t" + label_of(check) + "\t" + std::to_string(check.index) +
                 "\t" + (value ? std::to_string(*value) : "NaN") + "\n";
    }
    rotate_if_full(now);
}

void LogFile::finish(std::int64_t now) {
    text_ += marker("FINISHED", now);
    rotate_if_full(now);
}

void LogFile::rotate_if_full(std::int64_t now) {
    if (static_cast<std::int64_t>(text_.size()) >= settings_.log_size) {
        rotate();
        text_ = header("ROTATE", now);
        ++rotations_;
    }
}

/// Moves the generations below the first gap up by one; without a gap the oldest is lost.
void LogFile::rotate() {
    if (settings_.log_count == 0) {
        return;
    }
    int gap = 0;
    while (gap < settings_.log_count - 1 && generations_.contains(gap)) {
        ++gap;
    }
    for (int number = gap; number > 0; --number) {
        generations_[number] = generations_[number - 1];
    }
    generations_[0] = text_;
}

} // namespace model
