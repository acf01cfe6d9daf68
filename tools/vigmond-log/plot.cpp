// A page that shows the course of all checks.

#include "plot.h"

#include "page.h"
#include "session.h"
#include "timeline.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <fstream>

namespace vlog {

namespace {

constexpr const char *DYGRAPHS = "/usr/share/javascript/dygraphs/";
constexpr std::uint64_t MOST_RECORDS = 3000000; // in a page, some 8 MB
constexpr std::size_t MOST_EVENTS = 5000;       // in the list of changes, and as many starts in the strips
constexpr Moment CLOCK_IS_SET = 946684800;      // 2000-01-01: a controller without its time says 1970

/// One line of the list of changes.
struct Note {
    Moment time = 0;
    std::optional<std::size_t> check;
    std::string text;
};

class PlottedStation {
  public:
    PlottedStation(Session *session, const StationFiles &station) : session_(session), name_(station.name) {
        session->read(
            station, [this](const Event &event, const StationLog &log) { take(event, log); },
            [this](const StationLog &log) { checks_ = log.checks(); });
        spools_.resize(checks_.size());
    }

    [[nodiscard]] std::uint64_t records() const { return records_; }
    [[nodiscard]] std::optional<Moment> first() const { return has_set_clock() ? first_set_ : first_; }
    [[nodiscard]] std::optional<Moment> last() const { return newest_; }
    [[nodiscard]] const std::string &name() const { return name_; }
    [[nodiscard]] std::uint64_t late() const { return late_; }

    /// The places of checks that have records.
    [[nodiscard]] std::vector<std::size_t> shown() const {
        std::vector<std::size_t> found;
        for (std::size_t check = 0; check < checks_.size(); ++check) {
            if (spools_[check].count() > 0) {
                found.push_back(check);
            }
        }
        return found;
    }

    void write_body(std::size_t number, Output *output) const {
        output->print("<section><h2>%s</h2>\n", html_text(name_).c_str());
        write_notes(number, output);
        std::size_t place = 0;
        for (const std::size_t check : shown()) {
            const std::string id = "strip-" + std::to_string(number) + "-" + std::to_string(place++);
            output->print(
                "<div class=\"check\"><h3>%s <small>%s</small></h3><div class=\"strip\" id=\"%s\" role=\"img\" "
                "aria-label=\"course of %s; its changes are in the table\"></div></div>\n",
                html_text(title(check)).c_str(), html_text(checks_[check].parameter).c_str(), id.c_str(),
                html_text(title(check)).c_str());
        }
        output->write("</section>\n");
    }

    void write_data(std::uint64_t group, Output *output) {
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

  private:
    [[nodiscard]] bool has_set_clock() const { return newest_ && *newest_ >= CLOCK_IS_SET; }
    [[nodiscard]] std::string title(std::size_t check) const {
        const Definition &definition = checks_[check];
        return issue_text(definition.check.issue) + "[" + std::to_string(definition.check.index) + "] " +
               definition.name;
    }

    void take(const Event &event, const StationLog &log) {
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
            note(event.time, {}, event.is_unclean ? "START, after the daemon was killed or lost its power" : "START");
            starts_.emplace_back(event.time, event.is_unclean);
            starts_.resize(std::min(starts_.size(), MOST_EVENTS));
        } else if (event.kind == EventKind::finished) {
            note(event.time, {}, "FINISHED");
        } else if (event.kind == EventKind::record && session_->is_asked_for(log.checks()[event.check])) {
            record(event);
        }
    }

    void note(Moment time, std::optional<std::size_t> check, const std::string &text) {
        notes_.push_back({.time = time, .check = check, .text = text});
        if (notes_.size() > MOST_EVENTS) {
            notes_.pop_front();
            ++notes_left_out_;
        }
    }

    void record(const Event &event) {
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
            session_->complain(std::string("temporary file: ") + std::strerror(errno));
        }
    }

    void write_notes(std::size_t number, Output *output) const {
        const std::vector<std::size_t> strips = shown();
        output->print(
            "<details open><summary>%zu changes and events%s</summary>\n<div class=\"scroll\" tabindex=\"0\"><table>"
            "<thead><tr><th scope=\"col\">time</th><th scope=\"col\">check</th><th scope=\"col\">what</th></tr>"
            "</thead><tbody>\n",
            notes_.size(),
            notes_left_out_ > 0 ? (", the last of " + std::to_string(notes_.size() + notes_left_out_)).c_str() : "");
        for (const Note &note : notes_) {
            std::string strip;
            if (note.check) {
                const auto place = std::find(strips.begin(), strips.end(), *note.check);
                strip = " data-strip=\"strip-" + std::to_string(number) + "-" + std::to_string(place - strips.begin()) +
                        "\"";
            }
            output->print(
                "<tr><td><button type=\"button\" data-time=\"%lld\"%s>%s</button></td><td>%s</td><td>%s</td></tr>\n",
                static_cast<long long>(note.time), strip.c_str(), local_text(note.time).c_str(),
                note.check ? html_text(title(*note.check)).c_str() : "", html_text(note.text).c_str());
        }
        output->write("</tbody></table></div></details>\n");
    }

    static std::string number_text(std::optional<std::int32_t> number) {
        return number ? std::to_string(*number) : "null";
    }

    void write_check(std::size_t check, std::uint64_t group, Output *output) {
        const Definition &definition = checks_[check];
        output->print(R"({"name":"%s","interval":%s,"minfail":%s,"minwarn":%s,"maxwarn":%s,"maxfail":%s,"data":")",
                      json_text(title(check)).c_str(),
                      std::to_string(definition.interval.value_or(0) * static_cast<std::int64_t>(group)).c_str(),
                      number_text(definition.minfail).c_str(), number_text(definition.minwarn).c_str(),
                      number_text(definition.maxwarn).c_str(), number_text(definition.maxfail).c_str());
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
            session_->complain(std::string("temporary file: ") + std::strerror(errno));
        }
        output->write(text);
        output->print("\",\"begin\":%lld,\"count\":%llu}", static_cast<long long>(packer.begin()),
                      static_cast<unsigned long long>(packer.count()));
    }

    Session *session_;
    std::string name_;
    std::optional<Timeline> timeline_;
    std::vector<Definition> checks_;
    std::vector<Spool> spools_;
    std::vector<std::optional<Moment>> last_;
    std::vector<std::pair<Moment, bool>> starts_; ///< when, and whether the end before was unclean
    std::deque<Note> notes_;
    std::size_t notes_left_out_ = 0;
    std::uint64_t records_ = 0;
    std::uint64_t late_ = 0; ///< records of times that were there already
    std::optional<Moment> first_;
    std::optional<Moment> first_set_; ///< since the clock was set
    std::optional<Moment> newest_;
};

/// The content of a file of the library; none when it is not installed.
std::optional<std::string> library_file(const char *name) {
    std::ifstream file(std::string(DYGRAPHS) + name, std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    return text.empty() || text.find("</script") != std::string::npos ? std::nullopt : std::optional(text);
}

class Page {
  public:
    Page(Session *session, Output *output) : session_(session), output_(output) {}

    bool load() {
        script_ = library_file("dygraph.min.js");
        style_ = library_file("dygraph.min.css");
        if (!script_ || !style_) {
            session_->complain(std::string(DYGRAPHS) + ": the library is not there; install libjs-dygraphs");
        }
        return script_ && style_;
    }

    void add(const StationFiles &files) {
        auto station = std::make_unique<PlottedStation>(session_, files);
        if (!station->first()) {
            return;
        }
        first_ = std::min(first_.value_or(*station->first()), *station->first());
        last_ = std::max(last_.value_or(*station->last()), *station->last());
        records_ += station->records();
        if (station->late() > 0) {
            Session::note(station->name() + ": " + std::to_string(station->late()) +
                          " records are left out, because the clock was set back before them");
        }
        stations_.push_back(std::move(station));
    }

    [[nodiscard]] bool is_empty() const { return stations_.empty(); }

    void write() {
        write_head();
        for (std::size_t number = 0; number < stations_.size(); ++number) {
            stations_[number]->write_body(number, output_);
        }
        write_data();
        output_->write("<script>");
        output_->write(*script_);
        output_->write("</script>\n<script>");
        output_->write(PAGE_SCRIPT);
        output_->write("</script>\n</body></html>\n");
    }

  private:
    [[nodiscard]] std::string title() const {
        std::string names;
        for (const auto &station : stations_) {
            names += (names.empty() ? "" : ", ") + station->name();
        }
        return html_text(names) + ": " + local_text(*first_) + " to " + local_text(*last_);
    }

    void write_head() {
        const std::string zone = iso_text(*last_).substr(19);
        output_->print(
            "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
            "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; script-src "
            "'unsafe-inline'; style-src 'unsafe-inline'; img-src data:\">\n"
            "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>%s</title>\n<style>",
            title().c_str());
        output_->write(*style_);
        output_->write(PAGE_STYLE);
        output_->print(
            "</style></head><body>\n<h1>%s</h1>\n<div class=\"bar\"><button type=\"button\" id=\"whole\">whole "
            "time</button> drag to zoom, shift and drag to move; axis in UTC%s\n<span class=\"key\">"
            "<span style=\"background:#56b4e9;height:5px\"></span>OK"
            "<span style=\"background:#e69f00;height:9px\"></span>WARN"
            "<span style=\"background:#d55e00;height:13px\"></span>FAIL"
            "<span style=\"background:#ddd;height:13px\"></span>not recorded"
            "<span style=\"border-left:2px dashed #333;width:0;height:13px\"></span>start"
            "<span style=\"border-left:2px dotted #c00;width:0;height:13px\"></span>start after a kill or power cut"
            "</span></div>\n<noscript>The courses need JavaScript; the changes do not.</noscript>\n",
            title().c_str(), zone.c_str());
    }

    void write_data() {
        const std::uint64_t group = (records_ + MOST_RECORDS - 1) / MOST_RECORDS;
        const std::int64_t offset = zone_offset(*last_);
        output_->print(
            "<script type=\"application/json\" id=\"data\">{\"offset\":%lld,\"begin\":%lld,\"end\":%lld,\"stations\":[",
            static_cast<long long>(offset), static_cast<long long>(*first_ + offset),
            static_cast<long long>(std::max(*last_, *first_ + 1) + offset));
        for (std::size_t number = 0; number < stations_.size(); ++number) {
            output_->write(number == 0 ? "" : ",\n");
            stations_[number]->write_data(group, output_);
        }
        output_->write("]}</script>\n");
    }

    Session *session_;
    Output *output_;
    std::optional<std::string> script_;
    std::optional<std::string> style_;
    std::vector<std::unique_ptr<PlottedStation>> stations_;
    std::uint64_t records_ = 0;
    std::optional<Moment> first_;
    std::optional<Moment> last_;
};

} // namespace

int plot(Session *session) {
    allow_many_files();
    Output output(session->arguments().output);
    Page page(session, &output);
    if (!page.load()) {
        return session->status();
    }
    for (const StationFiles &station : session->stations()) {
        page.add(station);
    }
    if (page.is_empty()) {
        session->complain("there are no records to plot");
        return session->status();
    }
    page.write();
    return session->finish(&output);
}

} // namespace vlog
