#pragma once

// What the rest of the daemon uses of the bus service: the issue registry and its signals. None of these operations
// waits for the bus.

#include <cstddef>
#include <cstdint>

/// Prepares the registry and starts the bus threads; 0, or -1 when a thread could not be started.
int d_bus_srv_init();
/// Reports a change of a task's state to the issue `id`: 0 is good, any other value is failing. Returns 0, also
/// for an unknown id.
int d_bus_srv_issue_update(std::uint32_t id, std::int32_t state);
/// Writes the labels of the raised issues, "CB07, CB20"; "" when there are none. 256 bytes hold all.
void d_bus_srv_raised_labels(char *text, std::size_t size);
/// Whether the daemon has no bus connection or does not own its name. False while it still connects at start.
bool d_bus_srv_is_off_bus();
/// Announces the issues raised and cleared since `now`, the start of the pass; returns 0.
int d_bus_srv_send_issues(std::int64_t now);
