// The first byte is the size of the pieces, the rest a status log, plain or compressed.

#include "chunk.h"
#include "source.h"
#include "support/fuzz.h"
#include "zone.h"

#include <algorithm>
#include <vector>

namespace {

struct Read {
    std::vector<vlog::Item> items;
    std::uint64_t foreign_lines = 0;
};

/// Reads the text with at most `piece` more bytes at a time.
Read read(const std::string &text, std::size_t piece) {
    Read found;
    vlog::TextReader reader;
    vlog::Chunk chunk;
    std::size_t begin = 0;
    std::size_t end = 0;
    const auto keep = [&found, &chunk] {
        for (const vlog::Item &item : chunk.items) {
            PROMISE(item.kind() != vlog::ItemKind::definition || item.place() < chunk.definitions.size());
            PROMISE(item.kind() == vlog::ItemKind::definition || item.kind() == vlog::ItemKind::record ||
                    item.place() < chunk.command_lines.size());
        }
        PROMISE(chunk.items.size() <= vlog::Chunk::MOST_ITEMS);
        PROMISE(chunk.definitions.size() + chunk.command_lines.size() <= vlog::Chunk::MOST_EXTRAS);
        found.items.insert(found.items.end(), chunk.items.begin(), chunk.items.end());
        found.foreign_lines += chunk.foreign_lines;
        chunk.clear();
    };
    do {
        end = std::min(text.size(), end + piece);
        for (std::size_t used = 1; used > 0;) {
            used = reader.read({text.data() + begin, end - begin}, &chunk);
            begin += used;
            if (chunk.is_full()) {
                keep();
                used = 1;
            }
        }
    } while (end < text.size());
    reader.finish({text.data() + begin, end - begin}, &chunk);
    keep();
    return found;
}

std::string unpacked(const std::string &bytes) {
    vlog::Source source({reinterpret_cast<const std::uint8_t *>(bytes.data()), bytes.size()});
    std::string text;
    std::vector<char> buffer(4096);
    for (std::size_t count = source.read(buffer); count > 0 && text.size() < 1000000; count = source.read(buffer)) {
        text.append(buffer.data(), count);
    }
    return text;
}

bool are_alike(const vlog::Item &a, const vlog::Item &b) {
    return a.kind() == b.kind() && a.local() == b.local() &&
           (a.kind() != vlog::ItemKind::record || a.value() == b.value());
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    if (size < 1) {
        return 0;
    }
    const std::string text = unpacked(text_of(data + 1, size - 1));
    const Read whole = read(text, text.size() + 1);
    const Read pieces = read(text, data[0] + std::size_t{1});
    PROMISE(whole.foreign_lines == pieces.foreign_lines);
    PROMISE(std::equal(whole.items.begin(), whole.items.end(), pieces.items.begin(), pieces.items.end(), are_alike));
    vlog::LocalClock clock;
    std::optional<vlog::Moment> before;
    for (const vlog::Item &item : whole.items) {
        if (item.local() != vlog::NO_TIME) {
            before = clock.moment_of(item.local(), before);
            PROMISE(*before >= item.local() - 86400 && *before <= item.local() + 86400);
        }
    }
    return 0;
}
