#pragma once

// Standard output, or a file that appears when it is complete.

#include "handle.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace vlog {

class Output {
  public:
    /// Standard output if `path` is empty. Otherwise a temporary file in the same folder, which finish() renames to
    /// `path`. It is removed on failure, also by a signal.
    explicit Output(std::string path);
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    void write(std::string_view text) { std::fwrite(text.data(), 1, text.size(), stream()); }
    [[gnu::format(printf, 2, 3)]] void print(const char *format, ...);
    /// Completes the output. False if something could not be written; `problem()` says why.
    bool finish();
    [[nodiscard]] const std::string &problem() const { return problem_; }
    /// Whether the output goes to a terminal.
    [[nodiscard]] bool is_terminal() const;

  private:
    [[nodiscard]] std::FILE *stream() const { return file_ ? file_.get() : stdout; }

    std::string path_;
    std::string temporary_;
    FileHandle file_;
    std::string problem_;
};

/// The text of a JSON string, without the quotes; invalid UTF-8 is replaced.
std::string json_text(std::string_view text);
/// The text with invalid UTF-8 replaced.
std::string utf8_text(std::string_view text);
/// "1d 2h 3min 4s".
std::string duration_text(std::int64_t seconds);

} // namespace vlog
