#pragma once

#include "rotation.h"

#include <cstdint>

/// Compresses `from` ("stdin" is standard input) to `to` ("stdout" is standard output) with bzip2.
/// Returns 0, or -1 after any failure.
int file_compress(const char *from, const char *to);
/// Decompresses `from` to `to`, with the same names; returns 0 or -1. Never called by the daemon; kept.
[[gnu::used, gnu::retain]] int file_decompress(const char *from, const char *to);

enum class Packing : std::uint8_t { done, failed, interrupted };

/// Compresses and traces like file_compress(from, to), but writes to a new file `temporary`. After `done` that file
/// is synchronised to the disk; otherwise it does not exist.
Packing file_pack(const char *from, const char *to, const char *temporary, Interrupt interrupt);
