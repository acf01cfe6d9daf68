#include "ratio.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdio>
#include <limits>
#include <map>
#include <string>
#include <vector>

namespace {

struct Fastest {
    double processor = std::numeric_limits<double>::infinity(); ///< seconds
    double wall = std::numeric_limits<double>::infinity();
};

/// Prints all repetitions and keeps the fastest one of each benchmark.
class FastestOfAll : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &run : runs) {
            if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
                take(run);
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }

    std::map<std::string, Fastest> fastest;

  private:
    void take(const Run &run) {
        const auto count = static_cast<double>(run.iterations);
        Fastest &each = fastest[run.run_name.function_name];
        each.processor = std::min(each.processor, run.cpu_accumulated_time / count);
        each.wall = std::min(each.wall, run.real_accumulated_time / count);
    }
};

void print_ratio(const Pair &pair, const char *what, double whole, double bare) {
    if (std::isfinite(whole) && std::isfinite(bare)) {
        std::printf("%s over %s, %s, fastest of each: %.0f ns / %.0f ns = %.3f\n", pair.whole, pair.bare, what,
                    whole * 1e9, bare * 1e9, whole / bare);
    } else {
        std::printf("%s over %s, %s: no ratio, since not both were run one by one\n", pair.whole, pair.bare, what);
    }
}

} // namespace

int run_and_print_ratios(int argc, char **argv, const std::vector<Pair> &pairs) {
    std::string repetitions = "--benchmark_repetitions=9";
    std::string interleaving = "--benchmark_enable_random_interleaving=true";
    std::vector<char *> arguments{argv[0], repetitions.data(), interleaving.data()};
    arguments.insert(arguments.end(), argv + 1, argv + argc); // later ones override ours
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
        return 1;
    }
    FastestOfAll reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    for (const Pair &pair : pairs) {
        const Fastest &whole = reporter.fastest[pair.whole];
        const Fastest &bare = reporter.fastest[pair.bare];
        print_ratio(pair, "processor time", whole.processor, bare.processor);
        print_ratio(pair, "wall time", whole.wall, bare.wall);
    }
    return 0;
}
