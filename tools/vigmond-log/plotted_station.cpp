#include "plotted_station.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vlog {

namespace {

constexpr std::size_t MOST_EVENTS = 5000;  // in the list of changes, and as many starts in the strips
constexpr std::size_t MOST_UNFOLDED = 500; // of them; a browser needs a second for the layout of thousands
constexpr Moment CLOCK_IS_SET = 946684800; // 2000-01-01; a controller without its time starts in 1970

std::string json_number(std::optional<std::int32_t> number) { return number ? std::to_string(*number) : "null"; }

} // namespace

PlottedStation::PlottedStation(Session *session, const StationFiles &station) : session_(session), name_(station.name) {
    session->read(
        station, [this](const Event &event, const StationLog &log) { take(event, log); },
        [this](const StationLog &log) { checks_ = log.checks(); });
    spools_.resize(checks_.size());
}

bool PlottedStation::has_set_clock() const { return newest_ && *newest_ >= CLOCK_IS_SET; }

/// The places of the checks that have records.
std::vector<std::size_t> PlottedStation::shown() const {
    std::vector<std::size_t> found;
    for (std::size_t check = 0; check < checks_.size(); ++check) {
        if (spools_[check].count() > 0) {
            found.push_back(check);
        }
    }
    return found;
}

void PlottedStation::write_body(std::size_t number, Output *output) const {
    output->print("<section><h2>%s</h2>\n", html_text(name_).c_str());
    write_notes(number, output);
    std::size_t place = 0;
    for (const std::size_t check : shown()) {
        const std::string id = "strip-" + std::to_string(number) + "-" + std::to_string(place++);
        output->print("<div class=\"check\"><h3>%s <small>%s</small></h3><div class=\"strip\" id=\"%s\" role=\"img\" "
                      "aria-label=\"chart of %s; its changes are in the table\"></div></div>\n",
                      html_text(title(check)).c_str(), html_text(checks_[check].parameter).c_str(), id.c_str(),
                      html_text(title(check)).c_str());
    }
    output->write("</section>\n");
}

void PlottedStation::write_data(std::uint64_t group, Output *output) {
    output->print("{\"name\":\"%s\",\"starts\":[", json_text(name_).c_str());
    const char *comma = "";
    for (const auto &[time, is_unclean] : starts_) {
        output->print("%s[%lld,%s]", comma, static_cast<long long>(time), is_unclean ? "true" : "false");
        comma = ",";
    }
    output->write("],\"checks\":[");
    comma = "";
    for (const std::size_t check : shown()) {
        output->write(comma);
        write_check(check, group, output);
        comma = ",\n";
    }
    output->write("]}");
}

std::string PlottedStation::title(std::size_t check) const {
    const Definition &definition = checks_[check];
    return issue_text(definition.check.issue) + "[" + std::to_string(definition.check.index) + "] " + definition.name;
}

void PlottedStation::take(const Event &event, const StationLog &log) {
    if (!timeline_) {
        timeline_.emplace(log);
    }
    timeline_->take(event);
    if (event.is_set_back) {
        note(event.time, {}, "the clock was set back by " + duration_text(event.set_back));
    }
    if (timeline_->pause()) {
        const Pause &pause = *timeline_->pause();
        note(pause.begin, {}, "nothing was recorded for " + duration_text(pause.end - pause.begin));
    }
    if (event.kind == EventKind::start) {
        note(event.time, {}, event.is_unclean ? "START after the daemon was killed or lost power" : "START");
        starts_.emplace_back(event.time, event.is_unclean);
        starts_.resize(std::min(starts_.size(), MOST_EVENTS));
    } else if (event.kind == EventKind::finished) {
        note(event.time, {}, "FINISHED");
    } else if (event.kind == EventKind::record && session_->is_asked_for(log.checks()[event.check])) {
        record(event);
    }
}

void PlottedStation::note(Moment time, std::optional<std::size_t> check, const std::string &text) {
    notes_.push_back({.time = time, .check = check, .text = text});
    if (notes_.size() > MOST_EVENTS) {
        notes_.pop_front();
        ++notes_left_out_;
    }
}

void PlottedStation::record(const Event &event) {
    if (event.check >= spools_.size()) {
        spools_.resize(event.check + 1);
        last_.resize(event.check + 1);
    }
    const Step &step = timeline_->step();
    if (step.is_change) {
        note(event.time, event.check,
             (step.from ? std::string(state_label(*step.from)) : "not recorded") + " \u2192 " +
                 state_label(event.state) + ", value " + std::to_string(event.value) +
                 (step.from ? ", after " + duration_text(step.from_held) : ""));
    }
    std::optional<Moment> &last = last_[event.check];
    if (last && event.time <= *last) {
        ++late_;
        return;
    }
    last = event.time;
    ++records_;
    first_ = std::min(first_.value_or(event.time), event.time);
    if (event.time >= CLOCK_IS_SET) {
        first_set_ = std::min(first_set_.value_or(event.time), event.time);
    }
    newest_ = std::max(newest_.value_or(event.time), event.time);
    const State state = timeline_->state(event.check).value_or(event.state);
    if (!spools_[event.check].add({.time = event.time,
                                   .value = event.value,
                                   .state = static_cast<std::uint16_t>(state),
                                   .readable = static_cast<std::uint16_t>(event.readable ? 1 : 0)})) {
        session_->spoil(std::string("temporary file: ") + std::strerror(errno));
    }
}

void PlottedStation::write_notes(std::size_t number, Output *output) const {
    const std::vector<std::size_t> strips = shown();
    output->print("<details%s><summary>%zu changes and events%s</summary>\n<div class=\"scroll\" tabindex=\"0\"><table>"
                  "<thead><tr><th scope=\"col\">time</th><th scope=\"col\">check</th><th scope=\"col\">what</th></tr>"
                  "</thead><tbody>\n",
                  notes_.size() <= MOST_UNFOLDED ? " open" : "", notes_.size(),
                  notes_left_out_ > 0 ? (", the last of " + std::to_string(notes_.size() + notes_left_out_)).c_str()
                                      : "");
    for (const Note &note : notes_) {
        std::string strip;
        if (note.check) {
            const auto place = std::find(strips.begin(), strips.end(), *note.check);
            strip =
                " data-strip=\"strip-" + std::to_string(number) + "-" + std::to_string(place - strips.begin()) + "\"";
        }
        output->print(
            "<tr><td><button type=\"button\" data-time=\"%lld\"%s>%s</button></td><td>%s</td><td>%s</td></tr>\n",
            static_cast<long long>(note.time), strip.c_str(), local_text(note.time).c_str(),
            note.check ? html_text(title(*note.check)).c_str() : "", html_text(note.text).c_str());
    }
    output->write("</tbody></table></div></details>\n");
}

void PlottedStation::write_check(std::size_t check, std::uint64_t group, Output *output) {
    const Definition &definition = checks_[check];
    output->print(R"({"name":"%s","interval":%s,"minfail":%s,"minwarn":%s,"maxwarn":%s,"maxfail":%s,"data":")",
                  json_text(title(check)).c_str(),
                  std::to_string(definition.interval.value_or(0) * static_cast<std::int64_t>(group)).c_str(),
                  json_number(definition.minfail).c_str(), json_number(definition.minwarn).c_str(),
                  json_number(definition.maxwarn).c_str(), json_number(definition.maxfail).c_str());
    RecordPacker packer;
    Thinner thinner(group);
    std::string text;
    const auto keep = [&packer, &text](const SpooledRecord &record) { packer.add(record, &text); };
    const bool is_read = spools_[check].read([&](const SpooledRecord &record) {
        if (!has_set_clock() || record.time >= CLOCK_IS_SET) {
            thinner.add(record, keep);
        }
        output->write(text);
        text.clear();
    });
    thinner.finish(keep);
    packer.finish(&text);
    if (!is_read) {
        session_->spoil(std::string("temporary file: ") + std::strerror(errno));
    }
    output->write(text);
    output->print("\",\"begin\":%lld,\"count\":%llu}", static_cast<long long>(packer.begin()),
                  static_cast<unsigned long long>(packer.count()));
}

} // namespace vlog
