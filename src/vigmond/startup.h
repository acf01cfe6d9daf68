#pragma once

// What `main` does once between the options and the modules.

/// Opens those of stdin, stdout and stderr that are closed on /dev/null, so that no other file gets their
/// descriptor and their output.
void standard_streams_init();

/// Takes the single-instance lock beside the log file and writes the pid into it; true if this is
/// the only daemon there. The lock ends with the process.
bool is_single_proc();

/// Blocks the daemon's signals and installs the handlers of the termination signals and of SIGUSR1. A failure
/// is traced only.
void signal_init();

/// Cleans up and ends the process with status 1.
void sig_exit_handler(int signo);
/// Marks every task for re-initialisation.
void sig_reinit_handler(int signo);
