#pragma once

// How a rotation packs a file, so that neither a kill nor a power cut leaves half a generation.

#include "common.h"

#include <cstdint>

enum class Packing : std::uint8_t { DONE, FAILED, BROKEN_OFF };

/// Does what file_compress does from `from` to `to`, and traces the same, but writes a new file
/// `temporary` instead of `to`. It is on the disk when the result is DONE; else it does not exist.
Packing file_pack(const char *from, const char *to, const char *temporary, BreakOff break_off);
