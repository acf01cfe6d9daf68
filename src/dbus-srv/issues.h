#pragma once

// The issue registry: which issues are raised. The other files of this folder read it; the notifier reports changes of
// state with d_bus_srv_issue_update (dbus-srv.h).

#include <array>
#include <cstddef>
#include <cstdint>
#include <pthread.h>

struct Issue {
    std::int32_t id;
    const char *label;    ///< as shown on the bus; null in the end row
    std::int64_t changed; ///< seconds since the epoch of the last change between raised and clear
    std::int32_t count;   ///< transitions to WARN or FAIL minus transitions to OK; 1 or more is raised
    std::int32_t enabled; ///< the mark of availability, 0 or 1; has no effect on listing and signals
};

inline constexpr std::size_t ISSUE_ROWS = 35;

/// CB00 to CB32, then CBnn, then the end row with id -1.
using IssueRegistry = std::array<Issue, ISSUE_ROWS>;

/// Guarded by `registry_lock`; no other lock is taken while it is held.
extern constinit IssueRegistry issue_registry;
extern constinit pthread_mutex_t registry_lock;

/// Sets all times one second back, so that the first pass announces nothing.
void d_bus_srv_issue_init();
/// The mark of an issue's availability, 0 or 1; -1 for an unknown id.
int d_bus_srv_ID_is_enabled(std::uint32_t id);
/// Sets the mark when `enable` is 1 and clears it for any other value; 0, or -1 for an unknown id.
int d_bus_srv_ID_set_enabled(std::uint32_t id, std::int32_t enable);
