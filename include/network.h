#pragma once

#include <cstdint>

// Which network paths are in use, 1 or 0; written on the main thread, before the tasks of a pass run.
// Which network paths are in use: 1 or 0, 0 until the first check. Main thread only; written by the
// check and, to choose a path, by tests.
extern constinit std::int32_t lan_available;
extern constinit std::int32_t wifi_available;
extern constinit std::int32_t mobile_available;

/// Refreshes which network paths are in use; returns 0. Called before every pass.
int network_check_daemon();
