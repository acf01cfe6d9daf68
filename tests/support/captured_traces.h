#pragma once

// Replaces the journal in unit tests and records every trace.

#include <atomic>
#include <string>
#include <string_view>
#include <vector>

/// The journal's result; lines are accepted only with 0.
extern std::atomic<int> journal_result;

struct CapturedTrace {
    int priority;
    std::string code_file; ///< "CODE_FILE=analyzer.c"
    std::string code_line; ///< "CODE_LINE=90"
    std::string function;
    std::string line; ///< the whole prefixed line passed to the journal, without its line end
    std::string text; ///< the message after the prefix
};

/// Collects from its construction; earlier traces are dropped.
class CapturedTraces {
  public:
    CapturedTraces();
    /// Shows the last traces of a test that has failed.
    ~CapturedTraces();
    CapturedTraces(const CapturedTraces &) = default;
    CapturedTraces &operator=(const CapturedTraces &) = default;
    /// All traces so far, in order.
    [[nodiscard]] const std::vector<CapturedTrace> &all() const;
    /// The texts traced by `function`, in order.
    [[nodiscard]] std::vector<std::string> texts_of(std::string_view function) const;
    /// Whether `function` traced exactly `text`.
    [[nodiscard]] bool has(std::string_view function, std::string_view text) const;
};
