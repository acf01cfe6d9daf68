#pragma once

// Counts from other tools: system calls from strace, instructions from callgrind.

#include "programs.h"

#include <map>
#include <string>

using CallCounts = std::map<std::string, double>; ///< by name, and the sum of all as "total"

/// The calls in a report of strace; empty without strace.
CallCounts counts_of(const std::string &report);

/// The instructions of all threads of a program that ends by itself. callgrind writes `report`; 0 without callgrind.
double instructions_of(const Command &command, const std::string &report);
