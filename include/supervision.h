#pragma once

// What the daemon tells the service manager of itself. All of it is silent where nobody asks for it
// (NOTIFY_SOCKET), and none of it ever waits: a manager that hangs must not stop the monitoring.

#include <cstdint>

/// The daemon is up: its scheduler starts.
void supervision_ready();
/// A whole pass is over, that of the time `now` (seconds since the epoch): the keep-alive, and a
/// status text with the number of raised issues.
void supervision_pass_done(std::int64_t now, int raised_issues);
/// The daemon is about to end.
void supervision_stopping();
