#pragma once

// Parsed trace lines of the daemon.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// "(2) [812] 14:03:20 analyzer.c: threshold_analyzer(90) the message"
struct TraceLine {
    int level;
    unsigned thread;
    std::string time;
    std::string file;
    std::string function;
    int line;
    std::string message;
};

std::optional<TraceLine> parse_trace_line(const std::string &text);

/// Splits a pipe's output into lines and parses the traces among them.
class TraceLog {
  public:
    void append(std::string_view bytes);
    /// Drops all output so far.
    void clear();

    /// The whole output.
    [[nodiscard]] const std::string &text() const { return text_; }
    [[nodiscard]] const std::vector<TraceLine> &lines() const { return lines_; }
    /// The messages of `function`, in order.
    [[nodiscard]] std::vector<std::string> messages_of(std::string_view function) const;
    /// The messages that contain `part`, in order.
    [[nodiscard]] std::vector<std::string> messages_with(std::string_view part) const;

  private:
    std::string text_;
    std::size_t parsed_ = 0;
    std::vector<TraceLine> lines_;
};
