#pragma once

// The real daemon and the model's, given the same inputs in the same order, and compared after each pass.

#include "daemon.h"
#include "rig.h"

#include <deque>

namespace model {

class DifferentialRun {
  public:
    /// `checks` is what the model takes for the built-in table.
    DifferentialRun(RigSetup setup, Settings settings, std::vector<Check> checks = built_in_checks());

    /// Starts both and compares the start and the first pass.
    void start();
    /// Does it to both; what cannot be done is left out.
    void put(const Input &input);
    /// Does it to the real one only.
    void put_secretly(const Input &input) { rig_.apply(input); }
    /// A heartbeat at that time.
    void beat(std::int64_t now);
    /// The heartbeat on the next multiple of ten seconds.
    void beat();
    void beats(int count);
    /// Ends the real one and compares what it leaves.
    void stop();

    [[nodiscard]] std::int64_t now() const { return now_; }
    /// What is on the bus now, as the real one says.
    [[nodiscard]] std::vector<std::string> listing() { return rig_.listing(); }
    /// The real one's status log.
    [[nodiscard]] std::string log() const { return rig_.log_from(0); }
    /// All sentences that the real one has shown.
    [[nodiscard]] const std::vector<std::string> &sentences() const { return sentences_; }
    /// All signals and calls of the load logger, likewise.
    [[nodiscard]] const std::vector<std::string> &signals() const { return signals_; }
    [[nodiscard]] const std::vector<std::string> &started() const { return started_; }
    /// Drops these.
    void forget();
    [[nodiscard]] unsigned beats_done() const { return beats_; }
    [[nodiscard]] unsigned rotations() const { return rotations_; }
    [[nodiscard]] pid_t pid() const { return rig_.pid(); }

    /// The first difference with all that led to it; empty as long as there is none.
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
    std::size_t log_read_ = 0; ///< what of the log has been compared
    unsigned rotations_ = 0;
    std::deque<Done> done_;
    std::vector<std::string> sentences_;
    std::vector<std::string> signals_;
    std::vector<std::string> started_;
    std::string difference_;
};

} // namespace model
