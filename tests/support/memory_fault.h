#pragma once

/// While it lives, the n-th allocation (malloc, calloc or strdup) of the code under test fails, once;
/// n counts from 1. The test programs are linked so that those calls pass by here.
class MemoryFault {
  public:
    explicit MemoryFault(int nth);
    ~MemoryFault();
    MemoryFault(const MemoryFault &) = delete;
    MemoryFault &operator=(const MemoryFault &) = delete;
    /// Whether the failure has happened.
    [[nodiscard]] static bool happened();
};

/// How many such calls there were so far. What the C library allocates inside is not seen.
int allocation_count();
