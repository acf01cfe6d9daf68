#pragma once

// Reads /proc for a process.

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/types.h>
#include <system_error>

inline std::size_t entries_of(pid_t pid, const std::string &folder) {
    const std::filesystem::directory_iterator entries("/proc/" + std::to_string(pid) + "/" + folder);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

inline std::size_t descriptors_of(pid_t pid) { return entries_of(pid, "fd"); }

/// Descriptors other than pipes: the sanitizer for threads opens two to the program that reads its symbols.
inline std::size_t descriptors_but_pipes_of(pid_t pid) {
    const std::filesystem::directory_iterator entries("/proc/" + std::to_string(pid) + "/fd");
    return static_cast<std::size_t>(std::count_if(begin(entries), end(entries), [](const auto &entry) {
        std::error_code gone;
        return !std::filesystem::read_symlink(entry, gone).string().starts_with("pipe:");
    }));
}

inline std::size_t threads_of(pid_t pid) { return entries_of(pid, "task"); }

/// Resident pages.
inline long memory_of(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/statm");
    long total = 0;
    long resident = 0;
    file >> total >> resident;
    return resident;
}
