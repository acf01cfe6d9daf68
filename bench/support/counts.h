#pragma once

// What other tools count of a program: strace its system calls, callgrind its instructions.

#include "programs.h"

#include <map>
#include <string>

using CallCounts = std::map<std::string, double>; ///< by name, and the sum of all as "total"

/// The calls in a report of strace; none without strace.
CallCounts counts_of(const std::string &report);

/// The instructions of all threads of a program that ends by itself; 0 without callgrind, which writes `report`.
double instructions_of(const Command &command, const std::string &report);
