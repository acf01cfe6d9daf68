#include "chunk.h"

#include <algorithm>
#include <cstring>

namespace vlog {

void Chunk::clear() {
    items.clear();
    definitions.clear();
    command_lines.clear();
    foreign_lines = 0;
    repeated_bytes = 0;
    is_last = false;
    problem.clear();
}

std::size_t TextReader::read(std::string_view text, Chunk *chunk) {
    std::size_t used = 0;
    for (;;) {
        if (!in_long_line_) {
            used += read_records(text.substr(used), chunk);
        }
        if (chunk->is_full()) {
            break;
        }
        const std::string_view rest = text.substr(used);
        const auto *const end = static_cast<const char *>(std::memchr(rest.data(), '\n', rest.size()));
        if (end == nullptr) {
            break;
        }
        const auto length = static_cast<std::size_t>(end - rest.data());
        read_line(rest.substr(0, length), chunk);
        used += length + 1;
    }
    if (used == 0 && !chunk->is_full() && text.size() >= LONGEST_LINE) {
        in_long_line_ = true;
        return text.size();
    }
    return used;
}

/// Reads lines up to the first that does not look like most records.
std::size_t TextReader::read_records(std::string_view text, Chunk *chunk) {
    std::size_t used = 0;
    std::array<Item, 64> items; // added together, which costs less
    std::size_t count = 0;
    do {
        const std::size_t most = std::min(items.size(), Chunk::MOST_ITEMS - chunk->items.size());
        for (count = 0; count < most; ++count) {
            Record record;
            const std::size_t length = records_.read_usual(text.substr(used), &record);
            if (length == 0) {
                break;
            }
            items[count] = Item(record);
            used += length;
        }
        chunk->items.insert(chunk->items.end(), items.data(), items.data() + count);
    } while (count == items.size());
    return used;
}

void TextReader::finish(std::string_view text, Chunk *chunk) {
    if (!text.empty() || in_long_line_) {
        ++chunk->foreign_lines;
    }
    in_long_line_ = false;
}

void TextReader::read_line(std::string_view line, Chunk *chunk) {
    if (in_long_line_ || line.size() >= LONGEST_LINE) {
        in_long_line_ = false;
        ++chunk->foreign_lines;
        return;
    }
    if (line.ends_with('\r')) { // a copy that went through another system
        line.remove_suffix(1);
    }
    Record record;
    if (line.starts_with("##")) {
        read_comment(line, chunk);
    } else if (records_.read(line, &record)) {
        chunk->items.emplace_back(record);
    } else {
        ++chunk->foreign_lines;
    }
}

void TextReader::read_comment(std::string_view line, Chunk *chunk) {
    switch (comments_.read(line)) {
    case CommentReader::Found::definition:
        chunk->items.emplace_back(ItemKind::definition, 0, chunk->definitions.size());
        chunk->definitions.push_back(comments_.definition());
        break;
    case CommentReader::Found::marker: {
        constexpr std::array kinds{ItemKind::start, ItemKind::rotate, ItemKind::finished};
        const Marker &marker = comments_.marker();
        chunk->items.emplace_back(kinds[static_cast<std::size_t>(marker.occasion)], marker.local,
                                  chunk->command_lines.size());
        chunk->command_lines.push_back(marker.command_line);
        break;
    }
    case CommentReader::Found::nothing:
        break;
    }
}

} // namespace vlog
