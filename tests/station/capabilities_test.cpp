// The capabilities of the daemon's threads.

#include "bus_station.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <linux/capability.h>

using testing::Each;
using testing::SizeIs;

namespace {

using Capabilities = BusStation;

/// For each thread the capabilities of `mask` that it has in a set of /proc.
std::vector<std::uint64_t> set_of_threads(pid_t pid, const std::string &set, std::uint64_t mask) {
    std::vector<std::uint64_t> found;
    for (const auto &thread : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        const std::string status = read_file(thread.path() / "status");
        found.push_back(std::stoull(status.substr(status.find(set) + set.size()), nullptr, 16) & mask);
    }
    return found;
}

} // namespace

TEST_F(Capabilities, ForRawCommandsAreInEffectInNoThreadBetweenPasses) {
    constexpr std::uint64_t raw_io = 1U << CAP_SYS_RAWIO;
    station.start();
    EXPECT_THAT(set_of_threads(station.pid(), "CapPrm:", raw_io), Each(raw_io)) << "this test needs the capability";
    const std::vector<std::uint64_t> effective = set_of_threads(station.pid(), "CapEff:", raw_io);
    EXPECT_THAT(effective, SizeIs(3));
    EXPECT_THAT(effective, Each(0U));
}
