#include "differential_run.h"

#include <algorithm>
#include <sstream>

namespace model {

namespace {

constexpr std::size_t REMEMBERED = 3000;
constexpr const char *NOTHING = "(nothing)";

std::vector<std::string> lines_in(const std::string &text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(stream.eof() ? line + "(no line feed)" : line);
    }
    return lines;
}

std::string at(const std::vector<std::string> &texts, std::size_t number) {
    return number < texts.size() ? texts[number] : NOTHING;
}

/// The check named by a record, a sentence or a call, "CB20[0]"; empty without one.
std::string issue_in(const std::string &text) {
    for (std::size_t i = text.find("CB"); i != std::string::npos; i = text.find("CB", i + 1)) {
        if (i + 5 < text.size() && (text[i + 4] == '[' || text[i + 4] == '\t')) {
            return text.substr(i, 4) + "[" + text[i + 5] + "]";
        }
    }
    return "";
}

/// The files, disks and units that a check reads.
std::vector<std::string> targets_of(const Check &check) {
    const std::string parameter = check.parameter.value_or("");
    switch (check.probe) {
    case Probe::internet:
        return {TRAFFIC_FILE, LAN_CONFIGURATION, WIFI_CONFIGURATION};
    case Probe::ethernet:
        return {parameter, LAN_CONFIGURATION};
    case Probe::memoryusage:
        return {MEMORY_FILE};
    case Probe::wireless:
        return {WIFI_FILE, WIRELESS_FILE, WIFI_CONFIGURATION};
    case Probe::service:
        return words_of(parameter);
    case Probe::load:
        return {CPU_FILE, issue_of(check)};
    default:
        return {parameter};
    }
}

} // namespace

DifferentialRun::DifferentialRun(RigSetup setup, Settings settings, std::vector<Check> checks)
    : settings_(std::move(settings)), checks_(std::move(checks)), setup_(std::move(setup)), rig_(setup_),
      now_(setup_.clock) {}

void DifferentialRun::start() {
    daemon_.emplace(settings_, checks_, board_after(setup_.inputs, setup_.has_bus), setup_.old_log, now_);
    rig_.start();
    compare_pass();
}

void DifferentialRun::put(const Input &input) {
    if (!daemon_->can_take(input) || !difference_.empty()) {
        return;
    }
    done_.push_back({.beat = beats_, .now = now_, .input = input});
    if (done_.size() > REMEMBERED) {
        done_.pop_front();
    }
    if (input.kind == Input::Kind::ask_listing || input.kind == Input::Kind::ask_availability) {
        ask(input);
        return;
    }
    daemon_->take(input);
    rig_.apply(input);
    if (input.kind == Input::Kind::bus_back) {
        const std::vector<std::string> predicted = daemon_->waiting_signals();
        const std::vector<std::string> seen = rig_.signals(predicted.size());
        signals_.insert(signals_.end(), seen.begin(), seen.end());
        compare("signals that waited for the bus", predicted, seen);
    }
}

// A switch of a known group is always answered with "failed".
void DifferentialRun::ask(const Input &question) {
    if (question.kind == Input::Kind::ask_listing) {
        compare("listing", daemon_->registry().listing(), rig_.listing());
        return;
    }
    const std::string &word = question.target;
    const bool is_known = word.starts_with("WiFi") || word.starts_with("LAN") || word.starts_with("Cell");
    compare("reply", {is_known ? "failed" : "accepted"}, {rig_.availability(word, question.text == "1")});
}

void DifferentialRun::beat(std::int64_t now) {
    if (difference_.empty()) {
        now_ = now;
        ++beats_;
        rig_.beat(now);
        compare_pass();
    }
}

void DifferentialRun::beat() { beat(now_ - now_ % 10 + 10); }

void DifferentialRun::beats(int count) {
    for (int i = 0; i < count; ++i) {
        beat();
    }
}

void DifferentialRun::forget() {
    sentences_.clear();
    signals_.clear();
    started_.clear();
}

void DifferentialRun::stop() {
    if (!difference_.empty()) {
        return;
    }
    const int status = rig_.stop();
    daemon_->finish(now_);
    compare("exit status", {"1"}, {std::to_string(status)});
    compare_log();
    compare_generations();
    compare("load loggers at the end", {"gone"}, {rig_.load_loggers_end() ? "gone" : "still there"});
    compare("signals after the last pass", {}, rig_.signals(0));
}

// --- comparison

void DifferentialRun::compare_pass() {
    const Shown predicted = daemon_->pass(now_);
    const std::vector<std::string> sentences = rig_.sentences();
    const std::vector<std::string> started = rig_.started(predicted.started.size());
    const std::vector<std::string> signals = rig_.signals(predicted.signals.size());
    sentences_.insert(sentences_.end(), sentences.begin(), sentences.end());
    started_.insert(started_.end(), started.begin(), started.end());
    signals_.insert(signals_.end(), signals.begin(), signals.end());
    compare_log();
    compare("sentences", predicted.sentences, sentences);
    compare("starts of the load logger", predicted.started, started);
    compare("signals", predicted.signals, signals);
}

void DifferentialRun::compare_log() {
    const LogFile &log = daemon_->log();
    if (log.rotations() != rotations_) {
        rotations_ = log.rotations();
        log_read_ = 0;
        compare_generations();
    }
    const std::string predicted = log.text().substr(log_read_);
    const std::string seen = rig_.log_from(log_read_);
    if (predicted != seen) {
        compare("status log", lines_in(predicted), lines_in(seen));
    }
    log_read_ = log.text().size();
}

void DifferentialRun::compare_generations() {
    const auto &predicted = daemon_->log().generations();
    const auto seen = rig_.generations();
    if (predicted == seen) {
        return;
    }
    std::vector<std::string> predicted_lines;
    std::vector<std::string> seen_lines;
    for (const auto &[lines, generations] : {std::pair{&predicted_lines, &predicted}, std::pair{&seen_lines, &seen}}) {
        for (const auto &[number, text] : *generations) {
            lines->push_back("generation " + std::to_string(number));
            for (const std::string &line : lines_in(text)) {
                lines->push_back(line);
            }
        }
    }
    compare("older status logs", predicted_lines, seen_lines);
}

void DifferentialRun::compare(const std::string &what, const std::vector<std::string> &predicted,
                              const std::vector<std::string> &seen) {
    if (predicted == seen || !difference_.empty()) {
        return;
    }
    std::size_t first = 0;
    while (first < predicted.size() && first < seen.size() && predicted[first] == seen[first]) {
        ++first;
    }
    report(what, at(predicted, first), at(seen, first));
}

std::string DifferentialRun::inputs_of(const std::string &issue) const {
    constexpr std::size_t enough = 40;
    std::vector<std::string> targets;
    for (const Check &check : checks_) {
        if (issue_of(check) == issue) {
            targets = targets_of(check);
        }
    }
    std::vector<std::string> lines;
    for (auto each = done_.rbegin(); each != done_.rend() && lines.size() < enough; ++each) {
        const bool concerned = std::find(targets.begin(), targets.end(), each->input.target) != targets.end();
        if (issue.empty() || concerned) {
            lines.push_back("  after #" + std::to_string(each->beat) + " (" + local_stamp(each->now) + ") " +
                            text_of(each->input) + "\n");
        }
    }
    std::reverse(lines.begin(), lines.end());
    std::string text;
    for (const std::string &line : lines) {
        text += line;
    }
    return text;
}

void DifferentialRun::report(const std::string &what, const std::string &predicted, const std::string &seen) {
    const std::string issue = issue_in(predicted).empty() ? issue_in(seen) : issue_in(predicted);
    difference_ = "difference in: " + what + "\nheartbeat:     #" + std::to_string(beats_) + " at " +
                  local_stamp(now_) + " (" + std::to_string(now_) + ")\npredicted:     " + predicted +
                  "\nseen:          " + seen + "\nstarted as:    " + command_line_of(settings_) + "\n";
    if (!issue.empty()) {
        difference_ += "check:         " + issue + ": " + daemon_->standing(issue) + "\ninputs of this check:\n" +
                       inputs_of(issue);
    }
    difference_ += "the last inputs:\n" + inputs_of("");
}

} // namespace model
