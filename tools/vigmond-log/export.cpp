// The records, for other programs.

#include "session.h"
#include "spool.h"

#include <cerrno>
#include <cstring>

namespace vlog {

namespace {

/// The text of a time, cached because many records have the same one.
class IsoStamp {
  public:
    const std::string &of(Moment time) {
        if (text_.empty() || time != time_) {
            time_ = time;
            text_ = iso_text(time);
        }
        return text_;
    }

  private:
    Moment time_ = 0;
    std::string text_;
};

/// A field of a CSV line.
std::string csv_text(const std::string &text) {
    if (text.find_first_of("\",\r\n") == std::string::npos) {
        return text;
    }
    std::string quoted = "\"";
    for (const char each : text) {
        quoted += each == '"' ? "\"\"" : std::string(1, each);
    }
    return quoted + "\"";
}

void csv_record(const std::string &station, const std::string &stamp, const Event &event, const Definition &check,
                Output *output) {
    output->print("%s,%s,%s,%u,%s,%s,", csv_text(station).c_str(), stamp.c_str(), issue_text(check.check.issue).c_str(),
                  check.check.index, csv_text(check.name).c_str(), state_label(event.state));
    output->write(event.readable ? std::to_string(event.value) + "\n" : "\n");
}

void json_record(const std::string &station, const std::string &stamp, const Event &event, const Definition &check,
                 Output *output) {
    output->print(R"({"station":"%s","time":"%s","issue":"%s","index":%u,"check":"%s","state":"%s","value":%s})"
                  "\n",
                  json_text(station).c_str(), stamp.c_str(), issue_text(check.check.issue).c_str(), check.check.index,
                  json_text(check.name).c_str(), state_label(event.state),
                  event.readable ? std::to_string(event.value).c_str() : "null");
}

/// Collects the records of all stations by check, because a series must be contiguous.
class Series {
  public:
    Series(Session *session, Output *output) : session_(session), output_(output) {}

    void add_station(const StationFiles &station) {
        const std::size_t begin = all_.size();
        std::uint64_t late = 0;
        session_->read(
            station,
            [&](const Event &event, const StationLog &log) {
                if (event.kind == EventKind::record && session_->is_asked(event, log)) {
                    late += add(begin + event.check, event) ? 0 : 1;
                }
            },
            [&](const StationLog &log) {
                for (std::size_t at = begin; at < all_.size(); ++at) {
                    all_[at].labels = labels(station, log.checks()[at - begin]);
                }
            });
        if (late > 0) {
            Session::note(station.name + ": " + std::to_string(late) +
                          " records are left out, because the clock was set back before them");
        }
    }

    void write() {
        write_family("vigmond_check_value", "The value of a check, in its own unit.",
                     [this](const SpooledRecord &record) {
                         output_->write(record.readable != 0 ? std::to_string(record.value) : "NaN");
                         return true;
                     });
        write_family("vigmond_check_state", "The state of a check: 0 is OK, 1 WARN, 2 FAIL.",
                     [this](const SpooledRecord &record) {
                         output_->write(std::to_string(record.state));
                         return true;
                     });
        output_->write("# EOF\n");
    }

  private:
    struct One {
        std::string labels;
        Spool spool;
        Moment last = 0;
        std::optional<State> state; ///< unchanged by values that cannot be read
    };

    static std::string labels(const StationFiles &station, const Definition &check) {
        return label_text(station.is_named ? station.name : "", check);
    }

    /// False if the time is not later than that of the previous record.
    bool add(std::size_t at, const Event &event) {
        if (at >= all_.size()) {
            all_.resize(at + 1);
        }
        One &one = all_[at];
        if (one.spool.count() > 0 && event.time <= one.last) {
            return false;
        }
        one.last = event.time;
        one.state = event.readable || !one.state ? event.state : one.state;
        if (!one.spool.add({.time = event.time,
                            .value = event.value,
                            .state = static_cast<std::uint16_t>(*one.state),
                            .readable = static_cast<std::uint16_t>(event.readable ? 1 : 0)})) {
            session_->spoil(std::string("temporary file: ") + std::strerror(errno));
        }
        return true;
    }

    template <typename Write> void write_family(const char *name, const char *help, const Write &write) {
        output_->print("# HELP %s %s\n# TYPE %s gauge\n", name, help, name);
        for (One &one : all_) {
            const bool is_read = one.spool.read([&](const SpooledRecord &record) {
                output_->print("%s{%s} ", name, one.labels.c_str());
                write(record);
                output_->print(" %lld\n", static_cast<long long>(record.time));
            });
            if (!is_read) {
                session_->spoil(std::string("temporary file: ") + std::strerror(errno));
            }
        }
    }

    Session *session_;
    Output *output_;
    std::vector<One> all_;
};

void export_lines(Session *session, Output *output) {
    const bool is_csv = session->arguments().format == Format::csv;
    const auto write = is_csv ? csv_record : json_record;
    if (is_csv) {
        output->write("station,time,issue,index,check,state,value\n");
    }
    for (const StationFiles &station : session->stations()) {
        IsoStamp stamp;
        session->read(station, [&](const Event &event, const StationLog &log) {
            if (event.kind == EventKind::record && session->is_asked(event, log)) {
                write(station.name, stamp.of(event.time), event, log.checks()[event.check], output);
            }
        });
    }
}

} // namespace

std::string quoted_label(const std::string &text) {
    std::string result;
    for (const char each : utf8_text(text)) {
        const bool is_plain = static_cast<unsigned char>(each) >= ' ' && each != 127;
        result += each == '"' || each == '\\' ? std::string{'\\', each} : std::string(1, is_plain ? each : '?');
    }
    return result;
}

std::string label_text(const std::string &station, const Definition &check) {
    return (station.empty() ? "" : "station=\"" + quoted_label(station) + "\",") + "issue=\"" +
           issue_text(check.check.issue) + "\",index=\"" + std::to_string(check.check.index) + "\",check=\"" +
           quoted_label(check.name) + "\"";
}

int export_records(Session *session) {
    allow_many_files();
    Output output(session->arguments().output);
    if (session->arguments().format == Format::openmetrics) {
        Series series(session, &output);
        for (const StationFiles &station : session->stations()) {
            series.add_station(station);
        }
        if (!session->is_spoiled()) {
            series.write();
        }
    } else {
        export_lines(session, &output);
    }
    return session->finish(&output);
}

} // namespace vlog
