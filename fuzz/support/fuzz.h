#pragma once

// Shared by the fuzz targets.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

/// Reports a finding and ends the run unless `condition` holds.
inline void promise(bool condition, const char *text) {
    if (!condition) {
        std::fprintf(stderr, "broken promise: %s\n", text);
        std::abort();
    }
}
#define PROMISE(condition) promise((condition), #condition)

inline std::string text_of(const std::uint8_t *data, std::size_t size) {
    return {reinterpret_cast<const char *>(data), size};
}
