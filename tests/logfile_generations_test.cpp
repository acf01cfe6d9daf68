// The status log with the daemon's own rotation.

#include "logfile.h"

#include "bzip2_tool.h"
#include "logfile_rig.h"

#include <array>
#include <cstdio>
#include <filesystem>
#include <gmock/gmock.h>
#include <sstream>

namespace {

class GenerationsTest : public LogfileTest {
  protected:
    [[nodiscard]] std::string generation(int number) const {
        std::array<char, 16> suffix{};
        std::snprintf(suffix.data(), suffix.size(), ".%03d.bz2", number);
        return path + suffix.data();
    }

    /// The texts of the records, from the oldest generation to the log.
    [[nodiscard]] std::string records() const {
        int oldest = -1;
        while (std::filesystem::exists(generation(oldest + 1))) {
            ++oldest;
        }
        std::string all;
        for (int number = oldest; number >= 0; --number) {
            all += bunzip2(generation(number));
        }
        std::istringstream lines(all + read_file(path));
        std::string texts;
        for (std::string line; std::getline(lines, line);) {
            if (!line.starts_with("##")) {
                texts += line.substr(line.rfind('\t') + 1) + " ";
            }
        }
        return texts;
    }

    /// Starts the log and writes the records "0" to "39", 25 or 26 bytes each.
    void write_forty(std::int32_t limit, std::int32_t count) const {
        start(path.c_str());
        logfile_state().logsize = limit;
        logfile_state().logcount = count;
        for (int number = 0; number < 40; ++number) {
            lf_print(0, std::to_string(number).c_str(), 0);
        }
    }
};

TEST_F(GenerationsTest, HoldEveryRecordOnceAndInOrder) {
    write_forty(400, 128);
    EXPECT_TRUE(std::filesystem::exists(generation(1)));
    EXPECT_EQ(records(), "0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 "
                         "20 21 22 23 24 25 26 27 28 29 30 31 32 33 34 35 36 37 38 39 ");
}

TEST_F(GenerationsTest, LoseTheOldestRecordsOnly) {
    write_forty(1, 3); // one record per generation
    EXPECT_EQ(records(), "37 38 39 ");
    EXPECT_THAT(mask_times(bunzip2(generation(0))), testing::StartsWith("##\n##\t<time>\tROTATE\tvigmond\n##\n"));
}

TEST_F(GenerationsTest, LoseAllRecordsWithACountOfZero) {
    write_forty(1, 0);
    EXPECT_EQ(records(), "");
    EXPECT_FALSE(std::filesystem::exists(generation(0)));
    EXPECT_THAT(log(), testing::StartsWith("##\n##\t<time>\tROTATE\tvigmond\n##\n"));
}

} // namespace

TEST_F(GenerationsTest, LeaveNoLeftoverOfAKilledRotation) {
    folder.write("logfile.packing", "BZh1 torn");
    start(path.c_str());
    EXPECT_FALSE(std::filesystem::exists(path + ".packing"));
}
