#pragma once

#include <cstdint>

/// One pass at the time `now` (seconds since the epoch): the network check, every due task through probe,
/// analyzer, notifier, logger and status log, then the signals of the changes.
void scheduler_pass(std::int64_t now);
/// Alternates passes and waits; never returns.
void scheduler();
