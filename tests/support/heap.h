#pragma once

#include <cstddef>

#ifdef SANITIZED
extern "C" std::size_t __sanitizer_get_current_allocated_bytes(); // g++ ships without its header
#else
#include <malloc.h>
#endif

/// The bytes allocated by the process and not freed.
inline std::size_t heap_in_use() {
#ifdef SANITIZED
    return __sanitizer_get_current_allocated_bytes();
#else
    const struct mallinfo2 info = mallinfo2();
    return info.uordblks + info.hblkhd;
#endif
}
