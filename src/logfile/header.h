#pragma once

// The text of the status log's header block: what the daemon watches, and the columns of the records.

#include "handle.h"

/// The header block for the tasks and the command line in force, under the time stamp `stamp` and the
/// word `occasion`; null when out of memory.
TextHandle logfile_header_text(const char *stamp, const char *occasion);
