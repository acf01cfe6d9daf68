#pragma once

// The text of one file, plain or compressed with bzip2.

#include "handle.h"

#include <array>
#include <atomic>
#include <bzlib.h>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace vlog {

class Source {
  public:
    /// Opens the file; "-" is standard input. `read_so_far` counts the bytes that come from the file and outlives
    /// the source; it may be null.
    explicit Source(const std::string &path, std::atomic<std::uint64_t> *read_so_far = nullptr);
    /// The text is in memory. For tests.
    explicit Source(std::span<const std::uint8_t> text) : input_(text.begin(), text.end()), at_end_(true) {}
    ~Source() { end_stream(); }
    Source(const Source &) = delete;
    Source &operator=(const Source &) = delete;

    /// Fills the buffer with the next part of the text and returns its size; 0 at the end, or where a damaged file
    /// becomes unreadable.
    std::size_t read(std::span<char> buffer);
    /// What is wrong with the file; empty if nothing is.
    [[nodiscard]] const std::string &problem() const { return problem_; }

  private:
    enum class Kind : std::uint8_t { unknown, plain, packed };

    bool refill();
    void find_kind();
    std::size_t read_plain(std::span<char> buffer);
    std::size_t read_packed(std::span<char> buffer);
    bool begin_stream();
    void end_stream();
    std::size_t fail(const char *text);
    [[nodiscard]] std::size_t left() const { return input_.size() - taken_; }

    Descriptor file_;
    std::atomic<std::uint64_t> *read_so_far_ = nullptr;
    std::vector<std::uint8_t> input_; ///< read from the file
    std::size_t taken_ = 0;           ///< of the input
    bool at_end_ = false;             ///< of the file
    bool must_be_packed_ = false;
    Kind kind_ = Kind::unknown;
    bz_stream stream_{};
    bool in_stream_ = false;
    unsigned streams_ = 0;
    std::string problem_;
};

} // namespace vlog
