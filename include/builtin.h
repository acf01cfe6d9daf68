#pragma once

// The probes' operations, which the built-in tasks refer to. An exec operation returns 0 and stores a valid
// `value`, or returns -1, stores `error` and keeps the old `value`.

#include "gdata.h"

#include <cstddef>
#include <cstdint>

/// The init operation of a simple probe.
constexpr void probe_mark_initialised(Task *task) {
    task_clear(task, TASK_REINIT);
    task->flags |= TASK_INITIALISED;
}

/// Stores a measurement; returns 0.
constexpr int probe_succeed(Task *task, std::int32_t value) {
    task->value = value;
    task->flags |= TASK_VALUE_VALID;
    return 0;
}

/// Stores the error of a failed run and keeps the old value; returns -1.
constexpr int probe_fail(Task *task, std::int32_t error) {
    task->error = error;
    return -1;
}

/// The state that a probe's own logger reports: 0 or failed.
constexpr int probe_log_state(const Task *task) { return task->state == 0 ? 0 : 2; }

/// The size of a probe's own line.
inline constexpr std::size_t PROBE_LINE_SIZE = 2024;

int temperature_init(Task *task);
int temperature_exec(Task *task);

int memoryusage_init(Task *task);
int memoryusage_exec(Task *task);

int wearout_init(Task *task);
int wearout_exec(Task *task);

int diskusage_init(Task *task);
int diskusage_exec(Task *task);

int bluetooth_init(Task *task);
int bluetooth_exec(Task *task);
int bluetooth_logger(Task *task);

int ethernet_init(Task *task);
int ethernet_exec(Task *task);
int ethernet_logger(Task *task);

int internet_init(Task *task);
int internet_exec(Task *task);

int wireless_init(Task *task);
int wireless_exec(Task *task);
int wireless_logger(Task *task);
/// List comparison: 1 when both records are given and their id and index are equal.
int wp_cmp(const void *left, const void *right);

int service_init(Task *task);
int service_exec(Task *task);
int service_logger(Task *task);

int load_init(Task *task);
int load_exec(Task *task);
int load_logger(Task *task);
