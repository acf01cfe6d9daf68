#pragma once

// What the unpacking threads pass to the thread that reads in order.

#include "line.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vlog {

enum class ItemKind : std::uint8_t { record, start, rotate, finished, definition };

/// A line in 16 bytes; many are in memory.
class Item {
  public:
    Item() = default;
    explicit Item(const Record &record)
        : word_(word(record.local, ItemKind::record, record.state, record.readable)), value_(record.value),
          check_(record.check) {}
    /// `place` is the index of the command line or definition in the chunk.
    Item(ItemKind kind, LocalTime local, std::size_t place)
        : word_(word(local, kind, State::ok, false)), value_(static_cast<std::int32_t>(place)) {}

    [[nodiscard]] LocalTime local() const { return word_ >> 8; }
    [[nodiscard]] ItemKind kind() const { return static_cast<ItemKind>(word_ & 7); }
    [[nodiscard]] State state() const { return static_cast<State>(word_ >> 3 & 3); }
    [[nodiscard]] bool readable() const { return (word_ & 32) != 0; }
    [[nodiscard]] std::int32_t value() const { return value_; }
    [[nodiscard]] CheckId check() const { return check_; }
    [[nodiscard]] std::size_t place() const { return static_cast<std::size_t>(value_); }

  private:
    static std::int64_t word(LocalTime local, ItemKind kind, State state, bool readable) {
        return local * 256 + static_cast<int>(kind) + static_cast<std::int64_t>(state) * 8 + (readable ? 32 : 0);
    }
    std::int64_t word_ = 0;
    std::int32_t value_ = 0;
    CheckId check_;
};
static_assert(sizeof(Item) == 16);

/// Part of a file, in the file's order.
struct Chunk {
    static constexpr std::size_t MOST_ITEMS = 4096;
    static constexpr std::size_t MOST_EXTRAS = 64; ///< command lines and definitions, each of some KB at most

    std::vector<Item> items;
    std::vector<Definition> definitions;
    std::vector<std::string> command_lines;
    std::uint64_t foreign_lines = 0;
    std::uint64_t repeated_bytes = 0; ///< skipped, because the previous file has them too
    std::size_t file = 0;             ///< its place in the order of the files
    bool is_last = false;             ///< of its file
    std::string problem;              ///< of the file, in the last chunk

    [[nodiscard]] bool is_full() const {
        return items.size() >= MOST_ITEMS || definitions.size() + command_lines.size() >= MOST_EXTRAS;
    }
    void clear();
};

/// Turns the text of one file into items. Counts foreign lines, and a last line without a line feed, which may be
/// incomplete.
class TextReader {
  public:
    static constexpr std::size_t LONGEST_LINE = 65536;

    /// Reads whole lines from the beginning of `text` until the chunk is full. Returns the number of bytes used; the
    /// caller passes the rest again, followed by more.
    std::size_t read(std::string_view text, Chunk *chunk);
    /// Ends the file with the remaining text, which has no line feed.
    void finish(std::string_view text, Chunk *chunk);

  private:
    std::size_t read_records(std::string_view text, Chunk *chunk);
    void read_line(std::string_view line, Chunk *chunk);
    void read_comment(std::string_view line, Chunk *chunk);

    RecordReader records_;
    CommentReader comments_;
    bool in_long_line_ = false; ///< its beginning has been dropped
};

} // namespace vlog
