#pragma once

#include <vector>

/// A benchmark and its baseline.
struct Pair {
    const char *whole;
    const char *bare;
};

/// Runs all benchmarks in alternating repetitions and prints for each pair the ratio of the fastest times of `whole`
/// and `bare`: in processor time of the running thread, and in wall time, which depends on the load of the machine.
/// Returns the exit status for main.
int run_and_print_ratios(int argc, char **argv, const std::vector<Pair> &pairs);
