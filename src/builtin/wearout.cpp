#include "builtin.h"
#include "capabilities.h"
#include "handle.h"
#include "probe_read.h"
#include "trace.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <linux/mmc/ioctl.h>
#include <sys/ioctl.h>

Reading wearout_decode(const ExtCsd &registers) {
    constexpr std::size_t ext_csd_rev = 192;
    constexpr std::size_t life_time_est_typ_a = 268;
    constexpr std::size_t life_time_est_typ_b = 269;
    constexpr int first_rev_with_estimate = 7;
    constexpr int life_exceeded = 11;
    constexpr int percent_per_step = 10;

    if (registers[ext_csd_rev] < first_rev_with_estimate) {
        return Reading::failed(EINVAL);
    }
    const int estimate = std::max(registers[life_time_est_typ_a] & 0xF, registers[life_time_est_typ_b] & 0xF);
    return estimate >= life_exceeded ? Reading::failed(EINVAL) : Reading::of(percent_per_step * estimate);
}

namespace {

// The kernel does not export these: opcode SEND_EXT_CSD, and an R1 response with data.
constexpr std::uint32_t MMC_SEND_EXT_CSD = 8;
constexpr unsigned MMC_RSP_R1_ADTC = 0xB5;

Reading wearout_read(const char *device) {
    const Descriptor file = open_nonblocking(device, O_RDONLY);
    if (!file) {
        return Reading::failed_with_errno(errno);
    }
    ExtCsd registers{};
    mmc_ioc_cmd command{};
    command.opcode = MMC_SEND_EXT_CSD;
    command.flags = MMC_RSP_R1_ADTC;
    command.blksz = EXT_CSD_SIZE;
    command.blocks = 1;
    command.data_ptr = reinterpret_cast<std::uintptr_t>(registers.data());
    const RaisedRawIo raised;
    if (ioctl(file.get(), MMC_IOC_CMD, &command) < 0) {
        return Reading::failed_with_errno(errno);
    }
    return wearout_decode(registers);
}

} // namespace

int wearout_init(Task *task) {
    trace(TRACE_INFO, " ");
    probe_mark_initialised(task);
    return 0;
}

int wearout_exec(Task *task) {
    trace(TRACE_DEBUG, " ");
    task_clear(task, TASK_VALUE_VALID);
    const Reading reading = wearout_read(task->parameter);
    if (reading.error != 0) {
        trace(TRACE_TRACE, "reading wearout FAILED!");
        return probe_fail(task, reading.error);
    }
    trace(TRACE_TRACE, "%s: %d%%", task->parameter, reading.value);
    return probe_succeed(task, reading.value);
}
