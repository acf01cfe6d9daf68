// One run of each value probe, and the minimal system calls for the same value.

#include "builtin.h"
#include "common.h"
#include "probe_read.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/statvfs.h>
#include <unistd.h>

// Replaces the journal, which is not measured.
extern "C" int sd_journal_print_with_location(int /*priority*/, const char * /*file*/, const char * /*line*/,
                                              const char * /*function*/, const char * /*format*/, ...) {
    return 0;
}

namespace {

/// A temporary file with this content.
class Fixture {
  public:
    explicit Fixture(const std::string &content) {
        const int fd = mkstemp(path_.data());
        if (fd < 0 || write(fd, content.data(), content.size()) < 0) {
            std::perror(path_.c_str());
            std::abort();
        }
        close(fd);
    }
    ~Fixture() { unlink(path_.c_str()); }
    Fixture(const Fixture &) = delete;
    Fixture &operator=(const Fixture &) = delete;

    [[nodiscard]] const char *path() const { return path_.c_str(); }

  private:
    std::string path_ = "/tmp/vigmond-bench-XXXXXX";
};

void run_probe(benchmark::State &state, TaskOperation exec, const char *parameter, int result) {
    Task task{};
    task.parameter = parameter;
    for ([[maybe_unused]] auto iteration : state) {
        if (exec(&task) != result) {
            state.SkipWithError("the probe does not answer as expected");
            return;
        }
        benchmark::DoNotOptimize(task.value);
    }
}

void bare_read(benchmark::State &state, const char *path) {
    std::array<char, 4096> buffer{};
    for ([[maybe_unused]] auto iteration : state) {
        const int fd = open(path, O_RDONLY | O_CLOEXEC);
        while (read(fd, buffer.data(), buffer.size()) > 0) {
        }
        close(fd);
    }
}

void temperature(benchmark::State &state) {
    const Fixture file("42999\n");
    run_probe(state, temperature_exec, file.path(), 0);
}
BENCHMARK(temperature);

void temperature_bare(benchmark::State &state) {
    const Fixture file("42999\n");
    bare_read(state, file.path());
}
BENCHMARK(temperature_bare);

void memoryusage(benchmark::State &state) { run_probe(state, memoryusage_exec, nullptr, 0); }
BENCHMARK(memoryusage);

void memoryusage_bare(benchmark::State &state) { bare_read(state, "/proc/meminfo"); }
BENCHMARK(memoryusage_bare);

/// Without a device: the kernel refuses the command.
void wearout_refused(benchmark::State &state) { run_probe(state, wearout_exec, "/dev/null", -1); }
BENCHMARK(wearout_refused);

void wearout_decoding(benchmark::State &state) {
    ExtCsd registers{};
    registers[192] = 7;
    registers[268] = 1;
    registers[269] = 3;
    for ([[maybe_unused]] auto iteration : state) {
        benchmark::DoNotOptimize(registers);
        benchmark::DoNotOptimize(wearout_decode(registers));
    }
}
BENCHMARK(wearout_decoding);

void diskusage(benchmark::State &state) { run_probe(state, diskusage_exec, "/", 0); }
BENCHMARK(diskusage);

void diskusage_bare(benchmark::State &state) {
    for ([[maybe_unused]] auto iteration : state) {
        struct statvfs counts {};
        benchmark::DoNotOptimize(statvfs("/", &counts));
    }
}
BENCHMARK(diskusage_bare);

void diskusage_of_file(benchmark::State &state) {
    const Fixture file("fs x 1000 500 250\n");
    run_probe(state, diskusage_exec, file.path(), 0);
}
BENCHMARK(diskusage_of_file);

void split_line(benchmark::State &state) {
    constexpr int max = 8;
    const std::string line = "MemTotal:        1024000 kB\n";
    std::array<char *, max + 1> tokens{};
    for ([[maybe_unused]] auto iteration : state) {
        std::string text = line;
        benchmark::DoNotOptimize(strsplit(text.data(), tokens.data(), max));
    }
}
BENCHMARK(split_line);

} // namespace

BENCHMARK_MAIN();
