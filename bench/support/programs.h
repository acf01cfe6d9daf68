#pragma once

// Programs that the benches start and look at from outside: the daemon under a clock of its own, the
// baseline, others of the daemon's kind; and the rows of the table that is made of it.

#include "bench_board.h"

#include <string>
#include <sys/types.h>
#include <vector>

using Command = std::vector<std::string>;

/// The command of the daemon in `folder`, all of whose tasks are due at each heartbeat. It ends by itself;
/// without a period one heartbeat follows the other.
Command daemon_command(const BenchBoard &board, int period_ms, int heartbeats, const std::string &folder = COST_FOLDER);

/// The program that asks the same of the system and writes the same lines, and does nothing else.
class Baseline {
  public:
    /// Runs the daemon once, for its lines.
    explicit Baseline(const BenchBoard &board);
    [[nodiscard]] Command command(int period_ms, int heartbeats, const std::string &folder = COST_FOLDER) const;

    /// The lines of a pass.
    [[nodiscard]] std::size_t lines_of_pass() const { return lines_of_pass_; }

  private:
    const BenchBoard &board_;
    std::size_t lines_of_pass_ = 0;
    std::string start_; ///< the tapes' paths
    std::string pass_;
};

/// Becomes the program, its stdout going to `out` or nowhere.
[[noreturn]] void become(const Command &command, int out = -1);
/// Starts the program as a child.
pid_t start(const Command &command, int out = -1);

/// A program of the two above that has done its heartbeats and stays, ended with the object.
class HeldProgram {
  public:
    explicit HeldProgram(Command command);
    ~HeldProgram();
    HeldProgram(const HeldProgram &) = delete;
    HeldProgram &operator=(const HeldProgram &) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = -1;
};

/// All lines of a file; none when it cannot be read.
std::vector<std::string> lines_of(const std::string &path);

/// Prints a row of script/bench's table; without a figure to compare with, the figure alone.
void print_row(const char *what, double figure, double against, double goal);
