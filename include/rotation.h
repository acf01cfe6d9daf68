#pragma once

#include <cstdint>

/// Called between the steps of a long operation; true aborts it.
using Interrupt = bool (*)();

/// Shifts the compressed generations of `file` up by one, keeping at most `count`, compresses `file` into generation
/// 000 and removes it, even if the compression failed. Does nothing for a stream's name. Writes the generation as
/// "<file>.packing" and renames it once it is complete and on the disk. If `interrupt` aborts the rotation, `file` is
/// unchanged and there is no generation 000.
void file_rotate(const char *file, std::int32_t count, Interrupt interrupt = nullptr);
/// Removes the temporary file of a rotation of `file` that a kill or a power cut ended.
void file_rotate_leftover(const char *file);
