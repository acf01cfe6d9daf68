#pragma once

// The page that the rig shares with the library preloaded into the daemon: the rig sets the station's state there,
// the library counts the daemon's calls.

#include <atomic>
#include <cstddef>
#include <cstdint>

/// The answer of one file system to statvfs; errno is `error` when the result is not 0.
struct StationDisk {
    char path[64]; ///< empty in an unused row
    std::int32_t result;
    std::int32_t error;
    std::uint64_t blocks;
    std::uint64_t free;
    std::uint64_t available;
};

/// The eMMC: its answer to MMC_IOC_CMD, and the last command.
struct StationMmc {
    std::int32_t result;
    std::int32_t error;
    std::uint8_t ext_csd[512];
    std::uint32_t commands;
    std::int32_t write_flag;
    std::int32_t is_acmd;
    std::uint32_t opcode;
    std::uint32_t argument;
    std::uint32_t flags;
    std::uint32_t blksz;
    std::uint32_t blocks;
};

/// The last setitimer, which was recorded instead of armed; times in microseconds.
struct StationTimer {
    std::uint32_t calls;
    std::int32_t which;
    std::int64_t period;
    std::int64_t first;
};

/// The kinds of calls that can be made to fail; each covers all functions of its kind.
enum class StationCall : std::int32_t {
    none,
    open,
    fopen,
    read,
    write,
    torn_write, ///< writes only half
    fread,
    fwrite,
    fclose,
    lseek,
    truncate,
    sync, ///< fdatasync and fsync
    memory,
    fork,
    thread,
    rename,
    remove,
    stat,
    ioctl,
    statvfs,
    socket,
    connect,
    send,
    receive,
    poll,
    control, ///< fcntl
    timer,
    handler, ///< sigaction
};

enum class StationThreads : std::uint8_t { all, main, others };

/// The calls number `first` to `last`, counted from 1, fail with `error`.
struct StationFault {
    StationCall call;
    std::uint32_t first; ///< 0: none fails
    std::uint32_t last;
    std::int32_t error;
    StationThreads threads; ///< the threads whose calls count and fail
};

struct StationPage {
    std::atomic<std::int64_t> now;      ///< the wall clock, nanoseconds since the epoch
    std::int32_t wake_fd;               ///< an eventfd, written at each start of the wait
    std::atomic<std::uint32_t> waits;   ///< starts of the wait
    std::atomic<std::uint32_t> taken;   ///< SIGALRM handled in the wait
    std::atomic<std::uint32_t> settled; ///< `taken` at the last start of the wait: the pass of that beat is over
    StationTimer timer;
    StationMmc mmc;
    StationDisk disks[16];
    bool uses_disk; ///< fdatasync and fsync wait for the disk; otherwise they do nothing
    StationFault fault;
    std::atomic<std::uint32_t> calls; ///< of the kind that `fault` names, so far
};

inline constexpr std::size_t STATION_PAGE_SIZE = 4096;
static_assert(sizeof(StationPage) <= STATION_PAGE_SIZE);
static_assert(std::atomic<std::int64_t>::is_always_lock_free);

/// The environment variable with the page's descriptor.
inline constexpr const char *STATION_PAGE_VARIABLE = "STATION_PAGE_FD";

/// The page, for another preloaded library; null outside the rig.
extern "C" StationPage *station_page();
