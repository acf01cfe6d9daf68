// One record of the status log compared with a bare write of the same bytes to a file opened in the same way.

#include "gdata.h"
#include "handle.h"
#include "logfile.h"

#include <benchmark/benchmark.h>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>

// Drops the traces: the journal is not measured.
extern "C" int sd_journal_print_with_location(int /*priority*/, const char * /*file*/, const char * /*line*/,
                                              const char * /*function*/, const char * /*format*/, ...) {
    return 0;
}

namespace {

/// An empty temporary file, removed by the destructor.
class ScratchFile {
  public:
    ScratchFile() { Descriptor(mkostemp(name_, O_CLOEXEC)).reset(); }
    ~ScratchFile() { unlink(name_); }
    ScratchFile(const ScratchFile &) = delete;
    ScratchFile &operator=(const ScratchFile &) = delete;
    [[nodiscard]] const char *name() const { return name_; }

  private:
    char name_[32] = "/tmp/logfile-bench-XXXXXX";
};

constexpr std::size_t FULL = 8388608;

void record(benchmark::State &bench) {
    const ScratchFile file;
    logfile_state() = {};
    logfile_state().logfile_name.reset(strdup(file.name()));
    logfile_state().logsize = INT_MAX;
    Task task{};
    task.flags = TASK_VALUE_VALID;
    task.id = 5;
    task.value = 42;
    task.do_logfile = 1;
    std::size_t written = 0;
    for ([[maybe_unused]] auto _ : bench) {
        logfile_run(&task);
        if (written += 33; written >= FULL) {
            truncate(file.name(), 0) == 0 ? written = 0 : written;
        }
    }
    logfile_state() = {};
}
BENCHMARK(record);

void bare_write(benchmark::State &bench) {
    const ScratchFile file;
    constexpr std::string_view line = "2024-05-01 10:00:00\tOK\tCB05\t0\t42\n";
    const Descriptor stream(open(file.name(), O_WRONLY | O_APPEND | O_CLOEXEC));
    std::size_t written = 0;
    for ([[maybe_unused]] auto _ : bench) {
        benchmark::DoNotOptimize(write(stream.get(), line.data(), line.size()));
        if (written += line.size(); written >= FULL) {
            ftruncate(stream.get(), 0) == 0 ? written = 0 : written;
        }
    }
}
BENCHMARK(bare_write);

} // namespace

BENCHMARK_MAIN();
