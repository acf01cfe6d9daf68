#pragma once

// The issue registry and its face on the system bus.

#include <cstdint>

/// Prepares the registry and starts the bus threads; 0 or -1.
int d_bus_srv_init();
/// Reports a change of a task's state to the issue `id`: 0 is good, anything else is failing.
/// Returns 0, for an unknown id too.
int d_bus_srv_issue_update(std::uint32_t id, std::int32_t state);
/// Announces what was raised and cleared since `now`, the start of the pass; returns 0.
int d_bus_srv_send_issues(std::int64_t now);
