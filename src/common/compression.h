#pragma once

#include "rotation.h"

#include <cstdint>

/// Compresses `from` ("stdin" is standard input) to `to` ("stdout" is standard output) with bzip2.
/// Returns 0, or -1 after any failure.
int file_compress(const char *from, const char *to);
/// Decompresses `from` to `to`, with the same names; returns 0 or -1. Never called by the daemon; kept.
[[gnu::used, gnu::retain]] int file_decompress(const char *from, const char *to);

enum class Packing : std::uint8_t { done, failed, interrupted };

/// Compresses and traces as file_compress does from `from` to `to`, but writes a new file `temporary` instead of
/// `to`. After DONE it is synchronised to the disk; otherwise it does not exist.
Packing file_pack(const char *from, const char *to, const char *temporary, Interrupt interrupt);
