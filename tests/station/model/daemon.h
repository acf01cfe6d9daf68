#pragma once

// The model's daemon: told of the time and the board, it predicts what the real one shows.

#include "analyzer.h"
#include "cpu_load.h"
#include "log_file.h"
#include "paths.h"
#include "registry.h"
#include "units.h"

#include <utility>

namespace model {

/// What a pass shows, beside its records.
struct Shown {
    std::vector<std::string> sentences;
    std::vector<std::string> signals;
    std::vector<std::string> started; ///< load loggers, as called
};

class Daemon {
  public:
    /// Is started; `old_log` is what it finds of a status log.
    Daemon(const Settings &settings, const std::vector<Check> &checks, BoardState board, const std::string &old_log,
           std::int64_t now);

    /// Whether the input can be done: there is no end of a load logger that does not run, and so on.
    [[nodiscard]] bool can_take(const Input &input) const;
    void take(const Input &input);
    /// The first one includes what the start shows.
    Shown pass(std::int64_t now);
    /// The signals that wait for the bus to come back.
    std::vector<std::string> waiting_signals() { return std::exchange(waiting_, {}); }
    void finish(std::int64_t now) { log_.finish(now); }
    /// From now on the checks are taken to be these.
    void believe(const std::vector<Check> &checks);

    [[nodiscard]] const LogFile &log() const { return log_; }
    [[nodiscard]] const Registry &registry() const { return registry_; }
    /// How the check of this issue ("CB20[0]") stands, for a report.
    [[nodiscard]] std::string standing(const std::string &issue) const;

  private:
    struct Course {
        Check check;
        Judgement judgement;
        std::optional<std::int32_t> value;
        std::int64_t next_run = 0;
    };

    void begin_anew();
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
