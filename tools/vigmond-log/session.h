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
    std::atomic<std::uint64_t> read = 0;

  private:
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
    /// Calls `visit` for each event of the station in the range of time that was asked for. What is wrong with the
    /// files is said. None when the files hold nothing of a status log.
    std::optional<LogCounts> read(const StationFiles &station, const Visit &visit);
    /// Whether the arguments ask for this check.
    [[nodiscard]] bool is_asked_for(const Definition &check) const {
        return !arguments_.issue || *arguments_.issue == check.check.issue;
    }

    /// Says what went wrong on standard error, and keeps the status.
    void complain(const std::string &text, int status = UNREADABLE);
    /// Ends the output and returns the exit status.
    int finish(Output *output);
    [[nodiscard]] int status() const { return status_; }

  private:
    bool take_range(Moment now);
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

} // namespace vlog
