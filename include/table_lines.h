#pragma once

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>

/// The lines of one of the kernel's tables; a line of more than 1023 characters is returned in parts. The table
/// ends after 16 MiB: an endless file in its place must not stop the heartbeat.
class TableLines {
  public:
    /// Reads `file`, which it borrows.
    explicit TableLines(std::FILE *file) : file_(file) {}

    /// The next line, which the caller may modify; null at the end.
    char *next() {
        if (read_ >= MAX_SIZE) {
            return nullptr;
        }
        char *const line = std::fgets(line_.data(), static_cast<int>(line_.size()), file_);
        read_ += size_of_line();
        return line;
    }

  private:
    static constexpr std::size_t MAX_SIZE = std::size_t{16} * 1024 * 1024;

    /// A part, or a line with zero bytes, counts as full.
    [[nodiscard]] std::size_t size_of_line() const {
        const std::size_t length = strnlen(line_.data(), line_.size());
        return length > 0 && line_[length - 1] == '\n' ? length : line_.size();
    }

    std::FILE *file_;
    std::size_t read_ = 0; ///< bytes, or more
    std::array<char, 1024> line_{};
};
