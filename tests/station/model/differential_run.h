#pragma once

// Runs the real daemon and the model on the same inputs and compares them after each pass.

#include "daemon.h"
#include "rig.h"

#include <deque>

namespace model {

class DifferentialRun {
  public:
    /// `checks` is the model's table of checks.
    DifferentialRun(RigSetup setup, Settings settings, std::vector<Check> checks = built_in_checks());

    /// Starts both and compares the start and the first pass.
    void start();
    /// Applies the input to both; ignores an impossible one.
    void put(const Input &input);
    /// Applies the input to the real daemon only.
    void put_secretly(const Input &input) { rig_.apply(input); }
    /// A heartbeat at `now`.
    void beat(std::int64_t now);
    /// The heartbeat on the next multiple of ten seconds.
    void beat();
    void beats(int count);
    /// Stops the real daemon and compares its files.
    void stop();

    [[nodiscard]] std::int64_t now() const { return now_; }
    /// The real daemon's current listing on the bus.
    [[nodiscard]] std::vector<std::string> listing() { return rig_.listing(); }
    /// The real daemon's status log.
    [[nodiscard]] std::string log() const { return rig_.log_from(0); }
    /// All sentences of the real daemon.
    [[nodiscard]] const std::vector<std::string> &sentences() const { return sentences_; }
    /// All its signals, and all calls of the load logger.
    [[nodiscard]] const std::vector<std::string> &signals() const { return signals_; }
    [[nodiscard]] const std::vector<std::string> &started() const { return started_; }
    /// Drops the sentences, signals and calls.
    void forget();
    [[nodiscard]] unsigned beats_done() const { return beats_; }
    [[nodiscard]] unsigned rotations() const { return rotations_; }
    [[nodiscard]] pid_t pid() const { return rig_.pid(); }

    /// A report of the first difference with the inputs that led to it; empty without one.
    [[nodiscard]] const std::string &difference() const { return difference_; }

  private:
    struct Done {
        unsigned beat = 0;
        std::int64_t now = 0;
        Input input;
    };

    void compare_pass();
    void compare_log();
    void compare_generations();
    void compare(const std::string &what, const std::vector<std::string> &predicted,
                 const std::vector<std::string> &seen);
    void report(const std::string &what, const std::string &predicted, const std::string &seen);
    [[nodiscard]] std::string inputs_of(const std::string &issue) const;
    void ask(const Input &question);

    Settings settings_;
    std::vector<Check> checks_;
    RigSetup setup_;
    Rig rig_;
    std::optional<Daemon> daemon_;
    std::int64_t now_;
    unsigned beats_ = 0;
    std::size_t log_read_ = 0; ///< bytes of the log compared so far
    unsigned rotations_ = 0;
    std::deque<Done> done_;
    std::vector<std::string> sentences_;
    std::vector<std::string> signals_;
    std::vector<std::string> started_;
    std::string difference_;
};

} // namespace model
