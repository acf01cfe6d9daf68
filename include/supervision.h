#pragma once

// Messages to the service manager. Sent only if NOTIFY_SOCKET is set; never block, because a manager that hangs
// must not stop the monitoring.

/// The daemon's status after a pass.
struct PassStatus {
    const char *raised_issues = ""; ///< labels, "" if none
    bool is_off_bus = false;        ///< clients cannot read the issues
    int status_log_error = 0;       ///< the errno of lost records, or 0
    unsigned lost_traces = 0;       ///< since the start
};

/// Reports that the daemon is ready.
void supervision_ready();
/// Sends the keep-alive after a complete pass, with the status text if it has changed. Also traces at level 1
/// when the bus or the status log fails and when it works again.
void supervision_pass_done(const PassStatus &status);
/// Reports that the daemon is stopping.
void supervision_stopping();
