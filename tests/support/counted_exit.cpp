// In coverage builds, writes the counts of a process that ends with _exit.

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the compiler's and the linker's names
extern "C" {
void __gcov_dump();
[[noreturn]] void __real__exit(int status);

[[noreturn]] void __wrap__exit(int status) {
    __gcov_dump();
    __real__exit(status);
}
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
