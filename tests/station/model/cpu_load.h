#pragma once

// The CPU load and the load logger started by a high one.

#include "readings.h"

#include <set>

namespace model {

/// The measurement that both load checks share.
class CpuLoad {
  public:
    /// Reads the counters at the start of the daemon.
    void note_counters(const File &stat);
    Reading read(const File &stat);

  private:
    struct Counters {
        std::int32_t user = 0;
        std::int32_t system = 0;
        std::int32_t idle = 0;
    };
    static bool parse(const File &stat, Counters *counters);

    Counters before_;
    std::int32_t last_ = 0;
};

/// The load loggers of both checks, by issue.
class LoadLoggers {
  public:
    /// Lets the issue's check start a load logger again from its next run on.
    void mark(const std::string &issue) { marked_.insert(issue); }
    void begin_run(const std::string &issue);
    /// Whether a sentence about a high load starts one, which then runs.
    bool start(const std::string &issue);
    /// Ends the issue's load logger and marks its check.
    void end(const std::string &issue);
    [[nodiscard]] bool runs(const std::string &issue) const { return running_.contains(issue); }
    [[nodiscard]] const std::set<std::string> &running() const { return running_; }

  private:
    bool started_ = false; ///< by either check; none is started until the mark
    std::set<std::string> running_;
    std::set<std::string> marked_;
};

/// The load logger's arguments and environment.
std::string load_logger_call(const std::string &issue);

} // namespace model
