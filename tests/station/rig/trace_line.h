#pragma once

// The daemon's trace lines, taken apart.

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

/// Cuts what comes down a pipe into lines and keeps the traces apart from all other text.
class TraceLog {
  public:
    void append(std::string_view bytes);
    /// Drops what has come so far.
    void clear();

    /// All bytes as they came.
    [[nodiscard]] const std::string &text() const { return text_; }
    [[nodiscard]] const std::vector<TraceLine> &lines() const { return lines_; }
    /// The messages of `function`, in order.
    [[nodiscard]] std::vector<std::string> messages_of(std::string_view function) const;
    /// The messages with `part` in them, in order.
    [[nodiscard]] std::vector<std::string> messages_with(std::string_view part) const;

  private:
    std::string text_;
    std::size_t parsed_ = 0;
    std::vector<TraceLine> lines_;
};
