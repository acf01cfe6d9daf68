#pragma once

// Where results go: standard output, or a file that appears when it is complete.

#include "handle.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace vlog {

class Output {
  public:
    /// Standard output when `path` is empty. Otherwise a new file in the same folder, which takes the place of `path`
    /// at the end, and of which nothing is left if that is not reached, also not by a signal.
    explicit Output(std::string path);
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    void write(std::string_view text) { std::fwrite(text.data(), 1, text.size(), stream()); }
    [[gnu::format(printf, 2, 3)]] void print(const char *format, ...);
    /// Ends the output: false when something could not be written, of which `problem()` then tells.
    bool finish();
    [[nodiscard]] const std::string &problem() const { return problem_; }
    /// Whether a person looks at it.
    [[nodiscard]] bool is_terminal() const;

  private:
    [[nodiscard]] std::FILE *stream() const { return file_ ? file_.get() : stdout; }

    std::string path_;
    std::string temporary_;
    FileHandle file_;
    std::string problem_;
};

/// The text as it stands between the quotes of a JSON string; what is no UTF-8 is replaced.
std::string json_text(std::string_view text);
/// The text with what is no UTF-8 replaced.
std::string utf8_text(std::string_view text);
/// "1d 2h 3min 4s".
std::string duration_text(std::int64_t seconds);

} // namespace vlog
