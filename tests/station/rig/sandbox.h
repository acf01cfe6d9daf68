#pragma once

// A separate mount namespace for a child, with a folder as its root.

#include <cstddef>
#include <string>
#include <vector>

struct Mount {
    std::string source;     ///< empty: makes `target` read-only, or a disk in memory
    std::string target;     ///< path before the change of root
    std::size_t memory = 0; ///< the size of the disk in memory, in bytes
};

struct Sandbox {
    std::string root;
    std::vector<Mount> mounts; ///< in this order
    std::string directory;     ///< the working directory after the change of root
};

/// Moves the calling process, a newly forked child, into the sandbox. On a failure prints it to stderr and ends
/// the child. Nothing is visible outside. Works as root, and as any user where user namespaces are allowed.
void enter_sandbox(const Sandbox &sandbox);
