#pragma once

// A process's resources: memory, descriptors, threads.

#include "from_environment.h"

#include "scratch_folder.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <iostream>
#include <iterator>
#include <string>
#include <sys/types.h>

struct ProcessUsage {
    long resident_kb;
    long descriptors;
    long threads;
};

inline ProcessUsage usage_of(pid_t pid) {
    const std::string folder = "/proc/" + std::to_string(pid);
    const std::string status = read_file(folder + "/status");
    const auto number = [&status](const std::string &field) {
        return std::stol(status.substr(status.find(field) + field.size()));
    };
    const std::filesystem::directory_iterator descriptors(folder + "/fd");
    return {.resident_kb = number("VmRSS:"),
            .descriptors = std::distance(begin(descriptors), end(descriptors)),
            .threads = number("Threads:")};
}

/// Allows for memory kept by the allocator and for the log, which is closed between its rotation and the next
/// record.
inline void expect_as_before(const ProcessUsage &now, const ProcessUsage &before) {
    // A sanitizer keeps freed memory for a while and reports leaks at the end.
    const long allocator_kb = is_sanitized() ? 1'000'000 : 512;
    EXPECT_LE(now.resident_kb, before.resident_kb + allocator_kb);
    EXPECT_LE(now.descriptors, before.descriptors + 1);
    EXPECT_EQ(now.threads, before.threads);
    std::cout << "resident " << before.resident_kb << " -> " << now.resident_kb << " kB, descriptors "
              << before.descriptors << " -> " << now.descriptors << ", threads " << before.threads << " -> "
              << now.threads << '\n';
}
