#pragma once

/// Replacements for paths in the task table that exist only on the board.
struct BoardPaths {
    const char *logfile;
    const char *disk; ///< replaces /rw-root
    const char *emmc;
};

/// Gives the daemon its task table with these paths, a status log that does not rotate, and load tasks that do not
/// start the load logger. The paths must outlive the daemon.
void configure_daemon(const BoardPaths &paths);
