#include "board.h"

#include "rig_failure.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <ratio>

namespace {

constexpr std::int64_t MARCH_1_2024_12_00_07 = 1709294407; // 19783 days and 43207 seconds

/// A zone file for UTC: the magic, a version and fifteen reserved bytes, six counts (one local time, four bytes
/// of names), the local time, its name.
constexpr char ZONE_OF_UTC[] = "TZif\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0"
                               "\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0\1\0\0\0\4"
                               "\0\0\0\0\0\0UTC";

static_assert(sizeof ZONE_OF_UTC == 44 + 6 + 4);

constexpr Disk HALF_FREE{.blocks = 1000, .free = 500, .available = 500};

} // namespace

Board::Board() : clock_(MARCH_1_2024_12_00_07) {
    folder(STATUS_FOLDER)
        .file(EMMC_DEVICE, "")
        .file(ZONE_FILE, {ZONE_OF_UTC, sizeof ZONE_OF_UTC})
        .temperature(42000)
        .memory(512000, 256000)
        .emmc(7, 1, 1);
    for (const char *path :
         {"/rw-root", "/", "/tmp", "/run", "/var/lib/evse", "/var/lib/persistent", "/var/lib/parameter"}) {
        disk(path, HALF_FREE);
    }
}

Board &Board::file(const std::string &path, const std::string &content) {
    files_[path] = content;
    folders_.erase(path);
    return *this;
}

Board &Board::folder(const std::string &path) {
    folders_.insert(path);
    return *this;
}

Board &Board::read_only_folder(const std::string &path) {
    folders_.insert(path);
    read_only_.insert(path);
    return *this;
}

Board &Board::small_disk(const std::string &path, std::size_t bytes) {
    folders_.insert(path);
    small_disks_[path] = bytes;
    return *this;
}

Board &Board::without(const std::string &path) {
    files_.erase(path);
    return *this;
}

Board &Board::temperature(int millidegrees) { return file(TEMPERATURE_FILE, std::to_string(millidegrees) + "\n"); }

Board &Board::memory(std::uint64_t total_kb, std::uint64_t free_kb) {
    return file(MEMORY_FILE, meminfo(total_kb, free_kb));
}

Board &Board::disk(const std::string &path, const Disk &answer) {
    disks_[path] = answer;
    return folder(path);
}

Board &Board::emmc(std::uint8_t revision, std::uint8_t type_a, std::uint8_t type_b) {
    put_emmc(&mmc_, revision, type_a, type_b);
    return *this;
}

Board &Board::emmc_fails(int error) {
    mmc_.result = -1;
    mmc_.error = error;
    return *this;
}

Board &Board::clock(std::int64_t seconds) {
    clock_ = seconds;
    return *this;
}

void Board::fill(StationPage *page) const {
    page->now.store(clock_ * std::nano::den);
    page->mmc = mmc_;
    for (const auto &[path, answer] : disks_) {
        put_disk(page, path, answer);
    }
}

void put_disk(StationPage *page, const std::string &path, const Disk &answer) {
    StationDisk *row = std::find_if(std::begin(page->disks), std::end(page->disks), [&path](const StationDisk &disk) {
        return disk.path[0] == '\0' || path == disk.path;
    });
    if (row == std::end(page->disks) || path.size() >= sizeof row->path) {
        rig_failure("no room for the disk " + path);
    }
    std::strncpy(row->path, path.c_str(), sizeof row->path - 1);
    row->result = answer.fails ? -1 : 0;
    row->error = answer.error;
    row->blocks = answer.blocks;
    row->free = answer.free;
    row->available = answer.available;
}

void put_emmc(StationMmc *mmc, std::uint8_t revision, std::uint8_t type_a, std::uint8_t type_b) {
    mmc->result = 0;
    mmc->ext_csd[192] = revision;
    mmc->ext_csd[268] = type_a;
    mmc->ext_csd[269] = type_b;
}

// Like the kernel's, with other lines around the two used.
std::string meminfo(std::uint64_t total_kb, std::uint64_t free_kb) {
    return "MemTotal:       " + std::to_string(total_kb) + " kB\nMemFree:        " + std::to_string(free_kb) +
           " kB\nMemAvailable:   " + std::to_string(total_kb) + " kB\nBuffers:            1024 kB\n";
}
