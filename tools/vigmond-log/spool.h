#pragma once

// Records in an unnamed temporary file, because there may be more than fit into memory.

#include "handle.h"
#include "zone.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>

namespace vlog {

/// A new unnamed file in $TMPDIR; empty on failure, with errno set.
FileHandle temporary_file();

/// Raises the limit of open files to its maximum: each check of each station may need one.
void allow_many_files();

struct SpooledRecord {
    Moment time;
    std::int32_t value;
    std::uint16_t state;
    std::uint16_t readable;
};
static_assert(sizeof(SpooledRecord) == 16);

class Spool {
  public:
    /// False on failure, with errno set.
    bool add(const SpooledRecord &record) {
        if (!file_) {
            file_ = temporary_file();
        }
        ++count_;
        return file_ && std::fwrite(&record, sizeof(record), 1, file_.get()) == 1;
    }
    [[nodiscard]] std::uint64_t count() const { return count_; }

    /// Calls `visit` for each record in order. False on failure, with errno set.
    bool read(const std::function<void(const SpooledRecord &)> &visit) {
        if (!file_) {
            return count_ == 0;
        }
        if (std::fflush(file_.get()) != 0 || std::fseek(file_.get(), 0, SEEK_SET) != 0) {
            return false;
        }
        std::array<SpooledRecord, 256> buffer{};
        while (const std::size_t count = std::fread(buffer.data(), sizeof(SpooledRecord), buffer.size(), file_.get())) {
            std::for_each(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(count), visit);
        }
        return std::ferror(file_.get()) == 0 && std::fseek(file_.get(), 0, SEEK_END) == 0;
    }

  private:
    FileHandle file_;
    std::uint64_t count_ = 0;
};

} // namespace vlog
