#include "unpacker.h"

#include "scratch_folder.h"

#include <gtest/gtest.h>

using vlog::Chunk;
using vlog::Unpacker;

namespace {

constexpr int FILES = 3;
constexpr int RECORDS = 20000; // about five chunks

class Unpacking : public testing::TestWithParam<unsigned> {
  public:
    /// Files with consecutively numbered records.
    Unpacking() {
        for (int file = 0; file < FILES; ++file) {
            std::string text;
            for (int line = file * RECORDS; line < (file + 1) * RECORDS; ++line) {
                text += "2024-05-01 10:00:00\tOK\tCB20\t0\t" + std::to_string(line) + "\n";
            }
            paths.push_back(folder.write(std::to_string(file), text));
        }
    }
    ScratchFolder folder;
    std::vector<std::string> paths;
};

} // namespace

// The second file, unpacked in parallel, has no room for its chunks until the first is done.
TEST_P(Unpacking, KeepsTheOrderOfFilesLargerThanTheQueue) {
    std::atomic<std::uint64_t> bytes = 0;
    Unpacker unpacker(paths, GetParam(), &bytes, 2);
    int expected = 0;
    std::size_t ends = 0;
    while (const Chunk *chunk = unpacker.next()) {
        EXPECT_EQ(chunk->file, ends);
        ends += chunk->is_last ? 1 : 0;
        for (const vlog::Item &item : chunk->items) {
            ASSERT_EQ(item.value(), expected++);
        }
    }
    EXPECT_EQ(expected, FILES * RECORDS);
    EXPECT_EQ(ends, std::size_t{FILES});
    std::uint64_t size = 0;
    for (const std::string &path : paths) {
        size += read_file(path).size();
    }
    EXPECT_EQ(bytes, size);
}

TEST_P(Unpacking, StopsBeforeTheEndOfTheFiles) {
    Unpacker unpacker(paths, GetParam(), nullptr, 2);
    ASSERT_NE(unpacker.next(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Threads, Unpacking, testing::Values(1U, 2U, 3U));

// Whether a long line is a comment must not depend on how much of it is read at a time.
TEST(TextReader, CountsALongCommentAsForeignInOnePieceAndInMany) {
    const std::string text = "##" + std::string(vlog::TextReader::LONGEST_LINE, 'x') + "\n";
    Chunk whole;
    vlog::TextReader().read(text, &whole);
    EXPECT_EQ(whole.foreign_lines, 1U);
    Chunk pieces;
    vlog::TextReader reader;
    const std::size_t used = reader.read(text.substr(0, vlog::TextReader::LONGEST_LINE), &pieces);
    EXPECT_EQ(reader.read(text.substr(used), &pieces), text.size() - used);
    EXPECT_EQ(pieces.foreign_lines, 1U);
}
