#pragma once

// A mount namespace of the child's own, in which a folder is the root.

#include <cstddef>
#include <string>
#include <vector>

struct Mount {
    std::string source;     ///< empty: makes `target` read-only, or a disk in memory
    std::string target;     ///< as seen before the change of root
    std::size_t memory = 0; ///< the bytes of the disk in memory
};

struct Sandbox {
    std::string root;
    std::vector<Mount> mounts; ///< made in this order
    std::string directory;     ///< the working directory, as seen behind the change of root
};

/// Moves the calling process, a child that has just been forked, into the sandbox; what cannot be done
/// is said on stderr and ends the child. Nothing is seen of it outside. Works as root, and as any user
/// where user namespaces are allowed.
void enter_sandbox(const Sandbox &sandbox);
