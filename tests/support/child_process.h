#pragma once

// A program started by a test and ended with the test at the latest.

#include "handle.h"

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

/// The lines of a stream, collected by a thread so that the writer never blocks.
class LineReader {
  public:
    explicit LineReader(Descriptor stream);
    ~LineReader();
    LineReader(const LineReader &) = delete;
    LineReader &operator=(const LineReader &) = delete;

    /// Waits for the next line, from line `from`, that contains `text`; returns its number, or none if the stream ends
    /// without it or nothing arrives for a minute.
    std::optional<std::size_t> wait_for(const std::string &text, std::size_t from = 0);
    /// A line received.
    std::string line(std::size_t number);
    /// All lines so far.
    std::vector<std::string> lines();

  private:
    void read();

    Descriptor stream_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::vector<std::string> lines_;
    bool ended_ = false;
    std::thread reader_;
};

class ChildProcess {
  public:
    /// Starts `command` with `environment` ("NAME=value") added to the test's own.
    explicit ChildProcess(const std::vector<std::string> &command, const std::vector<std::string> &environment = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess &operator=(const ChildProcess &) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    void write(const std::string &text) const;
    LineReader &output() { return *output_; }
    LineReader &errors() { return *errors_; }
    void kill(int signo) const;
    /// Waits for the end; returns the exit status, or minus the signal that ended it.
    int wait();

  private:
    pid_t pid_ = -1;
    Descriptor input_;
    std::optional<LineReader> output_;
    std::optional<LineReader> errors_;
};

/// Runs `command` to its end; returns its status and what it wrote to stdout.
struct CommandResult {
    int status;
    std::vector<std::string> output;
};
CommandResult run_command(const std::vector<std::string> &command);
