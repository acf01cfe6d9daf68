#pragma once

// The steps of `main` between option parsing and the initialisation of the modules.

/// Opens /dev/null for each closed one of stdin, stdout and stderr, so that no other file gets its descriptor and
/// output.
void standard_streams_init();

/// Takes the single-instance lock in the directory of the log file and writes the pid into it; true if this is the
/// only daemon there. The lock ends with the process.
bool is_single_proc();

/// Blocks the daemon's signals and installs the handlers of the termination signals and of SIGUSR1. Only traces a
/// failure.
void signal_init();

/// Cleans up and ends the process with status 1.
void sig_exit_handler(int signo);
/// Marks every task for re-initialisation.
void sig_reinit_handler(int signo);
