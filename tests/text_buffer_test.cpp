#include "text_buffer.h"

#include <array>
#include <gtest/gtest.h>
#include <string>

namespace {

constexpr char UNTOUCHED = '#';

/// An array with a guard behind it.
class TextBufferTest : public testing::Test {
  protected:
    TextBufferTest() { bytes.fill(UNTOUCHED); }

    [[nodiscard]] std::string behind(std::size_t size) const { return {bytes.begin() + size, bytes.end()}; }
    static std::string untouched(std::size_t count) {
        std::string text(count, UNTOUCHED);
        return text;
    }

    std::array<char, 16> bytes{};
};

TEST_F(TextBufferTest, StartsWithAnEmptyText) {
    const TextBuffer text(bytes.data(), 8);
    EXPECT_STREQ(text.c_str(), "");
    EXPECT_EQ(text.room(), 8U);
    EXPECT_EQ(behind(1), untouched(15));
}

TEST_F(TextBufferTest, AppendsWhatFits) {
    TextBuffer text(bytes.data(), 8);
    EXPECT_TRUE(text.append("abc"));
    EXPECT_TRUE(text.append('-'));
    EXPECT_TRUE(text.append_format("%d%s", 42, "x"));
    EXPECT_STREQ(text.c_str(), "abc-42x");
    EXPECT_EQ(text.room(), 1U); // the terminator's
    EXPECT_EQ(behind(8), untouched(8));
}

TEST_F(TextBufferTest, CutsATextThatDoesNotFit) {
    TextBuffer text(bytes.data(), 6);
    EXPECT_TRUE(text.append("abc"));
    EXPECT_FALSE(text.append("defg"));
    EXPECT_STREQ(text.c_str(), "abcde");
    EXPECT_FALSE(text.append('x'));
    EXPECT_STREQ(text.c_str(), "abcde");
    EXPECT_EQ(behind(6), untouched(10));
}

TEST_F(TextBufferTest, AppendsAndCutsNumbers) {
    TextBuffer text(bytes.data(), 13);
    EXPECT_TRUE(text.append_number(-2147483647 - 1));
    EXPECT_STREQ(text.c_str(), "-2147483648");
    EXPECT_TRUE(text.append_number(7));
    EXPECT_FALSE(text.append_number(0));
    EXPECT_STREQ(text.c_str(), "-21474836487");
    TextBuffer shorter(bytes.data(), 6);
    EXPECT_TRUE(shorter.append("abc"));
    EXPECT_FALSE(shorter.append_number(-234));
    EXPECT_STREQ(shorter.c_str(), "abc-2");
    EXPECT_EQ(behind(6), "836487" + std::string(1, '\0') + untouched(3)); // of the longer text
}

TEST_F(TextBufferTest, CutsAFormattedTextThatDoesNotFit) {
    TextBuffer text(bytes.data(), 6);
    EXPECT_FALSE(text.append_format("%s", "abcdefghijklmnopqrstuvwxyz"));
    EXPECT_STREQ(text.c_str(), "abcde");
    EXPECT_FALSE(text.append_format("%d", 1));
    EXPECT_TRUE(text.append_format("%s", ""));
    EXPECT_STREQ(text.c_str(), "abcde");
    EXPECT_EQ(text.room(), 1U);
    EXPECT_EQ(behind(6), untouched(10));
}

TEST_F(TextBufferTest, HoldsNothingInOneByte) {
    TextBuffer text(bytes.data(), 1);
    EXPECT_FALSE(text.append("a"));
    EXPECT_FALSE(text.append_format("%d", 7));
    EXPECT_STREQ(text.c_str(), "");
    EXPECT_EQ(behind(1), untouched(15));
}

TEST_F(TextBufferTest, LeavesAnArrayOfSizeZeroAlone) {
    TextBuffer text(bytes.data(), 0);
    EXPECT_FALSE(text.append("a"));
    EXPECT_FALSE(text.append_format("%d", 7));
    EXPECT_TRUE(text.append(""));
    EXPECT_EQ(text.room(), 0U);
    EXPECT_STREQ(text.c_str(), "");
    EXPECT_EQ(behind(0), untouched(16));
}

TEST_F(TextBufferTest, TakesNoArrayAsOneOfSizeZero) {
    TextBuffer text(nullptr, 0);
    EXPECT_FALSE(text.append("a"));
    EXPECT_FALSE(text.append_format("%d", 7));
    EXPECT_STREQ(text.c_str(), "");
}

TEST_F(TextBufferTest, GoesOnBehindATextThatStands) {
    std::copy_n("head: ", 7, bytes.begin());
    TextBuffer text = TextBuffer::behind(bytes.data(), 12);
    EXPECT_EQ(text.room(), 6U); // 12 - 6
    EXPECT_EQ(text.end(), bytes.data() + 6);
    EXPECT_TRUE(text.append("value"));
    EXPECT_STREQ(text.c_str(), "head: value");
}

TEST_F(TextBufferTest, CutsAnUnterminatedTextThatStands) {
    TextBuffer text = TextBuffer::behind(bytes.data(), 4);
    EXPECT_STREQ(text.c_str(), "###");
    EXPECT_EQ(text.room(), 1U);
    EXPECT_EQ(behind(4), untouched(12));
}

} // namespace
