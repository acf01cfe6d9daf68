#pragma once

#include <cstdint>

/// Asked between the pieces of long work; true interrupts it.
using Interrupt = bool (*)();

/// Shifts the compressed generations of `file` up by one, keeping at most `count`, compresses `file`
/// into generation 000 and removes it, compressed or not. Does nothing for a stream's name. The generation
/// gets its name only when it is whole and on the disk; until then it is "<file>.packing". A rotation that
/// `interrupt` interrupts leaves `file` unchanged and no generation 000.
void file_rotate(const char *file, std::int32_t count, Interrupt interrupt = nullptr);
/// Removes what a rotation of `file` left that was ended by a kill or a power cut.
void file_rotate_leftover(const char *file);
