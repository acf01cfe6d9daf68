#pragma once

// The CPU's load, and the load logger that a high one starts.

#include "readings.h"

#include <set>

namespace model {

/// What both load checks share.
class CpuLoad {
  public:
    /// At the start of the daemon.
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

/// The load loggers of both checks, by their issues.
class LoadLoggers {
  public:
    /// Marks the issue's check for a new beginning, which it takes when it runs.
    void mark(const std::string &issue) { marked_.insert(issue); }
    void begin_run(const std::string &issue);
    /// Whether a sentence about a high load starts one; it then runs.
    bool start(const std::string &issue);
    /// Its end marks its check.
    void end(const std::string &issue);
    [[nodiscard]] bool runs(const std::string &issue) const { return running_.contains(issue); }
    [[nodiscard]] const std::set<std::string> &running() const { return running_; }

  private:
    bool started_ = false; ///< no other one may be, whosever it is
    std::set<std::string> running_;
    std::set<std::string> marked_;
};

/// The program's arguments and environment.
std::string load_logger_call(const std::string &issue);

} // namespace model
