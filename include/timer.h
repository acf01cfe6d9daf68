#pragma once

// The heartbeat: SIGALRM on every wall-clock multiple of the heartbeat period.

/// Starts the heartbeat with SIGALRM blocked; 0, or -1 after a trace.
int timer_init();
/// Counts a heartbeat.
void sig_alarm_handler(int signo);
/// Blocks SIGALRM for the calling thread.
void timer_suspend();
/// Unblocks SIGALRM for the calling thread; a pending heartbeat is counted now.
void timer_continue();
/// The wait between two passes: waits for a signal, then until a heartbeat has been counted. A heartbeat that was
/// counted before the call takes effect only after the next signal: a pass that lasts too long delays the next one.
void runrun_wait();
