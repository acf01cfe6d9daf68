#pragma once

// On which of the processors what is measured runs: whether it shares its own with the journal's reader
// must not be left to chance, for each line that it writes wakes that one.

/// The first and the last processor that this process may use; the same where there is but one.
int first_processor();
int last_processor();

/// Keeps the calling thread, and what it starts from then on, to a processor.
void keep_to(int processor);
