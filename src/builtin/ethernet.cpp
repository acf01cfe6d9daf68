#include "builtin.h"
#include "handle.h"
#include "logger.h"
#include "network.h"
#include "probe_read.h"
#include "trace.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <strings.h>

// /sys/class/net/eth0/operstate:
//     up

Reading operstate_parse(const char *line) {
    constexpr const char *up = "up";
    return Reading::of(strncasecmp(line, up, std::strlen(up)) == 0 ? 0 : 1);
}

namespace {

constexpr std::int32_t ID_LAN_HARDWARE = 11;
constexpr std::int32_t ID_LAN_LINK = 12;
Reading read_link(std::FILE *file) {
    constexpr std::size_t line_size = 1024;
    std::array<char, line_size> line{};
    errno = 0; // fgets at the end of an empty file leaves errno unchanged
    if (std::fgets(line.data(), static_cast<int>(line.size()), file) == nullptr) {
        return Reading::failed_with_errno(errno, 1);
    }
    return operstate_parse(line.data());
}

Reading ethernet_read(const Task *task) {
    const FileHandle file(std::fopen(task->parameter, "re"));
    switch (task->id) {
    case ID_LAN_HARDWARE:
        return Reading::of(file ? 0 : 1);
    case ID_LAN_LINK:
        return file ? read_link(file.get()) : Reading::failed(EINVAL);
    default:
        return Reading::failed(EINVAL);
    }
}

} // namespace

int ethernet_init(Task *task) {
    trace(TRACE_INFO, " ");
    probe_mark_initialised(task);
    return 0;
}

int ethernet_exec(Task *task) {
    trace(TRACE_DEBUG, " ");
    task_clear(task, TASK_VALUE_VALID);
    if (lan_available != 1) {
        task->do_logfile = 0;
        return probe_fail(task, ENONET);
    }
    task->do_logfile = 1;
    const Reading reading = ethernet_read(task);
    if (reading.error != 0) {
        trace(TRACE_TRACE, "%s FAILED!", task->id == ID_LAN_HARDWARE ? "CB11" : "CB12");
        return probe_fail(task, reading.error);
    }
    return probe_succeed(task, reading.value);
}

int ethernet_logger(Task *task) {
    trace(TRACE_DEBUG, " ");
    if (task->do_log != 1) {
        return 0;
    }
    task->do_log = 0;
    const bool good = task->state == 0;
    std::array<char, PROBE_LINE_SIZE> buffer{};
    TextBuffer line = logger_value_line(buffer, task);
    switch (task->id) {
    case ID_LAN_HARDWARE:
        line.append_format("Ethernet hardware %s.", good ? "available and usable" : "not available or not usable");
        break;
    case ID_LAN_LINK:
        line.append_format("Ethernet connection %s established.", good ? "is" : "could not be");
        break;
    default:
        return 0;
    }
    logger_syslog(probe_log_state(task), line.c_str());
    return 0;
}
