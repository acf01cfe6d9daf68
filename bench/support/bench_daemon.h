#pragma once

/// What the table's parameters name that no machine but the board has.
struct BoardPaths {
    const char *logfile;
    const char *disk; ///< in the place of /rw-root
    const char *emmc;
};

/// Hands the daemon its table on these paths, a status log that does not rotate, and loads that start
/// no load logger. The paths' texts must last.
void configure_daemon(const BoardPaths &paths);
