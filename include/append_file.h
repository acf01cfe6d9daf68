#pragma once

#include "handle.h"

#include <fcntl.h>

/// Opens a file for appending and makes it if missing; none, with errno, when that fails. Never waits: a
/// pipe without a reader or a busy terminal in the file's place must not stop the daemon.
inline Descriptor open_for_append(const char *name) {
    return Descriptor(open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0666));
}
