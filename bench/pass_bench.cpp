// One whole pass over all built-in tasks, everything due, against a bare program that makes the same
// calls of the system: the journal datagrams, the files read, the file systems asked, the records
// written. What those calls are is noted while one pass runs.

#include "gdata.h"
#include "handle.h"
#include "journal_sink.h"
#include "logfile.h"
#include "ratio.h"
#include "scheduler.h"
#include "tasks.h"

#include <benchmark/benchmark.h>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/uio.h>
#include <systemd/sd-journal.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::int64_t HOUR = 3600; // the longest interval: after it all tasks are due

struct Datagram {
    int priority;
    std::string file, line, function, text;
};

struct Calls {
    std::vector<Datagram> datagrams;
    std::vector<std::string> opened, statted, asked, written;
};

bool noting = false;

Calls &noted() {
    static Calls calls;
    return calls;
}

template <typename Function> Function *next_in_line(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

// In front of the libraries' own; on 64-bit targets the headers lead these calls to the 64-bit names.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the headers' are reserved
extern "C" {

int sd_journal_print_with_location(int priority, const char *file, const char *line, const char *function,
                                   const char *format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    if (noting) {
        std::va_list copy;
        va_copy(copy, arguments);
        noted().datagrams.push_back({priority, file, line, function, va_arg(copy, const char *)});
        va_end(copy);
    }
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const int result = sd_journal_printv_with_location(priority, file, line, function, format, arguments);
#pragma GCC diagnostic pop
    va_end(arguments);
    return result;
}

std::FILE *fopen(const char *path, const char *mode) {
    if (noting) {
        noted().opened.emplace_back(path);
    }
    static auto *const next = next_in_line<std::FILE *(const char *, const char *)>("fopen64");
    return next(path, mode);
}

int stat(const char *path, struct stat *status) noexcept {
    if (noting) {
        noted().statted.emplace_back(path);
    }
    static auto *const next = next_in_line<int(const char *, struct stat *)>("stat64");
    return next(path, status);
}

int statvfs(const char *path, struct statvfs *system) noexcept {
    if (noting) {
        noted().asked.emplace_back(path);
    }
    static auto *const next = next_in_line<int(const char *, struct statvfs *)>("statvfs64");
    return next(path, system);
}

ssize_t writev(int fd, const iovec *pieces, int count) {
    if (noting) {
        std::string record;
        for (int i = 0; i < count; ++i) {
            record.append(static_cast<const char *>(pieces[i].iov_base), pieces[i].iov_len);
        }
        noted().written.push_back(record);
    }
    static auto *const next = next_in_line<ssize_t(int, const iovec *, int)>("writev");
    return next(fd, pieces, count);
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

namespace {

std::int64_t next_pass_time() {
    static std::int64_t now = 1700049600;
    return now += HOUR;
}

/// The daemon's state after start-up and some passes, without bus threads and syslog. The services
/// stay out, since their start waits for systemd, and no load starts a load logger here.
void start_daemon(const std::string &folder) {
    gdata_set_tasks(builtin_tasks());
    gdata_set_logfile((folder + "/logfile").c_str());
    gdata_set_logsize(LOGSIZE_MAX);
    logfile_init();
    for (Task *task = gdata_get_task_head(); task != nullptr; task = task->next) {
        const std::string_view source = task->source;
        if (source != "service") {
            task->init(task);
        }
        if (source == "load") {
            task->maxwarn = task->maxfail = 101;
        }
    }
    constexpr int longest_delay = 10;
    for (int i = 0; i < 2 * longest_delay; ++i) {
        scheduler_pass(next_pass_time());
    }
}

void note_one_pass() {
    noting = true;
    scheduler_pass(next_pass_time());
    noting = false;
    const Calls &calls = noted();
    std::printf("one pass: %zu journal datagrams, %zu files opened, %zu stat, %zu statvfs, %zu records\n",
                calls.datagrams.size(), calls.opened.size(), calls.statted.size(), calls.asked.size(),
                calls.written.size());
}

/// Most are read to their end; of /proc/stat the first line only.
void read_lines(const char *path) {
    const FileHandle file(std::fopen(path, "re"));
    char line[1024];
    while (file && std::fgets(line, sizeof line, file.get()) != nullptr && std::strcmp(path, "/proc/stat") != 0) {
    }
}

void repeat(const Calls &calls, int log) {
    for (const Datagram &each : calls.datagrams) {
        sd_journal_print_with_location(each.priority, each.file.c_str(), each.line.c_str(), each.function.c_str(),
                                       "%s\n", each.text.c_str());
    }
    for (const std::string &path : calls.opened) {
        read_lines(path.c_str());
    }
    struct stat status {};
    for (const std::string &path : calls.statted) {
        benchmark::DoNotOptimize(stat(path.c_str(), &status));
    }
    struct statvfs system {};
    for (const std::string &path : calls.asked) {
        benchmark::DoNotOptimize(statvfs(path.c_str(), &system));
    }
    for (const std::string &record : calls.written) {
        std::string copy = record;
        const iovec piece{.iov_base = copy.data(), .iov_len = copy.size()};
        benchmark::DoNotOptimize(writev(log, &piece, 1));
        benchmark::DoNotOptimize(lseek(log, 0, SEEK_END)); // its size tells whether it is full
    }
}

void whole_pass(benchmark::State &bench) {
    while (bench.KeepRunning()) {
        scheduler_pass(next_pass_time());
    }
}
BENCHMARK(whole_pass)->Unit(benchmark::kMicrosecond);

void bare_calls(benchmark::State &bench) {
    const Descriptor log(open(gdata_get_logfile(), O_WRONLY | O_APPEND | O_CLOEXEC));
    while (bench.KeepRunning()) {
        repeat(noted(), log.get());
    }
}
BENCHMARK(bare_calls)->Unit(benchmark::kMicrosecond);

} // namespace

int main(int argc, char **argv) {
    start_journal_sink();
    std::string folder = "/tmp/vigmond-bench-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr) {
        std::perror("no scratch folder");
        return 1;
    }
    start_daemon(folder);
    note_one_pass();
    const int status = run_and_print_ratio(argc, argv, "whole_pass", "bare_calls");
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
    return status;
}
