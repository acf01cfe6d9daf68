// A page with a chart of each check.

#include "page.h"
#include "plotted_station.h"

#include <algorithm>
#include <fstream>

namespace vlog {

namespace {

constexpr const char *DYGRAPHS = "/usr/share/javascript/dygraphs/";
constexpr std::uint64_t MOST_RECORDS = 3000000; // in a page, about 8 MB

/// The content of a file of the library; none if it is not installed.
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
            session_->complain(std::string(DYGRAPHS) + ": library not found; install libjs-dygraphs");
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
            "</span></div>\n<noscript>The charts need JavaScript; the changes do not.</noscript>\n",
            title().c_str(), zone.c_str());
    }

    void write_data() {
        const std::uint64_t group = (records_ + MOST_RECORDS - 1) / MOST_RECORDS;
        const std::int32_t offset = zone_offset(*last_);
        const Moment begin = *first_ + offset;
        const Moment end = std::max(*last_, *first_ + 1) + offset;
        output_->print(
            "<script type=\"application/json\" id=\"data\">{\"offset\":%d,\"begin\":%lld,\"end\":%lld,\"stations\":[",
            offset, static_cast<long long>(begin), static_cast<long long>(end));
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
