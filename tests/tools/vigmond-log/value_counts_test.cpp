#include "value_counts.h"

#include "scratch_folder.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <limits>
#include <random>

using vlog::Spill;
using vlog::ValueCounts;

namespace {

/// The value of a rank in the sorted list of all values.
std::int32_t nearest_rank(std::vector<std::int32_t> values, std::size_t percent) {
    std::sort(values.begin(), values.end());
    return values[(values.size() * percent + 99) / 100 - 1];
}

} // namespace

TEST(ValueCounts, HaveTheNearestRank) {
    ValueCounts counts;
    EXPECT_EQ(counts.rank(50), 0U);
    EXPECT_EQ(counts.least(), std::nullopt);
    for (const std::int32_t value : {30, -5, 20, 20}) {
        EXPECT_TRUE(counts.add(value));
    }
    EXPECT_EQ(counts.at_rank(counts.rank(50)), 20); // the second of four
    EXPECT_EQ(counts.at_rank(counts.rank(95)), 30); // the fourth
    EXPECT_EQ(counts.at_rank(counts.rank(1)), -5);
    EXPECT_EQ(counts.least(), -5);
    EXPECT_EQ(counts.greatest(), 30);
    EXPECT_EQ(counts.at_rank(5), std::nullopt);
}

TEST(ValueCounts, AreBoundedAndExactBeyondTheBound) {
    std::mt19937 random(1); // NOLINT(cert-msc51-cpp): the same values every time
    Spill spill;
    std::vector<ValueCounts> counts(2);
    std::vector<std::vector<std::int32_t>> values(2);
    for (std::uint32_t check = 0; check < 2; ++check) {
        for (int sample = 0; sample < 20000; ++sample) {
            const auto value = static_cast<std::int32_t>(random()) >> (sample % 3 == 0 ? 0 : 20);
            values[check].push_back(value);
            if (!counts[check].add(value)) {
                ASSERT_TRUE(counts[check].drain(check, &spill));
                ASSERT_TRUE(counts[check].add(value));
            }
        }
        ASSERT_TRUE(counts[check].is_spilled());
        ASSERT_TRUE(counts[check].drain(check, &spill));
        EXPECT_EQ(counts[check].total(), 20000U);
        EXPECT_EQ(counts[check].least(), *std::min_element(values[check].begin(), values[check].end()));
        EXPECT_EQ(counts[check].greatest(), *std::max_element(values[check].begin(), values[check].end()));
    }
    std::vector<Spill::Request> requests{{.check = 0, .rank = counts[0].rank(50)},
                                         {.check = 1, .rank = counts[1].rank(95)},
                                         {.check = 1, .rank = 1},
                                         {.check = 0, .rank = 20000}};
    ASSERT_TRUE(spill.find(&requests));
    EXPECT_EQ(Spill::value_of(requests[0]), nearest_rank(values[0], 50));
    EXPECT_EQ(Spill::value_of(requests[1]), nearest_rank(values[1], 95));
    EXPECT_EQ(Spill::value_of(requests[2]), counts[1].least());
    EXPECT_EQ(Spill::value_of(requests[3]), counts[0].greatest());
}

TEST(ValueCounts, HoldTheSmallestAndTheLargestNumbers) {
    Spill spill;
    ValueCounts counts;
    for (const std::int32_t value : {INT32_MAX, INT32_MIN, -1, 0}) {
        ASSERT_TRUE(counts.add(value));
    }
    EXPECT_EQ(counts.at_rank(1), INT32_MIN);
    EXPECT_EQ(counts.at_rank(4), INT32_MAX);
    ASSERT_TRUE(counts.drain(7, &spill));
    std::vector<Spill::Request> requests{{.check = 7, .rank = 1}, {.check = 7, .rank = 2}, {.check = 7, .rank = 4}};
    ASSERT_TRUE(spill.find(&requests));
    EXPECT_EQ(Spill::value_of(requests[0]), INT32_MIN);
    EXPECT_EQ(Spill::value_of(requests[1]), -1);
    EXPECT_EQ(Spill::value_of(requests[2]), INT32_MAX);
}

TEST(ValueCounts, ReportAFullDisk) {
    const ScratchFolder folder;
    setenv("TMPDIR", (folder / "missing").c_str(), 1);
    Spill spill;
    ValueCounts counts;
    ASSERT_TRUE(counts.add(1));
    EXPECT_FALSE(counts.drain(0, &spill));
    unsetenv("TMPDIR");
}
