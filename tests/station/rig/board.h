#pragma once

// The controller board of a simulated station, described in one expression:
//     Board().temperature(72000).memory(1000, 240).disk("/rw-root", {.blocks = 1000, .available = 100})

#include "preload/station_page.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

/// The result of statvfs for a mount point; -1 with `error` if `fails`.
struct Disk {
    std::uint64_t blocks = 0;
    std::uint64_t free = 0;
    std::uint64_t available = 0;
    bool fails = false;
    int error = 0;
};

/// The files, devices and clock of a board. A new one is healthy: 42 degrees, half of the memory and of
/// each disk free, a tenth of the eMMC's life used, on 2024-03-01 at 12:00:07 UTC.
class Board {
  public:
    Board();

    /// Adds a file with this content and its folders.
    Board &file(const std::string &path, const std::string &content);
    Board &folder(const std::string &path);
    /// Adds a folder that not even root can write to.
    Board &read_only_folder(const std::string &path);
    /// Adds a folder on its own disk of this size; its content is visible in /proc/<pid>/root only.
    Board &small_disk(const std::string &path, std::size_t bytes);
    /// Removes this file.
    Board &without(const std::string &path);

    Board &temperature(int millidegrees);
    Board &memory(std::uint64_t total_kb, std::uint64_t free_kb);
    Board &disk(const std::string &path, const Disk &answer);
    /// The EXT_CSD's revision and its two life time estimates.
    Board &emmc(std::uint8_t revision, std::uint8_t type_a, std::uint8_t type_b);
    /// Lets the eMMC's commands fail with this errno.
    Board &emmc_fails(int error);
    /// The wall clock at the start, seconds since the epoch.
    Board &clock(std::int64_t seconds);

    [[nodiscard]] const std::map<std::string, std::string> &files() const { return files_; }
    [[nodiscard]] const std::set<std::string> &folders() const { return folders_; }
    [[nodiscard]] const std::set<std::string> &read_only_folders() const { return read_only_; }
    [[nodiscard]] const std::map<std::string, std::size_t> &small_disks() const { return small_disks_; }
    /// Writes the devices and the clock into the page.
    void fill(StationPage *page) const;

  private:
    std::map<std::string, std::string> files_;
    std::set<std::string> folders_;
    std::set<std::string> read_only_;
    std::map<std::string, std::size_t> small_disks_;
    std::map<std::string, Disk> disks_;
    StationMmc mmc_{};
    std::int64_t clock_;
};

/// Sets or replaces the answer for a mount point.
void put_disk(StationPage *page, const std::string &path, const Disk &answer);
/// Sets the answer of the eMMC.
void put_emmc(StationMmc *mmc, std::uint8_t revision, std::uint8_t type_a, std::uint8_t type_b);

/// The content of a /proc/meminfo.
std::string meminfo(std::uint64_t total_kb, std::uint64_t free_kb);

inline constexpr const char *TEMPERATURE_FILE = "/sys/class/thermal/thermal_zone0/temp";
inline constexpr const char *MEMORY_FILE = "/proc/meminfo";
inline constexpr const char *EMMC_DEVICE = "/dev/mmcblk1";
inline constexpr const char *ZONE_FILE = "/etc/localtime"; ///< of UTC
inline constexpr const char *STATUS_FOLDER = "/var/lib/evse/vigmond";
