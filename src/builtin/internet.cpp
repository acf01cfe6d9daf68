#include "builtin.h"
#include "common.h"
#include "handle.h"
#include "network.h"
#include "probe_read.h"
#include "table_lines.h"
#include "trace.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

// /proc/net/dev; the totals are those since the interface came up:
//     Inter-|   Receive                                                |  Transmit
//      face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop ...
//       eth0:  180000     900    1    0    0     0          0         0    20000     100    0    1 ...

namespace {

constexpr int MAX_COLUMNS = 16; // one less than in the line: the last counter is not used
constexpr int MIN_COLUMNS = 11;

using Tokens = std::array<char *, MAX_COLUMNS + 1>;

/// A counter that is missing from a short line is 0.
std::uint64_t to_counter(const char *text) {
    return text == nullptr ? 0 : static_cast<std::uint64_t>(std::strtoll(text, nullptr, 10));
}

std::int32_t low_32_bits(std::uint64_t number) { return static_cast<std::int32_t>(static_cast<std::uint32_t>(number)); }

} // namespace

bool names_interface(char *word, const char *interface) {
    const std::size_t length = std::strlen(word);
    if (length < 2 || word[length - 1] != ':') { // "eth0:123" without a blank matches no name
        return false;
    }
    word[length - 1] = '\0';
    return strcasecmp(word, interface) == 0;
}

bool internet_parse_line(char *line, const char *interface, TrafficCounters *counters) {
    Tokens tokens{};
    if (strsplit(line, tokens.data(), MAX_COLUMNS) < MIN_COLUMNS || !names_interface(tokens[0], interface)) {
        return false;
    }
    *counters = {.packets = to_counter(tokens[2]) + to_counter(tokens[10]),
                 .lost =
                     to_counter(tokens[3]) + to_counter(tokens[4]) + to_counter(tokens[11]) + to_counter(tokens[12])};
    return true;
}

Reading internet_percent(const TrafficCounters &counters) {
    // Kept: wraps at 32 bits, is 1 percent on a busy interface without loss, and negative below 50 packets.
    const std::int32_t packets = low_32_bits(counters.packets);
    if (packets == 0) {
        return Reading::failed(ENOENT);
    }
    const std::uint64_t scaled = 100 * (counters.lost + static_cast<std::uint64_t>(packets / 50) - 1);
    const std::int64_t percent = std::int64_t{low_32_bits(scaled)} / packets;
    return Reading::of(low_32_bits(static_cast<std::uint64_t>(percent)));
}

namespace {

constexpr std::int32_t ID_LAN = 10;
constexpr std::int32_t ID_WIFI = 13;

/// Tasks whose id belongs to no path always run.
bool is_switched_on(std::int32_t id) {
    return (id != ID_LAN || lan_available == 1) && (id != ID_WIFI || wifi_available == 1);
}

Reading interface_read(const char *interface) {
    const FileHandle file(std::fopen("/proc/net/dev", "re"));
    if (!file) {
        return Reading::failed_with_errno(errno);
    }
    TableLines lines(file.get());
    for (char *line = lines.next(); line != nullptr; line = lines.next()) {
        TrafficCounters counters{};
        if (internet_parse_line(line, interface, &counters)) {
            return internet_percent(counters);
        }
    }
    return Reading::failed(ENOENT);
}

} // namespace

int internet_init(Task *task) {
    trace(TRACE_INFO, " ");
    probe_mark_initialised(task);
    return 0;
}

int internet_exec(Task *task) {
    trace(TRACE_DEBUG, " ");
    if (!is_switched_on(task->id)) {
        task->do_logfile = 0;
        return ENONET; // not stored in `error`: a disabled path is not a failed run
    }
    task->do_logfile = 1;
    task_clear(task, TASK_VALUE_VALID);
    const Reading reading = interface_read(task->parameter);
    if (reading.error != 0) {
        trace(TRACE_TRACE, "%s FAILED!", task->id == ID_LAN ? "CB10" : "CB13");
        return probe_fail(task, reading.error);
    }
    return probe_succeed(task, reading.value);
}
