// file_compress compared with the tool "bzip2 -1" on the same status log: processor time, each in its own process,
// and the heap of file_compress compared with the tool's whole memory.

#include "common/compression.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <benchmark/benchmark.h>
#include <bzlib.h>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <memory>
#include <random>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr std::size_t LOG_SIZE = std::size_t{8} * 1024 * 1024;

std::atomic<std::size_t> heap_now = 0;
std::atomic<std::size_t> heap_peak = 0;

void *counted(void *memory) {
    const std::size_t now = heap_now += malloc_usable_size(memory);
    if (now > heap_peak) {
        heap_peak = now;
    }
    return memory;
}

void uncounted(void *memory) { heap_now -= malloc_usable_size(memory); }

} // namespace

// Replace the C library's functions, also for libbz2.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t count, std::size_t size);
void *__libc_realloc(void *memory, std::size_t size);
void __libc_free(void *memory);

void *malloc(std::size_t size) { return counted(__libc_malloc(size)); }
void *calloc(std::size_t count, std::size_t size) { return counted(__libc_calloc(count, size)); }
void *realloc(void *memory, std::size_t size) {
    uncounted(memory);
    return counted(__libc_realloc(memory, size));
}
void free(void *memory) {
    uncounted(memory);
    __libc_free(memory);
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

namespace {

void write_log(const std::string &path) {
    std::mt19937 random(1); // NOLINT(cert-msc51-cpp): the same log every time
    std::ofstream file(path, std::ios::binary);
    std::array<char, 64> line{};
    for (std::size_t written = 0; written < LOG_SIZE;) {
        const auto second = static_cast<unsigned>(written / 1000);
        const int length = std::snprintf(line.data(), line.size(), "2024-05-%02u %02u:%02u:%02u\t%s\tCB%02u\t0\t%u\n",
                                         1 + second / 86400 % 31, second / 3600 % 24, second / 60 % 60, second % 60,
                                         random() % 50 == 0 ? "WARN" : "OK", static_cast<unsigned>(random() % 33),
                                         static_cast<unsigned>(random() % 1000));
        file.write(line.data(), length);
        written += static_cast<std::size_t>(length);
    }
}

struct Usage {
    double seconds; ///< processor time
    double peak;    ///< bytes of private memory
};

/// The private memory of the process, without the pages of programs and libraries; 0 once it has ended.
double memory_of(pid_t process) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("RssAnon:")) {
            return std::strtod(line.c_str() + std::strlen("RssAnon:"), nullptr) * 1024;
        }
    }
    return 0;
}

double seconds(const timeval &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

/// Runs a program to its end and samples its memory: the peak in its rusage would include that of this process
/// before exec.
template <std::size_t N> Usage run(std::array<const char *, N> arguments) {
    std::array<char *, N + 1> argv{};
    for (std::size_t i = 0; i < N; ++i) {
        argv[i] = const_cast<char *>(arguments[i]); // NOLINT(cppcoreguidelines-pro-type-const-cast): exec's signature
    }
    pid_t process = -1;
    if (posix_spawnp(&process, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
        return {};
    }
    Usage usage{};
    rusage total{};
    int status = 0;
    while (wait4(process, &status, WNOHANG, &total) == 0) {
        usage.peak = std::max(usage.peak, memory_of(process));
        usleep(2000);
    }
    usage.seconds = status == 0 ? seconds(total.ru_utime) + seconds(total.ru_stime) : 0;
    return usage;
}

std::size_t heap_needed(const char *from, const char *to) {
    const std::size_t before = heap_now;
    heap_peak = before;
    file_compress(from, to);
    return heap_peak - before;
}

void compress_against_the_tool(benchmark::State &state) {
    const std::filesystem::path folder = std::filesystem::temp_directory_path() / ("bench-" + std::to_string(getpid()));
    std::filesystem::create_directory(folder);
    const std::string log = folder / "log";
    const std::string compressed = folder / "log.000.bz2";
    write_log(log);
    Usage ours{};
    Usage tool{};
    for ([[maybe_unused]] auto iteration : state) {
        const Usage one = run<4>({"/proc/self/exe", "--compress", log.c_str(), compressed.c_str()});
        const Usage other = run<5>({"bzip2", "-1", "-k", "-f", log.c_str()});
        ours.seconds += one.seconds;
        tool = {tool.seconds + other.seconds, std::max(tool.peak, other.peak)};
        state.SetIterationTime(one.seconds);
    }
    if (ours.seconds <= 0 || tool.peak <= 0) {
        state.SkipWithError("file_compress or the bzip2 tool failed");
    } else {
        const auto heap = static_cast<double>(heap_needed(log.c_str(), compressed.c_str()));
        state.counters["heap_MiB"] = heap / 1048576;
        state.counters["time_to_tool"] = ours.seconds / tool.seconds;
        state.counters["memory_to_tool"] = heap / tool.peak;
        state.counters["size_to_tool"] = static_cast<double>(std::filesystem::file_size(compressed)) /
                                         static_cast<double>(std::filesystem::file_size(log + ".bz2"));
    }
    std::filesystem::remove_all(folder);
}
BENCHMARK(compress_against_the_tool)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(10);

using Handle = std::unique_ptr<std::FILE, int (*)(std::FILE *)>;

/// Only the library's stream, with the parameters of file_compress.
int compress_bare(const char *from, const char *to) {
    const Handle in(std::fopen(from, "re"), std::fclose);
    const Handle out(std::fopen(to, "we"), std::fclose);
    std::array<char, 65536> bytes; // NOLINT(cppcoreguidelines-pro-type-member-init): filled below
    int error = BZ_OK;
    BZFILE *stream = BZ2_bzWriteOpen(&error, out.get(), 1, 0, 30);
    while (error == BZ_OK) {
        const std::size_t count = std::fread(bytes.data(), 1, bytes.size(), in.get());
        if (count == 0) {
            break;
        }
        BZ2_bzWrite(&error, stream, bytes.data(), static_cast<int>(count));
    }
    BZ2_bzWriteClose(&error, stream, 0, nullptr, nullptr);
    return error;
}

double processor_nanoseconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return 1e9 * static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec);
}

void compare_with_the_library() {
    std::string folder = "/tmp/vigmond-bench-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) {
        return;
    }
    const std::string log = folder + "/log";
    const std::string compressed = folder + "/log.bz2";
    write_log(log);
    std::array<double, 2> least{1e18, 1e18};
    const std::array compressions{&file_compress, &compress_bare};
    for (int run = 0; run < 6; ++run) {
        for (std::size_t i = 0; i < compressions.size(); ++i) {
            const double before = processor_nanoseconds();
            compressions[i](log.c_str(), compressed.c_str());
            least[i] = std::min(least[i], processor_nanoseconds() - before);
        }
    }
    std::printf("file_compress over the library, processor time, fastest of each: %.0f ns / %.0f ns = %.3f\n", least[0],
                least[1], least[0] / least[1]);
    std::printf("heap of file_compress: %zu bytes\n", heap_needed(log.c_str(), compressed.c_str()));
    std::filesystem::remove_all(folder);
}

} // namespace

int main(int argc, char **argv) {
    if (argc == 4 && std::strcmp(argv[1], "--compress") == 0) {
        return file_compress(argv[2], argv[3]) == 0 ? 0 : 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    compare_with_the_library();
    return 0;
}
