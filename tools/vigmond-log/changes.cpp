#include "session.h"
#include "timeline.h"

namespace vlog {

namespace {

/// "CB20[0] temperature".
std::string check_text(const Definition &check) {
    return issue_text(check.check.issue) + "[" + std::to_string(check.check.index) + "] " + check.name;
}

class Changes {
  public:
    Changes(Session *session, const StationLog &log, std::string prefix, Output *output)
        : session_(session), log_(log), timeline_(log), prefix_(std::move(prefix)), output_(output) {}

    void take(const Event &event) {
        timeline_.take(event);
        if (event.is_set_back) {
            line(event.time, "the clock was set back by " + duration_text(event.set_back));
        }
        if (timeline_.pause()) {
            pause(*timeline_.pause());
        }
        switch (event.kind) {
        case EventKind::start:
            line(event.time, event.is_unclean ? "START after the daemon was killed or lost power" : "START");
            break;
        case EventKind::finished:
            line(event.time, "FINISHED");
            break;
        case EventKind::rotate:
            break;
        case EventKind::record:
            record(event);
        }
    }

  private:
    void line(Moment time, const std::string &text) {
        output_->print("%s%s  %s\n", prefix_.c_str(), local_text(time).c_str(), text.c_str());
    }

    void pause(const Pause &pause) {
        const std::string duration = duration_text(pause.end - pause.begin);
        line(pause.begin, pause.end - pause.begin >= Timeline::LEAP
                              ? "the clock was set forward by " + duration
                              : "gap: nothing was recorded for " + duration + ", or the clock was set forward");
    }

    void record(const Event &event) {
        const Definition &check = log_.checks()[event.check];
        const Step &step = timeline_.step();
        if (!session_->is_asked_for(check)) {
            return;
        }
        if (step.is_own_gap) {
            line(step.gap_begin,
                 "gap: " + check_text(check) + " was not recorded for " + duration_text(event.time - step.gap_begin));
        }
        if (step.is_change) {
            const std::string from = step.from ? state_label(*step.from) : "not recorded";
            line(event.time, check_text(check) + "  " + from + " -> " + state_label(event.state) + "  value " +
                                 std::to_string(event.value) +
                                 (step.from ? "  after " + duration_text(step.from_held) : ""));
        }
    }

    Session *session_;
    const StationLog &log_;
    Timeline timeline_;
    std::string prefix_;
    Output *output_;
};

} // namespace

/// One line per change of state, start, end, gap and clock change.
int changes(Session *session) {
    Output output(session->arguments().output);
    for (const StationFiles &station : session->stations()) {
        std::unique_ptr<Changes> changes;
        const std::string prefix = session->stations().size() == 1 ? "" : station.name + "  ";
        session->read(station, [&](const Event &event, const StationLog &log) {
            if (changes == nullptr) {
                changes = std::make_unique<Changes>(session, log, prefix, &output);
            }
            changes->take(event);
        });
    }
    return session->finish(&output);
}

} // namespace vlog
