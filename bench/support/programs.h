#pragma once

// Programs that the benchmarks start and measure from outside: the daemon with a simulated clock, the baseline, and
// others of the daemon's kind; and the rows of the resulting table.

#include "bench_board.h"

#include <string>
#include <sys/types.h>
#include <vector>

using Command = std::vector<std::string>;

/// The command of the daemon in `folder` with all tasks due at each heartbeat. It ends by itself. With period 0 the
/// heartbeats follow each other without a pause.
Command daemon_command(const BenchBoard &board, int period_ms, int heartbeats, const std::string &folder = COST_FOLDER);

/// The program that only makes the same system calls and writes the same lines.
class Baseline {
  public:
    /// Runs the daemon once to record its lines.
    explicit Baseline(const BenchBoard &board);
    [[nodiscard]] Command command(int period_ms, int heartbeats, const std::string &folder = COST_FOLDER) const;

    /// The number of lines of a pass.
    [[nodiscard]] std::size_t lines_of_pass() const { return lines_of_pass_; }

  private:
    const BenchBoard &board_;
    std::size_t lines_of_pass_ = 0;
    std::string start_; ///< paths of the tapes
    std::string pass_;
};

/// Executes the program with stdout to `out`, or to /dev/null.
[[noreturn]] void become(const Command &command, int out = -1);
/// Starts the program as a child.
pid_t start(const Command &command, int out = -1);

/// One of the two programs above, waiting after its heartbeats; killed by the destructor.
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

/// Prints a row of script/bench's table; only the figure if `against` is 0.
void print_row(const char *what, double figure, double against, double goal);
