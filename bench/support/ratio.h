#pragma once

#include <vector>

/// A benchmark and the one that it is measured against.
struct Pair {
    const char *whole;
    const char *bare;
};

/// Runs all benchmarks, each in several repetitions that alternate with those of the others, and
/// prints for each pair how often the fastest of `whole` takes the time of the fastest of `bare`: in
/// processor time of the thread that runs them, and in wall time, which a busy machine blurs. Returns
/// the exit status for main.
int run_and_print_ratios(int argc, char **argv, const std::vector<Pair> &pairs);
