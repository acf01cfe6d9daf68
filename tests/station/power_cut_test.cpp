// The power fails after a rotation. The status log is on an ext4 file system in an image; a copy of the image is
// the disk's content when the power fails at that instant.
// STATION_CUTS="0.2 2 7 20" also cuts the power that many seconds after a rotation.

#include "bzip2_tool.h"
#include "hang_guard.h"
#include "station_life.h"
#include "status_log.h"

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sched.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr std::size_t IMAGE_SIZE = 48U << 20U;
constexpr int RECORDS = 20000;

void run(const std::string &command) {
    ASSERT_EQ(std::system(command.c_str()), 0) << command; // NOLINT(cert-env33-c): our own command line
}

/// About 700 KB of distinct records.
std::string old_records() {
    std::string text;
    for (int i = 0; i < RECORDS; ++i) {
        text += "2024-02-29 12:00:00\tOK\tCB20\t0\t" + std::to_string(i) + "\n";
    }
    return text;
}

/// Syncs a file and with it everything that the file system must write before it.
void synchronise(const std::string &path) {
    const Descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(fsync(file.get()), 0);
}

std::vector<double> later_cuts() {
    const char *given = std::getenv("STATION_CUTS");
    std::istringstream numbers(given == nullptr ? "" : given);
    std::vector<double> cuts;
    for (double seconds = 0; numbers >> seconds;) {
        cuts.push_back(seconds);
    }
    return cuts;
}

/// The mounts are visible to this process and its children only and end with it.
class PowerCut : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(unshare(CLONE_NEWNS), 0);
        ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        std::ofstream(image).close();
        fs::resize_file(image, IMAGE_SIZE);
        ASSERT_NO_FATAL_FAILURE(run("/sbin/mkfs.ext4 -q -F '" + image + "'"));
        fs::create_directory(disk);
        ASSERT_NO_FATAL_FAILURE(run("mount -o loop '" + image + "' '" + disk + "'"));
    }
    void TearDown() override { umount2(disk.c_str(), MNT_DETACH); }

    /// What a start after the cut finds: the log and the whole generations.
    std::string found_after_cut() {
        const std::string copy = folder / "copy";
        const std::string found = folder / "found";
        fs::copy_file(image, copy, fs::copy_options::overwrite_existing);
        fs::create_directory(found);
        run("mount -o loop '" + copy + "' '" + found + "'");
        std::string text = read_file(found + "/logfile");
        for (const auto &entry : fs::directory_iterator(found)) {
            if (entry.path().extension() == ".bz2") {
                const std::string packed = bunzip2(entry.path());
                EXPECT_FALSE(packed.starts_with("failed: ")) << entry.path() << " is torn";
                text += packed;
            }
        }
        EXPECT_EQ(umount(found.c_str()), 0);
        return text;
    }

    void expect_nothing_lost() {
        const std::string found = found_after_cut();
        EXPECT_NE(found.find(old_records()), std::string::npos) << found.size() << " bytes are left";
    }

    const ScratchFolder folder;
    const std::string image = folder / "image";
    const std::string disk = folder / "disk";
};

} // namespace

// A sync of any file makes the file system write names and removals early.
TEST_F(PowerCut, AfterARotationLosesNoRecord) {
    std::ofstream(disk + "/logfile") << old_records();
    synchronise(disk + "/logfile"); // as written in the course of a day
    Station station(even_board());
    station.uses_disk = true;
    station.shown = {{disk, STATUS_FOLDER}};
    station.start({"-S", "10"});
    const auto rotated = std::chrono::steady_clock::now();
    ASSERT_LT(fs::file_size(disk + "/logfile"), 10240U);
    ASSERT_TRUE(fs::exists(disk + "/logfile.000.bz2"));
    {
        SCOPED_TRACE("at once");
        expect_nothing_lost();
    }
    for (const double seconds : later_cuts()) {
        SCOPED_TRACE(std::to_string(seconds) + " s after it");
        std::this_thread::sleep_until(rotated + std::chrono::duration<double>(seconds));
        expect_nothing_lost();
    }
    SCOPED_TRACE("after another file was synchronised");
    synchronise(disk + "/neighbour");
    expect_nothing_lost();
    EXPECT_EQ(station.stop(), 1);
}
