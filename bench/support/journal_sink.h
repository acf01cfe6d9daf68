#pragma once

/// Replaces the journal: binds its socket in a private mount namespace with a private /run and drains it on a
/// thread. Needs root. On failure returns false with a message on stdout; traces then go to the system's journal, or
/// cost too little if there is none. The reader runs on the first processor, the caller from then on on the last.
bool start_journal_sink();

/// The number of datagrams received so far.
long journal_datagrams();
