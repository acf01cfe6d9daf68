#pragma once

// The main thread blocks the daemon's signals and handles them at safe points only, so that no handler ever
// runs inside malloc, stdio or a library.

#include <csignal>

/// The seven signals that the daemon handles.
sigset_t signals_all();
/// All of them but the heartbeat.
sigset_t signals_handled();

/// Blocks the handled signals in the calling thread and remembers the mask before the first call.
void signals_block();
/// The mask before the first block; a child starts with it.
sigset_t signals_original_mask();

/// Ignores SIGPIPE and SIGXFSZ, so that a write fails instead of ending the process; what they did before is
/// kept. Called once, first of all.
void signals_ignore_failed_writes();
/// Gives both signals back what they did before. For a child; async-signal-safe.
void signals_restore_failed_writes();

/// Runs the installed handlers of all signals of `set` that are pending, one at a time, each once and
/// never one inside another. Keeps errno, as do all below.
void signals_dispatch(const sigset_t &set);
/// Waits for one signal of `set` and runs its handler, then those of the others pending.
void signals_wait(const sigset_t &set);
/// A safe point: handles the pending signals.
void signals_safe_point();
/// Whether a held signal waits for the next safe point that ends the process there.
bool signals_termination_pending();

/// A safe point that waits: pauses for `milliseconds`, or until a signal has been handled.
void signals_pause(int milliseconds);
