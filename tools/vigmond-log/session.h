#pragma once

// One run of vigmond-log: what all of its commands share.

#include "arguments.h"
#include "output.h"
#include "station_log.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <vector>

namespace vlog {

/// The exit statuses.
inline constexpr int DONE = 0;
inline constexpr int UNREADABLE = 1;
inline constexpr int WRONG_USAGE = 2;

/// A bar on standard error, if that is a terminal, once reading has taken a second.
class Progress {
  public:
    /// `total` is the size of all files in bytes; 0 when it is not known.
    explicit Progress(std::uint64_t total);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;
    /// Shows what has been read so far, if it is time to.
    void show();
    /// The bytes read so far, which the reading threads count.
    std::atomic<std::uint64_t> *counter() { return &read_; }

  private:
    std::atomic<std::uint64_t> read_ = 0;
    std::uint64_t total_;
    bool is_terminal_;
    bool is_shown_ = false;
    std::chrono::steady_clock::time_point next_;
};

/// Reads the stations that the arguments name.
class Session {
  public:
    /// `now` is the present moment, to which times like "yesterday" refer.
    Session(const Arguments &arguments, Moment now);

    /// False when nothing can be read; what is wrong has been said.
    [[nodiscard]] bool is_ready() const { return status_ == DONE; }
    [[nodiscard]] const std::vector<StationFiles> &stations() const { return stations_; }
    [[nodiscard]] const Arguments &arguments() const { return arguments_; }

    using Visit = std::function<void(const Event &event, const StationLog &log)>;
    using AtEnd = std::function<void(const StationLog &log)>;
    /// Calls `visit` for each event of the station in the range of time that was asked for, and then `at_end`. What is
    /// wrong with the files is said. When they hold nothing of a status log, neither is called.
    void read(const StationFiles &station, const Visit &visit, const AtEnd &at_end = nullptr);
    /// Whether the arguments ask for this check.
    [[nodiscard]] bool is_asked_for(const Definition &check) const {
        return !arguments_.issue || *arguments_.issue == check.check.issue;
    }

    /// Whether they ask for this record.
    [[nodiscard]] bool is_asked(const Event &event, const StationLog &log) const {
        return is_asked_for(log.checks()[event.check]) && (!arguments_.state || *arguments_.state == event.state);
    }

    /// Says something on standard error that is no failure.
    static void note(const std::string &text);
    /// Something was read past read().
    void note_read() { has_read_ = true; }
    /// Says what went wrong on standard error, and keeps the status.
    void complain(const std::string &text, int status = UNREADABLE);
    /// Ends the output and returns the exit status.
    int finish(Output *output);
    [[nodiscard]] int status() const { return status_; }

  private:
    bool take_time(const std::string &text, Moment now, std::optional<Moment> *moment);
    void take_stations();

    const Arguments &arguments_;
    std::vector<StationFiles> stations_;
    std::optional<Moment> since_;
    std::optional<Moment> until_;
    std::unique_ptr<Progress> progress_;
    bool has_read_ = false; ///< something
    int status_ = DONE;
};

/// Runs vigmond-log; the exit status.
int run(int argc, char **argv);

// The commands. Each returns the exit status.

int show(Session *session);
int changes(Session *session);
int summary(Session *session);
int plot(Session *session);
int export_records(Session *session);
int export_textfile(Session *session, Moment now);

/// The text as the value of a label, without the quotes.
std::string quoted_label(const std::string &text);
/// The labels of a check's series, without the braces; without a station when that is empty.
std::string label_text(const std::string &station, const Definition &check);

} // namespace vlog
