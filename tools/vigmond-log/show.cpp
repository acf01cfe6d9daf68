#include "session.h"

namespace vlog {

namespace {

/// The text of a time, cached because many records have the same one.
class Stamp {
  public:
    const std::string &of(Moment time) {
        if (!is_set_ || time != time_) {
            time_ = time;
            is_set_ = true;
            text_ = local_text(time);
        }
        return text_;
    }

  private:
    Moment time_ = 0;
    bool is_set_ = false;
    std::string text_;
};

void show_record(const Event &event, CheckId check, const std::string &stamp, Output *output) {
    output->write(stamp);
    output->print("\t%s\t%s\t%u\t", state_label(event.state), issue_text(check.issue).c_str(), check.index);
    if (event.readable) {
        output->print("%d\n", event.value);
    } else {
        output->write("NaN\n");
    }
}

} // namespace

/// The records as in the log; with several stations each line starts with the station.
int show(Session *session) {
    Output output(session->arguments().output);
    const bool is_one = session->stations().size() == 1;
    for (const StationFiles &station : session->stations()) {
        Stamp stamp;
        session->read(station, [&](const Event &event, const StationLog &log) {
            if (event.kind == EventKind::record && session->is_asked(event, log)) {
                output.write(is_one ? "" : station.name + "\t");
                show_record(event, log.checks()[event.check].check, stamp.of(event.time), &output);
            }
        });
    }
    return session->finish(&output);
}

} // namespace vlog
