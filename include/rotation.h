#pragma once

#include <cstdint>

/// Shifts the compressed generations of `file` up by one, keeping at most `count`, compresses `file`
/// into generation 000 and removes it, compressed or not. Nothing happens to a stream's name.
void file_rotate(const char *file, std::int32_t count);
