#pragma once

// The sockets of the journal and of syslog block while nobody reads them. A heartbeat, or a termination,
// must not wait for that: each wait is bounded here, and what finds no room is lost.

/// Bounds the waits of the journal library to a tenth of a second. To be called behind the first trace,
/// with which the library opens its socket, and in front of the first thread.
void journal_bound_waits();

/// Whether the journal was found full within the last ten seconds, in which it is not tried again.
[[nodiscard]] bool journal_is_full();

/// Takes note of the result of a write to the journal.
void journal_note_result(int result);

/// Waits up to a tenth of a second for room in syslog's socket; true also when there is no such socket.
[[nodiscard]] bool syslog_has_room();
