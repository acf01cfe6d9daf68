#pragma once

// What the fuzz targets share.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

/// Ends the run as a finding unless `condition` holds.
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
