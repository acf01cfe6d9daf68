#pragma once

// The model's daemon: from the time and the board it predicts the output of the real one.

#include "analyzer.h"
#include "cpu_load.h"
#include "log_file.h"
#include "paths.h"
#include "registry.h"
#include "units.h"

#include <utility>

namespace model {

/// The output of a pass, except its records.
struct Shown {
    std::vector<std::string> sentences;
    std::vector<std::string> signals;
    std::vector<std::string> started; ///< the calls of load loggers
};

class Daemon {
  public:
    /// Starts the daemon; `old_log` is the status log from before.
    Daemon(const Settings &settings, const std::vector<Check> &checks, BoardState board, const std::string &old_log,
           std::int64_t now);

    /// Whether the input is possible; a load logger that does not run cannot end, for example.
    [[nodiscard]] bool can_take(const Input &input) const;
    void take(const Input &input);
    /// Runs a pass; the output of the first includes that of the start.
    Shown pass(std::int64_t now);
    /// The signals pending until the bus is back.
    std::vector<std::string> waiting_signals() { return std::exchange(waiting_, {}); }
    void finish(std::int64_t now) { log_.finish(now); }
    /// Replaces the table of checks.
    void believe(const std::vector<Check> &checks);

    [[nodiscard]] const LogFile &log() const { return log_; }
    [[nodiscard]] const Registry &registry() const { return registry_; }
    /// The state of this issue's check ("CB20[0]"), for a report.
    [[nodiscard]] std::string standing(const std::string &issue) const;

  private:
    struct Course {
        Check check;
        Judgement judgement;
        std::optional<std::int32_t> value;
        std::int64_t next_run = 0;
    };

    void reopen_load_loggers();
    void run(Course *course, std::int64_t now);
    [[nodiscard]] bool is_in_use(const Check &check) const;
    Reading read(const Check &check);
    [[nodiscard]] Reading read_wireless(const Check &check) const;
    void tell(const Course &course, std::int64_t now);

    Settings settings_;
    BoardState board_;
    std::vector<Course> courses_;
    Registry registry_;
    LogFile log_;
    Paths paths_;
    Units units_;
    CpuLoad load_;
    LoadLoggers loggers_;
    Shown shown_;
    std::vector<std::string> waiting_;
};

} // namespace model
