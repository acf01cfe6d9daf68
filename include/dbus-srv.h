#pragma once

// The bus service: what the rest of the daemon uses of the issue registry and its face on the system
// bus. None of these operations ever waits for the bus.

#include <cstdint>

/// Prepares the registry and starts the bus threads; 0, or -1 when a thread could not be started.
int d_bus_srv_init();
/// Reports a change of a task's state to the issue `id`: 0 is good, anything else is failing.
/// Returns 0, for an unknown id too.
int d_bus_srv_issue_update(std::uint32_t id, std::int32_t state);
/// The number of issues that are raised.
int d_bus_srv_raised_issues();
/// Announces what was raised and cleared since `now`, the start of the pass; returns 0.
int d_bus_srv_send_issues(std::int64_t now);
