#include "memory_fault.h"

#include <atomic>
#include <cerrno>
#include <cstddef>

namespace {

int countdown = 0;
std::atomic<int> allocations{0};

/// Called at each allocation: whether it must fail; sets errno then.
bool fails_now() {
    ++allocations;
    if (countdown > 0 && --countdown == 0) {
        errno = ENOMEM;
        return true;
    }
    return false;
}

} // namespace

extern "C" {
void *__real_malloc(std::size_t size);
void *__real_calloc(std::size_t count, std::size_t size);
char *__real_strdup(const char *text);

void *__wrap_malloc(std::size_t size) { return fails_now() ? nullptr : __real_malloc(size); }
void *__wrap_calloc(std::size_t count, std::size_t size) { return fails_now() ? nullptr : __real_calloc(count, size); }
char *__wrap_strdup(const char *text) { return fails_now() ? nullptr : __real_strdup(text); }
}

MemoryFault::MemoryFault(int nth) { countdown = nth; }

MemoryFault::~MemoryFault() { countdown = 0; }

bool MemoryFault::happened() { return countdown == 0; }

int allocation_count() { return allocations; }
