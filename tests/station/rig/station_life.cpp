#include "station_life.h"

#include "rig_failure.h"

#include <algorithm>
#include <array>
#include <ctime>

namespace {

Check even(std::string issue, std::int64_t period, std::string value) {
    return {.issue = std::move(issue),
            .period = period,
            .delay = 1,
            .put = nullptr,
            .plateaus = {{.samples = 1, .input = "", .value = std::move(value)}}};
}

} // namespace

// 1000 packets without losses count as 1; /proc/stat does not change, so the load stays at its initial 0.
Board even_board() {
    return Board()
        .file("/sys/class/bluetooth/hci0/power/runtime_status", "active\n")
        .file("/sys/class/net/eth0/operstate", "up\n")
        .file("/proc/net/dev", "  eth0: 90000 900 0 0 0 0 0 0 10000 100 0 0 0 0 0 0\n")
        .file("/proc/stat", "cpu  1000 0 1000 8000 0 0 0 0 0 0\n");
}

std::vector<Check> even_checks() {
    std::vector<Check> checks{even("CB20\t0", 10, "42"),  even("CB05\t0", 60, "0"), even("CB10\t0", 60, "1"),
                              even("CB11\t0", 60, "0"),   even("CB12\t0", 60, "0"), even("CB21\t0", 10, "50"),
                              even("CB07\t0", 3600, "10")};
    for (int disk = 0; disk < 8; ++disk) {
        checks.push_back(even("CB22\t" + std::to_string(disk), 900, "50"));
    }
    checks.push_back(even("CB23\t0", 10, "0"));
    checks.push_back(even("CB31\t0", 180, "0"));
    checks.push_back(even("CB32\t0", 180, "0"));
    return checks;
}

std::size_t records_between(std::int64_t start, std::int64_t end, std::int64_t step) {
    std::int64_t count = 0;
    for (const Check &check : even_checks()) {
        const std::int64_t period = std::max(check.period, step);
        count += 1 + end / period - start / period;
    }
    return static_cast<std::size_t>(count);
}

void replace(std::vector<Check> *checks, Check check) {
    const auto place =
        std::find_if(checks->begin(), checks->end(), [&check](const Check &each) { return each.issue == check.issue; });
    if (place == checks->end()) {
        rig_failure("no check " + check.issue);
    }
    *place = std::move(check);
}

std::string stamp_of(std::int64_t seconds) {
    const std::time_t time = seconds;
    std::tm parts{};
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", gmtime_r(&time, &parts));
    return text.data();
}

StationLife::StationLife(std::vector<Check> checks) {
    for (Check &check : checks) {
        courses_.push_back({.check = std::move(check)});
    }
}

void StationLife::start(Station *station, const std::vector<std::string> &arguments) {
    station->start(arguments);
    predict_pass(station->clock());
}

void StationLife::step(Station *station) {
    const std::int64_t seconds = 10 - station->clock() % 10;
    const std::int64_t now = station->clock() + seconds;
    put_inputs(station, now);
    station->step(seconds);
    predict_pass(now);
}

void StationLife::steps(Station *station, int count) {
    for (int i = 0; i < count; ++i) {
        step(station);
    }
}

void StationLife::predict_pass(std::int64_t now) {
    last_ = records_.size();
    for (Course &course : courses_) {
        if (is_due(course, now)) {
            take_sample(&course, now);
        }
    }
    started_ = true;
}

std::vector<std::string> StationLife::last_records() const {
    return {records_.begin() + static_cast<std::ptrdiff_t>(last_), records_.end()};
}

/// Due in the first pass and at multiples of the period.
bool StationLife::is_due(const Course &course, std::int64_t now) const {
    return !started_ || now % course.check.period == 0;
}

void StationLife::put_inputs(Station *station, std::int64_t now) {
    for (const Course &course : courses_) {
        if (course.sample == 0 && course.check.put && is_due(course, now)) {
            course.check.put(*station, course.check.plateaus[course.plateau].input);
        }
    }
}

void StationLife::take_sample(Course *course, std::int64_t now) {
    const Check &check = course->check;
    const Plateau &plateau = check.plateaus[course->plateau];
    if (++course->sample == check.delay) {
        course->label = plateau.label;
        if (!plateau.sentence.empty()) {
            sentences_.push_back(plateau.sentence);
        }
    }
    const std::string &label = plateau.value == "NaN" ? "WARN" : course->label;
    records_.push_back(stamp_of(now) + "\t" + label + "\t" + check.issue + "\t" + plateau.value);
    if (course->sample == plateau.samples) {
        course->sample = 0;
        course->plateau = (course->plateau + 1) % check.plateaus.size();
    }
}

std::vector<std::string> sentences_of(const Station &station) {
    std::vector<std::string> sentences;
    for (const SyslogRecord &record : station.syslog()) {
        sentences.push_back(std::to_string(record.priority) + " " + record.text);
    }
    return sentences;
}
