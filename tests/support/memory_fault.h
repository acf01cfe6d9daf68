#pragma once

/// While it exists, the n-th allocation (malloc, calloc or strdup) of the code under test fails, once; n counts from 1.
/// The test programs are linked with --wrap for these calls.
class MemoryFault {
  public:
    explicit MemoryFault(int nth);
    ~MemoryFault();
    MemoryFault(const MemoryFault &) = delete;
    MemoryFault &operator=(const MemoryFault &) = delete;
    /// Whether the failure has happened.
    [[nodiscard]] static bool happened();
};

/// The number of such calls so far. Allocations inside the C library are not counted.
int allocation_count();
