#include "text_buffer.h"

#include <array>
#include <cstdint>
#include <gtest/gtest.h>
#include <string>

namespace {

constexpr char UNTOUCHED = '#';

/// An array with guard bytes after it.
class TextBufferTest : public testing::Test {
  protected:
    TextBufferTest() { bytes.fill(UNTOUCHED); }

    [[nodiscard]] std::string bytes_from(std::size_t size) const { return {bytes.begin() + size, bytes.end()}; }
    static std::string untouched(std::size_t count) {
        std::string text(count, UNTOUCHED);
        return text;
    }

    std::array<char, 16> bytes{};
};

TEST_F(TextBufferTest, StartsWithAnEmptyText) {
    const TextBuffer text(bytes.data(), 8);
    EXPECT_STREQ(text.c_str(), "");
    EXPECT_EQ(text.remaining(), 7U);
    EXPECT_EQ(bytes_from(1), untouched(15));
}

TEST_F(TextBufferTest, AppendsWhatFits) {
    TextBuffer text(bytes.data(), 8);
    EXPECT_TRUE(text.append("abc"));
    EXPECT_TRUE(text.append('-'));
    text.append_format("%d%s", 42, "x");
    EXPECT_STREQ(text.c_str(), "abc-42x");
    EXPECT_EQ(text.remaining(), 0U); // for the terminator
    EXPECT_EQ(bytes_from(8), untouched(8));
}

TEST_F(TextBufferTest, CutsATextThatDoesNotFit) {
    TextBuffer text(bytes.data(), 6);
    EXPECT_TRUE(text.append("abc"));
    EXPECT_FALSE(text.append("defg"));
    EXPECT_STREQ(text.c_str(), "abcde");
    EXPECT_FALSE(text.append('x'));
    EXPECT_STREQ(text.c_str(), "abcde");
    EXPECT_EQ(bytes_from(6), untouched(10));
}

TEST_F(TextBufferTest, AppendsAndCutsNumbers) {
    TextBuffer text(bytes.data(), 13);
    text.append_number(-2147483647 - 1);
    EXPECT_STREQ(text.c_str(), "-2147483648");
    text.append_number(7);
    text.append_number(0);
    EXPECT_STREQ(text.c_str(), "-21474836487");
    TextBuffer shorter(bytes.data(), 6);
    EXPECT_TRUE(shorter.append("abc"));
    shorter.append_number(-234);
    EXPECT_STREQ(shorter.c_str(), "abc-2");
    EXPECT_EQ(bytes_from(6), "836487" + std::string(1, '\0') + untouched(3)); // rest of the longer text
}

#define EXPECT_FORMATTED(expected, ...)                                                                                \
    do {                                                                                                               \
        std::array<char, 128> array{};                                                                                 \
        TextBuffer text(array.data(), array.size());                                                                   \
        text.append("> ");                                                                                             \
        text.append_format(__VA_ARGS__);                                                                               \
        EXPECT_EQ(text.c_str(), std::string("> ") + (expected));                                                       \
    } while (false)

TEST(TextFormats, AreThoseOfPrintf) {
    const char *none = nullptr;
    EXPECT_FORMATTED("", "%s", "");
    EXPECT_FORMATTED("(null).", "%s.", none);
    EXPECT_FORMATTED("0 -1 2147483647 -2147483648", "%d %d %d %d", 0, -1, INT32_MAX, INT32_MIN);
    EXPECT_FORMATTED("00 09 10 99 100 -1 -10", "%02d %02d %02d %02d %02d %02d %02d", 0, 9, 10, 99, 100, -1, -10);
    EXPECT_FORMATTED("analyze ID: CB05[0]: ok", "analyze ID: CB%02d[%d]: %s", 5, 0, "ok");
    EXPECT_FORMATTED("07d", "%02dd", 7);
    EXPECT_FORMATTED("d7", "d%d", 7);
    EXPECT_FORMATTED("           7", "%12d", 7);
    EXPECT_FORMATTED("007", "%03d", 7);
    EXPECT_FORMATTED("100%", "%d%%", 100);
    EXPECT_FORMATTED("%", "%%");
    EXPECT_FORMATTED("a 7 b 4000000000 c", "a %d b %u c", 7, 4000000000U);
    EXPECT_FORMATTED("CB07   1.50 x -3|    5|5    |005|ff|-9000000000", "%s%02d %6.2f %c %i|%5d|%-5d|%03d|%x|%lld",
                     "CB", 7, 1.5, 'x', -3, 5, 5, 5, 255U, -9000000000LL);
    EXPECT_FORMATTED("ab|   ab", "%.2s|%5s", "abc", "ab");
}

TEST_F(TextBufferTest, CutsAFormattedTextThatDoesNotFit) {
    TextBuffer text(bytes.data(), 6);
    text.append_format("%s", "abcdefghijklmnopqrstuvwxyz");
    EXPECT_STREQ(text.c_str(), "abcde");
    text.append_format("%d", 1);
    text.append_format("%s", "");
    EXPECT_STREQ(text.c_str(), "abcde");
    EXPECT_EQ(text.remaining(), 0U);
    EXPECT_EQ(bytes_from(6), untouched(10));
}

TEST_F(TextBufferTest, HoldsNothingInOneByte) {
    TextBuffer text(bytes.data(), 1);
    EXPECT_FALSE(text.append("a"));
    text.append_format("%d", 7);
    EXPECT_STREQ(text.c_str(), "");
    EXPECT_EQ(bytes_from(1), untouched(15));
}

TEST_F(TextBufferTest, LeavesAnArrayOfSizeZeroAlone) {
    TextBuffer text(bytes.data(), 0);
    EXPECT_FALSE(text.append("a"));
    text.append_format("%d", 7);
    EXPECT_TRUE(text.append(""));
    EXPECT_EQ(text.remaining(), 0U);
    EXPECT_STREQ(text.c_str(), "");
    EXPECT_EQ(bytes_from(0), untouched(16));
}

TEST_F(TextBufferTest, TreatsNullAsAnArrayOfSizeZero) {
    TextBuffer text(nullptr, 0);
    EXPECT_FALSE(text.append("a"));
    text.append_format("%d", 7);
    EXPECT_STREQ(text.c_str(), "");
}

TEST_F(TextBufferTest, ContinuesAfterAnExistingText) {
    std::copy_n("head: ", 7, bytes.begin());
    TextBuffer text = TextBuffer::after(bytes.data(), 12);
    EXPECT_EQ(text.remaining(), 5U); // 12 - 6 - 1
    EXPECT_EQ(text.end(), bytes.data() + 6);
    EXPECT_TRUE(text.append("value"));
    EXPECT_STREQ(text.c_str(), "head: value");
}

TEST_F(TextBufferTest, CutsAnUnterminatedExistingText) {
    TextBuffer text = TextBuffer::after(bytes.data(), 4);
    EXPECT_STREQ(text.c_str(), "###");
    EXPECT_EQ(text.remaining(), 0U);
    EXPECT_EQ(bytes_from(4), untouched(12));
}

} // namespace
