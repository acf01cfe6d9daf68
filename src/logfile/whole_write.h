#pragma once

// Writes to a stream of the status log, each one whole or not at all.

#include "handle.h"

#include <cstring>
#include <span>
#include <sys/uio.h>

/// A part of a write; null is an empty text.
inline iovec piece(const char *text) {
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): writev only reads
    return {.iov_base = const_cast<char *>(text), .iov_len = text == nullptr ? 0 : std::strlen(text)};
}

/// The most pieces that one write takes.
inline constexpr std::size_t MAX_PIECES = 7;

/// Whether a write would not block. Setting O_NONBLOCK instead would affect other processes that share the stream.
bool logfile_has_room(const Descriptor &stream);

/// Writes all pieces at once or nothing: undoes a partial write. If that is impossible, it sets `torn`, and the next
/// write starts with a line feed. False, with errno set, if the pieces were lost.
bool logfile_write_whole(const Descriptor &stream, std::span<const iovec> pieces, bool *torn);
