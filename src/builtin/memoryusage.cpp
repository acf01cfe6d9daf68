#include "builtin.h"
#include "common.h"
#include "handle.h"
#include "probe_read.h"
#include "table_lines.h"
#include "trace.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

// /proc/meminfo:
//     MemTotal:        1024000 kB
//     MemFree:          512000 kB

namespace {

constexpr int MAX_WORDS = 8;

bool is_named(const char *line, const char *name) { return strncasecmp(line, name, std::strlen(name)) == 0; }

} // namespace

void memoryusage_parse_line(char *line, MemoryFigures *figures) {
    std::uint64_t *figure = nullptr;
    if (is_named(line, "MemTotal:")) {
        figure = &figures->total;
    } else if (is_named(line, "MemFree:")) {
        figure = &figures->free;
    } else {
        return;
    }
    std::array<char *, MAX_WORDS + 1> tokens{};
    if (strsplit(line, tokens.data(), MAX_WORDS) >= 2) {
        *figure = static_cast<std::uint64_t>(std::strtoll(tokens[1], nullptr, 10));
    }
}

Reading memoryusage_percent(const MemoryFigures &figures) {
    if (figures.total == 0) {
        return Reading::failed(EINVAL);
    }
    // Minus 1: an exact half rounds down.
    const std::uint64_t percent = (100 * figures.free + figures.total / 2 - 1) / figures.total;
    return Reading::of(static_cast<std::int32_t>(static_cast<std::uint32_t>(percent)));
}

namespace {

Reading memoryusage_read() {
    const FileHandle file(std::fopen("/proc/meminfo", "re"));
    if (!file) {
        return Reading::failed_with_errno(errno);
    }
    MemoryFigures figures{.total = 0, .free = 0};
    TableLines lines(file.get());
    for (char *line = lines.next(); line != nullptr; line = lines.next()) {
        memoryusage_parse_line(line, &figures);
    }
    return memoryusage_percent(figures);
}

} // namespace

int memoryusage_init(Task *task) {
    trace(TRACE_INFO, " ");
    probe_mark_initialised(task);
    return 0;
}

int memoryusage_exec(Task *task) {
    trace(TRACE_DEBUG, " ");
    task_clear(task, TASK_VALUE_VALID);
    const Reading reading = memoryusage_read();
    if (reading.error != 0) {
        trace(TRACE_TRACE, "FAILED!");
        return probe_fail(task, reading.error);
    }
    return probe_succeed(task, reading.value);
}
