#pragma once

// The status log and its generations, byte for byte.

#include "checks.h"

#include <map>

namespace model {

/// Local time with Central European summer time: "2024-03-01 13:00:07".
std::string local_stamp(std::int64_t now);
inline constexpr const char *TIME_ZONE = "TZ=CET-1CEST,M3.5.0,M10.5.0/3";

class LogFile {
  public:
    /// Appends to `old`, the log from before.
    LogFile(Settings settings, std::vector<Check> checks, std::string old, std::int64_t now);

    /// Writes the record of a run; a missing value is "NaN".
    void record(const Check &check, int state, std::optional<std::int32_t> value, std::int64_t now);
    void finish(std::int64_t now);
    void lose_generation(int number) { generations_.erase(number); }

    [[nodiscard]] const std::string &text() const { return text_; }
    /// The older logs, uncompressed, by number.
    [[nodiscard]] const std::map<int, std::string> &generations() const { return generations_; }
    [[nodiscard]] unsigned rotations() const { return rotations_; }

  private:
    [[nodiscard]] std::string marker(const std::string &what, std::int64_t now) const;
    [[nodiscard]] std::string header(const std::string &occasion, std::int64_t now) const;
    void rotate_if_full(std::int64_t now);
    void rotate();

    Settings settings_;
    std::vector<Check> checks_;
    std::string text_;
    std::map<int, std::string> generations_;
    unsigned rotations_ = 0;
};

} // namespace model
