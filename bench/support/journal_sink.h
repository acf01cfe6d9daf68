#pragma once

/// Takes the place of the journal where none runs: binds the journal's socket in a mount namespace of
/// the process's own, with a /run of its own, and drains it on a thread. False, with a word on stdout,
/// when that is not possible (it takes root): the traces then end at a missing socket and cost less
/// than they should. The reader gets the first processor, the caller from then on the last.
bool start_journal_sink();

/// How many datagrams the sink has taken so far.
long journal_datagrams();
