#pragma once

// On which of the processors what is measured runs: whether it shares its own with the journal's reader
// must not be left to chance, for each line that it writes wakes that one.

/// Keeps the calling thread, and what it starts from then on, to a processor.
void keep_to(int processor);

/// Keeps the calling thread, and what it starts from then on, to the first processor that it may use; the
/// last, which is the same where there is but one.
int leave_last_processor();
