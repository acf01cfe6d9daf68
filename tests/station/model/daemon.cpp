#include "daemon.h"

#include "sentence.h"

#include <utility>

namespace model {

namespace {

void add(std::vector<std::string> *sentences, std::string sentence) {
    if (!sentence.empty()) {
        sentences->push_back(std::move(sentence));
    }
}

std::string text_of(const Judgement &judgement) {
    const Counts &c = judgement.counts;
    return "state " + std::to_string(judgement.state) + ", counts: min fail " + std::to_string(c.min_fail) +
           ", min warn " + std::to_string(c.min_warn) + ", ok " + std::to_string(c.ok) + ", max warn " +
           std::to_string(c.max_warn) + ", max fail " + std::to_string(c.max_fail);
}

} // namespace

Daemon::Daemon(const Settings &settings, const std::vector<Check> &checks, BoardState board, const std::string &old_log,
               std::int64_t now)
    : settings_(settings), board_(std::move(board)), registry_(now), log_(settings, checks, old_log, now) {
    for (const Check &check : checks) {
        courses_.push_back({.check = check, .judgement = {}, .value = std::nullopt});
        if (check.probe == Probe::service) {
            for (const std::string &unit : units_.watch(*check.parameter, &board_)) {
                add(&shown_.sentences, sentence_of_missing_unit(unit, settings_.severity));
            }
        }
    }
    load_.note_counters(board_.file(CPU_FILE));
}

bool Daemon::can_take(const Input &input) const {
    switch (input.kind) {
    case Input::Kind::child_ends:
        return loggers_.runs(input.target);
    case Input::Kind::generation_lost:
        return log_.generations().contains(number_in(input.target));
    case Input::Kind::ask_listing:
    case Input::Kind::ask_availability:
    case Input::Kind::bus_lost:
        return board_.has_bus();
    case Input::Kind::bus_back:
        return board_.bus == BoardState::Bus::lost;
    default:
        return true;
    }
}

void Daemon::take(const Input &input) {
    switch (input.kind) {
    case Input::Kind::sigusr1:
        reopen_load_loggers();
        break;
    case Input::Kind::child_ends:
        loggers_.end(input.target);
        break;
    case Input::Kind::generation_lost:
        log_.lose_generation(number_in(input.target));
        break;
    default:
        board_.take(input);
        break;
    }
}

void Daemon::believe(const std::vector<Check> &checks) {
    for (std::size_t i = 0; i < courses_.size(); ++i) {
        courses_[i].check = checks[i];
    }
}

Shown Daemon::pass(std::int64_t now) {
    paths_.look(&board_);
    for (Course &course : courses_) {
        if (course.next_run <= now) {
            run(&course, now);
            course.next_run = course.check.interval * (now / course.check.interval) + course.check.interval;
        }
    }
    for (const std::string &signal : registry_.signals(now)) {
        (board_.has_bus() ? shown_.signals : waiting_).push_back(signal);
    }
    return std::exchange(shown_, {});
}

void Daemon::run(Course *course, std::int64_t now) {
    const Check &check = course->check;
    if (!is_in_use(check)) {
        course->value.reset();
        return;
    }
    course->value = read(check);
    if (course->value && judge(check, *course->value, &course->judgement)) {
        tell(*course, now);
    }
    log_.record(check, course->judgement.state, course->value, now);
}

void Daemon::tell(const Course &course, std::int64_t now) {
    const Check &check = course.check;
    const int state = course.judgement.state;
    registry_.report(check.id, state, now);
    add(&shown_.sentences, sentence_of(check, state, *course.value, units_.down(), settings_.severity));
    if (check.probe == Probe::load && state != 0 && loggers_.start(issue_of(check))) {
        shown_.started.push_back(load_logger_call(issue_of(check)));
    }
}

bool Daemon::is_in_use(const Check &check) const {
    switch (check.probe) {
    case Probe::ethernet:
        return paths_.lan();
    case Probe::internet:
        return check.id == 10 ? paths_.lan() : paths_.wifi();
    case Probe::wireless:
        return paths_.wifi();
    default:
        return true;
    }
}

Reading Daemon::read(const Check &check) {
    const std::string parameter = check.parameter.value_or("");
    const File &file = board_.file(parameter);
    switch (check.probe) {
    case Probe::temperature:
        return read_temperature(file);
    case Probe::bluetooth:
        return read_presence(file);
    case Probe::internet:
        return read_traffic(board_.file(TRAFFIC_FILE), parameter);
    case Probe::ethernet:
        return check.id == 11 ? read_presence(file) : read_ethernet_link(file);
    case Probe::memoryusage:
        return read_memory(board_.file(MEMORY_FILE));
    case Probe::wearout:
        return read_wear(file, board_.emmc);
    case Probe::wireless:
        return read_wireless(check);
    case Probe::diskusage:
        return read_disk(file, board_.disks[parameter]);
    case Probe::service:
        return units_.read(&board_);
    default:
        loggers_.begin_run(issue_of(check));
        return load_.read(board_.file(CPU_FILE));
    }
}

Reading Daemon::read_wireless(const Check &check) const {
    const std::string interface = check.parameter.value_or("");
    switch (check.id) {
    case 1:
        return read_presence(board_.file(WIFI_FILE));
    case 2:
        return read_wifi_link(board_.file(WIFI_FILE));
    case 4:
        return read_quality(board_.file(WIRELESS_FILE), interface);
    default:
        return read_strength(board_.file(WIRELESS_FILE), interface);
    }
}

void Daemon::reopen_load_loggers() {
    for (const Course &course : courses_) {
        loggers_.mark(issue_of(course.check));
    }
}

std::string Daemon::standing(const std::string &issue) const {
    for (const Course &course : courses_) {
        if (issue_of(course.check) == issue) {
            return text_of(course.judgement) + ", value " + (course.value ? std::to_string(*course.value) : "none") +
                   ", next run " + local_stamp(course.next_run);
        }
    }
    return "no check " + issue;
}

} // namespace model
