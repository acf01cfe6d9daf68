#pragma once

/// Compresses `from` ("stdin" is standard input) to `to` ("stdout" is standard output) with bzip2.
/// Returns 0, or -1 after any failure.
int file_compress(const char *from, const char *to);
/// Decompresses `from` to `to`, with the same names; returns 0 or -1. Never called by the daemon; kept.
[[gnu::used, gnu::retain]] int file_decompress(const char *from, const char *to);
