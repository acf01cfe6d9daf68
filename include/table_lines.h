#pragma once

#include <array>
#include <cstdio>

/// The lines of one of the kernel's tables, a line of more than 1023 characters as several. After 10,000 of them
/// the table counts as read: what stands in its place must not hold a heartbeat.
class TableLines {
  public:
    /// Reads `file`, which it borrows.
    explicit TableLines(std::FILE *file) : file_(file) {}

    /// The next line, which the caller may cut up; null at the end.
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
