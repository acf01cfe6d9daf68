#pragma once

// Messages to the service manager. Sent only if NOTIFY_SOCKET is set; never waits, because a manager that
// hangs must not stop the monitoring.

/// How the station stands after a pass.
struct PassStatus {
    const char *raised_issues = ""; ///< their labels, "" when there are none
    bool is_off_bus = false;        ///< nobody can ask for the issues
    int status_log_error = 0;       ///< the errno with which records were lost, or 0
    unsigned lost_traces = 0;       ///< since the start
};

/// Reports that the daemon is ready.
void supervision_ready();
/// A whole pass is over: the keep-alive, and a status text when it differs from the one before. A bus or a
/// status log that was lost, or is there again, is also one trace of level 1.
void supervision_pass_done(const PassStatus &status);
/// Reports that the daemon ends.
void supervision_stopping();
