#include "summary.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/ioctl.h>

namespace vlog {

namespace {

class Collector {
  public:
    Collector(Session *session, const StationLog &log) : session_(session), log_(log), timeline_(log) {}

    void take(const Event &event) {
        timeline_.take(event);
        if (event.kind == EventKind::record) {
            record(event);
        } else if (event.kind == EventKind::start) {
            ++summary_.starts;
            summary_.unclean_ends += event.is_unclean ? 1 : 0;
        }
    }

    StationSummary finish() {
        summary_.foreign_lines = log_.counts().foreign_lines;
        summary_.gaps = timeline_.gaps();
        summary_.leaps = timeline_.leaps();
        drain_the_rest();
        for (const Check &check : checks_) {
            summary_.records += check.summary.samples;
        }
        for (std::size_t check = 0; check < log_.checks().size(); ++check) {
            if (session_->is_asked_for(log_.checks()[check])) {
                finish_check(check);
            }
        }
        find_spilled();
        return std::move(summary_);
    }

  private:
    void record(const Event &event) {
        Check &check = checks_[event.check];
        const Step &step = timeline_.step();
        if (!summary_.first) {
            summary_.first = event.time;
        }
        summary_.last = event.time;
        ++check.summary.samples;
        check.summary.changes += step.is_change ? 1 : 0;
        if (step.held) {
            check.summary.seconds[static_cast<std::size_t>(*step.held)] += step.seconds;
        }
        if (event.readable && !check.values.add(event.value)) {
            make_room_for(event);
        }
    }

    [[gnu::cold]] void make_room_for(const Event &event) {
        drain(event.check);
        checks_[event.check].values.add(event.value);
    }

    void drain(std::size_t check) {
        if (!checks_[check].values.drain(static_cast<std::uint32_t>(check), &spill_) && !has_failed_) {
            has_failed_ = true;
            session_->complain(std::string("temporary file: ") + std::strerror(errno));
        }
    }

    void drain_the_rest() {
        for (std::size_t check = 0; check < checks_.size(); ++check) {
            if (checks_[check].values.is_spilled()) {
                drain(check);
            }
        }
    }

    void finish_check(std::size_t check) {
        const ValueCounts &values = checks_[check].values;
        CheckSummary found = checks_[check].summary;
        found.unreadable = found.samples - values.total();
        found.state = timeline_.state(check);
        found.min = values.least();
        found.max = values.greatest();
        if (values.is_spilled()) {
            places_.push_back(summary_.checks.size());
            requests_.push_back({.check = static_cast<std::uint32_t>(check), .rank = values.rank(50)});
            requests_.push_back({.check = static_cast<std::uint32_t>(check), .rank = values.rank(95)});
        } else {
            found.median = values.at_rank(values.rank(50));
            found.p95 = values.at_rank(values.rank(95));
        }
        found.check = log_.checks()[check];
        summary_.checks.push_back(found);
    }

    void find_spilled() {
        if (requests_.empty() || has_failed_ || !spill_.find(&requests_)) {
            return;
        }
        for (std::size_t at = 0; at < places_.size(); ++at) {
            summary_.checks[places_[at]].median = Spill::value_of(requests_[2 * at]);
            summary_.checks[places_[at]].p95 = Spill::value_of(requests_[2 * at + 1]);
        }
    }

    struct Check {
        CheckSummary summary;
        ValueCounts values;
    };

    Session *session_;
    const StationLog &log_;
    Timeline timeline_;
    std::vector<Check> checks_{MOST_CHECKS};
    Spill spill_;
    bool has_failed_ = false;
    std::vector<Spill::Request> requests_; ///< two for each check with spilled values
    std::vector<std::size_t> places_;      ///< of these checks in the summary
    StationSummary summary_;
};

TableStyle style_of(const Output &output) {
    TableStyle style;
    if (!output.is_terminal()) {
        return style;
    }
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) {
        style.width = size.ws_col;
    }
    const char *const no_colour = std::getenv("NO_COLOR");
    const char *const terminal = std::getenv("TERM");
    style.has_colours =
        (no_colour == nullptr || *no_colour == '\0') && terminal != nullptr && std::strcmp(terminal, "dumb") != 0;
    return style;
}

} // namespace

std::optional<StationSummary> sum_up(Session *session, const StationFiles &station) {
    std::optional<StationSummary> found;
    std::unique_ptr<Collector> collector;
    const auto collect = [&collector, session](const StationLog &log) -> Collector & {
        if (collector == nullptr) {
            collector = std::make_unique<Collector>(session, log);
        }
        return *collector;
    };
    session->read(
        station, [&collect](const Event &event, const StationLog &log) { collect(log).take(event); },
        [&collect, &found](const StationLog &log) { found = collect(log).finish(); });
    if (found) {
        found->station = station.name;
    }
    return found;
}

int summary(Session *session) {
    Output output(session->arguments().output);
    const TableStyle style = style_of(output);
    std::string json;
    for (const StationFiles &station : session->stations()) {
        const std::optional<StationSummary> found = sum_up(session, station);
        if (found && session->arguments().json) {
            json += (json.empty() ? "" : ",") + summary_json(*found);
        } else if (found) {
            output.write(table_text(*found, style));
        }
    }
    if (!json.empty()) {
        output.write("{\"stations\":[" + json + "]}\n");
    }
    return session->finish(&output);
}

} // namespace vlog
