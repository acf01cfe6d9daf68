#include "ratio.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

namespace {

struct Fastest {
    std::string name;
    double processor = std::numeric_limits<double>::infinity(); ///< seconds
    double wall = std::numeric_limits<double>::infinity();
};

/// Keeps the fastest repetition of two benchmarks beside printing all.
class FastestOfTwo : public benchmark::ConsoleReporter {
  public:
    FastestOfTwo(const char *first, const char *second) : whole{.name = first}, bare{.name = second} {}

    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
                take(run);
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    Fastest whole;
    Fastest bare;

  private:
    void take(const Run &run) {
        const auto count = static_cast<double>(run.iterations);
        for (Fastest *each : {&whole, &bare}) {
            if (run.run_name.function_name == each->name) {
                each->processor = std::min(each->processor, run.cpu_accumulated_time / count);
                each->wall = std::min(each->wall, run.real_accumulated_time / count);
            }
        }
    }
};

void print_ratio(const char *what, double whole, double bare) {
    if (std::isfinite(whole) && std::isfinite(bare)) {
        std::printf("%s, fastest of each: %.0f ns / %.0f ns = %.3f\n", what, whole * 1e9, bare * 1e9, whole / bare);
    } else {
        std::printf("%s: no ratio, since not both were run one by one\n", what);
    }
}

} // namespace

int run_and_print_ratio(int argc, char **argv, const char *whole, const char *bare) {
    std::string repetitions = "--benchmark_repetitions=9";
    std::string interleaving = "--benchmark_enable_random_interleaving=true";
    std::vector<char *> arguments{argv[0], repetitions.data(), interleaving.data()};
    arguments.insert(arguments.end(), argv + 1, argv + argc); // theirs win
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return 1;
    }
    FastestOfTwo reporter(whole, bare);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    print_ratio("processor time", reporter.whole.processor, reporter.bare.processor);
    print_ratio("wall time", reporter.whole.wall, reporter.bare.wall);
    return 0;
}
