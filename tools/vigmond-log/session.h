#pragma once

// One run of vigmond-log: what its commands share.

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

/// A progress bar on standard error, if that is a terminal and reading takes longer than a second.
class Progress {
  public:
    /// `total` is the size of all files in bytes; 0 if unknown. The bar appears after `delay`.
    explicit Progress(std::uint64_t total, std::chrono::milliseconds delay = std::chrono::seconds(1));
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;
    /// Updates the bar if it is due.
    void show();
    /// The bytes read so far, counted by the reading threads.
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
    /// Times like "yesterday" are relative to `now`.
    Session(const Arguments &arguments, Moment now);

    /// False if nothing can be read; the reason was printed.
    [[nodiscard]] bool is_ready() const { return status_ == DONE; }
    [[nodiscard]] const std::vector<StationFiles> &stations() const { return stations_; }
    [[nodiscard]] const Arguments &arguments() const { return arguments_; }

    using Visit = std::function<void(const Event &event, const StationLog &log)>;
    using AtEnd = std::function<void(const StationLog &log)>;
    /// Calls `visit` for each event of the station in the requested range of time, then `at_end`. Prints what is wrong
    /// with the files. Calls neither if they are not a status log.
    void read(const StationFiles &station, const Visit &visit, const AtEnd &at_end = nullptr);
    /// Whether the arguments select this check.
    [[nodiscard]] bool is_asked_for(const Definition &check) const {
        return !arguments_.issue || *arguments_.issue == check.check.issue;
    }
    /// Whether the arguments select this record.
    [[nodiscard]] bool is_asked(const Event &event, const StationLog &log) const {
        return is_asked_for(log.checks()[event.check]) && (!arguments_.state || *arguments_.state == event.state);
    }

    /// Prints a message that is not an error.
    static void note(const std::string &text);
    /// Notes that a log was read without read().
    void note_read() { has_read_ = true; }
    /// Prints an error and sets the exit status.
    void complain(const std::string &text, int status = UNREADABLE);
    /// Prints the first error that makes the output incomplete; finish() then discards the output.
    void spoil(const std::string &text);
    [[nodiscard]] bool is_spoiled() const { return is_spoiled_; }
    /// Completes the output and returns the exit status.
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
    bool has_read_ = false;
    bool is_spoiled_ = false;
    int status_ = DONE;
};

/// Runs vigmond-log; returns the exit status.
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
/// The labels of a check's series, without the braces; without a station if that is empty.
std::string label_text(const std::string &station, const Definition &check);

} // namespace vlog
