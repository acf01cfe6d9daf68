#pragma once

// Permanently running programs, measured from outside at the same time.

#include "programs.h"

#include <string>
#include <sys/types.h>
#include <vector>

/// Of a process, in KiB.
struct Memory {
    double resident, proportional, dirty;
};

Memory memory_of(pid_t pid);

/// The cost of a program at one heartbeat per second, over all threads.
struct Cycle {
    double microseconds = 0, waits = 0, preemptions = 0, calls = 0, start_microseconds = 0;
    Memory memory{};
};

/// A program in its own pid namespace, with as many processes as on a board.
struct ApartProgram {
    pid_t guard; ///< the program's parent, ends after it
    pid_t pid;
};

struct Subject {
    const char *name;
    Command command;
    ApartProgram program = {};
    Cycle cycle = {};
};

/// Starts all programs, lets them settle, measures them over the same period and kills them. `scratch` is a folder for
/// temporary files.
void watch(std::vector<Subject> *subjects, const std::string &scratch);
