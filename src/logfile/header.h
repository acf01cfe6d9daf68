#pragma once

// The text of the status log's header block: the daemon's checks and the columns of the records.

#include "handle.h"

/// The header block for the current tasks and command line, with the time stamp `stamp` and the word `occasion`;
/// null when out of memory.
TextHandle logfile_header_text(const char *stamp, const char *occasion);
