#pragma once

// Assigns processors, so that the measured program never shares one with the journal's reader by chance: each line
// wakes the reader.

/// Pins the calling thread, and everything it starts from now on, to a processor.
void keep_to(int processor);

/// Pins the calling thread, and everything it starts from now on, to the first processor that it may use. Returns
/// the last one, which is the same if there is only one.
int leave_last_processor();
