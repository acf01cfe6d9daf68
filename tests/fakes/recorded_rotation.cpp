// Replaces rotation.h: rotations are recorded in rotations().

#include "rotation.h"

#include "logfile.h"
#include "logfile_rig.h"

#include <cstdio>
#include <filesystem>

void file_rotate(const char *file, std::int32_t count, Interrupt interrupt) {
    const std::string content = std::filesystem::is_regular_file(file) ? read_file(file) : "";
    rotations().calls.push_back({file, count, content, !logfile_state().logfile_stream});
    if (rotations().is_long && interrupt()) {
        return;
    }
    if (rotations().remove) {
        std::remove(file);
    }
}

void file_rotate_leftover(const char *file) { rotations().leftovers.emplace_back(file); }
