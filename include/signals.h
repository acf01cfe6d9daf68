#pragma once

// The main thread blocks the daemon's signals and handles them at safe points only, so that no handler ever
// runs inside malloc, stdio or a library.

#include <csignal>

/// The seven signals that the daemon handles.
sigset_t signals_all();
/// All of them except the heartbeat.
sigset_t signals_handled();

/// Blocks the handled signals in the calling thread and remembers the mask before the first call.
void signals_block();
/// The mask before the first block; a child starts with it.
sigset_t signals_original_mask();

/// Ignores SIGPIPE and SIGXFSZ, so that a write fails instead of ending the process, and saves their previous
/// dispositions. Called once, before anything else.
void signals_ignore_failed_writes();
/// Restores the previous dispositions of both signals. For a child; async-signal-safe.
void signals_restore_failed_writes();

/// Runs the installed handlers of all pending signals of `set`, each once and one after the other. Keeps errno,
/// as all functions below do.
void signals_dispatch(const sigset_t &set);
/// Waits for one signal of `set` and runs its handler, then the handlers of the other pending ones.
void signals_wait(const sigset_t &set);
/// A safe point: handles the pending signals. A termination signal ends the process here.
void signals_safe_point();
/// Whether a termination signal is pending, so that the next safe point ends the process.
bool signals_termination_pending();

/// A safe point that waits: pauses for `milliseconds`, or until a signal has been handled.
void signals_pause(int milliseconds);
