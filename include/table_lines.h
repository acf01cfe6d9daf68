#pragma once

#include <array>
#include <cstdio>

/// Reads a kernel table line by line. A line of more than 1023 characters counts as several. Stops after 10,000
/// lines: another file under the table's name must not delay a heartbeat.
class TableLines {
  public:
    /// Borrows `file`.
    explicit TableLines(std::FILE *file) : file_(file) {}

    /// The next line, which the caller may modify; null at the end.
    char *next() {
        if (left_ == 0) {
            return nullptr;
        }
        --left_;
        return std::fgets(line_.data(), static_cast<int>(line_.size()), file_);
    }

  private:
    std::FILE *file_;
    int left_ = 10'000;
    std::array<char, 1024> line_{};
};
