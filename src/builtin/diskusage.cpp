#include "builtin.h"
#include "common.h"
#include "handle.h"
#include "probe_read.h"
#include "trace.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>
#include <sys/statvfs.h>

// A regular file represents a file system; its first line has the total, free and available blocks:
//     fs x 1000 500 250

namespace {

constexpr int MAX_FIELDS = 6;

std::uint32_t to_blocks(const char *text) {
    return static_cast<std::uint32_t>(std::clamp<long long>(std::strtoll(text, nullptr, 10), 0, UINT32_MAX));
}

} // namespace

bool diskusage_parse_line(char *line, BlockCounts *counts) {
    constexpr int needed = 5;
    std::array<char *, MAX_FIELDS + 1> tokens{};
    if (strsplit(line, tokens.data(), MAX_FIELDS) < needed) {
        return false;
    }
    *counts = {.total = to_blocks(tokens[2]), .free = to_blocks(tokens[3]), .available = to_blocks(tokens[4])};
    return true;
}

Reading diskusage_percent(const BlockCounts &counts) {
    const std::uint32_t divisor = std::max({counts.available, counts.free, counts.total});
    if (divisor == 0) {
        return Reading::failed(EINVAL);
    }
    // 32-bit arithmetic is kept. The product wraps from 164 GiB of available 4 KiB blocks on; the result stays
    // within 0..100.
    const std::uint32_t percent = (100U * counts.available + divisor / 2) / divisor;
    return Reading::of(static_cast<std::int32_t>(percent));
}

namespace {

Reading read_counts_file(const char *path) {
    constexpr std::size_t line_size = 1023;

    const FileHandle file(std::fopen(path, "re"));
    if (!file) {
        return Reading::failed_with_errno(errno);
    }
    std::array<char, line_size> line{};
    BlockCounts counts{};
    if (std::fgets(line.data(), static_cast<int>(line.size()), file.get()) == nullptr ||
        !diskusage_parse_line(line.data(), &counts)) {
        return Reading::failed(EINVAL);
    }
    return diskusage_percent(counts);
}

Reading ask_file_system(const char *path) {
    struct statvfs system {};
    if (statvfs(path, &system) != 0) {
        return Reading::failed_with_errno(errno);
    }
    const BlockCounts counts{.total = static_cast<std::uint32_t>(system.f_blocks),
                             .free = static_cast<std::uint32_t>(system.f_bfree),
                             .available = static_cast<std::uint32_t>(system.f_bavail)};
    return counts.total == 0 ? Reading::failed(EINVAL) : diskusage_percent(counts);
}

Reading diskusage_read(const char *path) {
    struct stat status {};
    if (stat(path, &status) != 0) {
        return Reading::failed_with_errno(errno);
    }
    return S_ISREG(status.st_mode) ? read_counts_file(path) : ask_file_system(path);
}

} // namespace

int diskusage_init(Task *task) {
    trace(TRACE_INFO, " ");
    probe_mark_initialised(task);
    return 0;
}

int diskusage_exec(Task *task) {
    trace(TRACE_DEBUG, " ");
    task_clear(task, TASK_VALUE_VALID);
    const Reading reading = diskusage_read(task->parameter);
    if (reading.error != 0) {
        trace(TRACE_TRACE, "%s FAILED!", task->parameter);
        return probe_fail(task, reading.error);
    }
    return probe_succeed(task, reading.value);
}
