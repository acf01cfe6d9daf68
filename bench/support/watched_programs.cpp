#include "watched_programs.h"

#include "counts.h"
#include "handle.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

void sleep_for(int milliseconds) { std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds)); }

/// Mounts a /proc of our pid namespace, with the network tables of the process `board`.
void mount_own_proc(pid_t board) {
    if (unshare(CLONE_NEWNS) != 0) {
        _exit(127);
    }
    const Descriptor network(open(("/proc/" + std::to_string(board) + "/net").c_str(), O_PATH | O_CLOEXEC));
    const std::string source = "/proc/self/fd/" + std::to_string(network.get());
    if (mount("proc", "/proc", "proc", 0, nullptr) != 0 ||
        mount(source.c_str(), "/proc/self/net", nullptr, MS_BIND, nullptr) != 0) {
        _exit(127);
    }
}

/// Starts as many processes as run on a small board, including kernel threads.
void start_population() {
    constexpr int population = 80;
    if (fork() != 0) { // in another process, so that the program does not pay for it
        return;
    }
    for (int i = 2; i < population && fork() != 0; ++i) {
    }
    while (true) {
        pause();
    }
}

/// The sum over all threads of the numbers that follow `name` at the start of a line of `file`.
double sum_of_threads(pid_t pid, const std::string &file, const std::string &name) {
    double sum = 0;
    std::error_code ignored;
    for (const auto &task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", ignored)) {
        for (const std::string &line : lines_of(task.path() / file)) {
            sum += line.starts_with(name) ? std::strtod(line.c_str() + name.size(), nullptr) : 0;
        }
    }
    return sum;
}

double microseconds_of(pid_t pid) { return sum_of_threads(pid, "schedstat", "") / 1000; }

double waits_of(pid_t pid) { return sum_of_threads(pid, "status", "voluntary_ctxt_switches:"); }

double preemptions_of(pid_t pid) { return sum_of_threads(pid, "status", "nonvoluntary_ctxt_switches:"); }

double kib_of(pid_t pid, const std::string &name) {
    for (const std::string &line : lines_of("/proc/" + std::to_string(pid) + "/smaps_rollup")) {
        if (line.starts_with(name + ":")) {
            return std::strtod(line.c_str() + name.size() + 1, nullptr);
        }
    }
    return 0;
}

/// The system calls of all threads within some seconds.
double system_calls_within(pid_t pid, const std::string &report, int seconds) {
    const pid_t strace = start({"strace", "-q", "-f", "-c", "-o", report, "-p", std::to_string(pid)});
    sleep_for(seconds * 1000);
    kill(strace, SIGINT);
    waitpid(strace, nullptr, 0);
    return counts_of(report)["total"];
}

ApartProgram start_apart(const Command &command) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        std::abort();
    }
    const pid_t board = getpid();
    const pid_t guard = fork();
    if (guard == 0) {
        if (unshare(CLONE_NEWPID) != 0) {
            _exit(127);
        }
        const pid_t pid = fork();
        if (pid == 0) {
            mount_own_proc(board);
            start_population();
            become(command);
        }
        static_cast<void>(write(ends[1], &pid, sizeof pid) == sizeof pid);
        waitpid(pid, nullptr, 0);
        _exit(0);
    }
    ApartProgram program{.guard = guard, .pid = -1};
    static_cast<void>(read(ends[0], &program.pid, sizeof program.pid) == sizeof program.pid);
    close(ends[0]);
    close(ends[1]);
    return program;
}

/// Starts all programs 250 ms apart, so that their heartbeats do not coincide, and records the processor time of
/// each after its first two seconds.
void start_all(std::vector<Subject> *subjects) {
    constexpr int apart_ms = 250;
    constexpr int first_ms = 2000;
    for (Subject &each : *subjects) {
        each.program = start_apart(each.command);
        sleep_for(apart_ms);
    }
    sleep_for(first_ms - apart_ms * static_cast<int>(subjects->size()));
    for (Subject &each : *subjects) {
        each.cycle.start_microseconds = microseconds_of(each.program.pid);
        sleep_for(apart_ms);
    }
}

} // namespace

Memory memory_of(pid_t pid) {
    return {.resident = kib_of(pid, "Rss"), .proportional = kib_of(pid, "Pss"), .dirty = kib_of(pid, "Private_Dirty")};
}

void watch(std::vector<Subject> *subjects, const std::string &scratch) {
    constexpr int seconds = 30;
    constexpr int traced_seconds = 10;
    start_all(subjects);
    sleep_for(5000);
    std::vector<Cycle> before;
    for (const Subject &each : *subjects) {
        before.push_back({.microseconds = microseconds_of(each.program.pid),
                          .waits = waits_of(each.program.pid),
                          .preemptions = preemptions_of(each.program.pid)});
    }
    sleep_for(seconds * 1000);
    for (std::size_t i = 0; i < subjects->size(); ++i) {
        Subject &each = (*subjects)[i];
        each.cycle.microseconds = (microseconds_of(each.program.pid) - before[i].microseconds) / seconds;
        each.cycle.waits = (waits_of(each.program.pid) - before[i].waits) / seconds;
        each.cycle.preemptions = (preemptions_of(each.program.pid) - before[i].preemptions) / seconds;
        each.cycle.memory = memory_of(each.program.pid);
    }
    for (Subject &each : *subjects) {
        each.cycle.calls = system_calls_within(each.program.pid, scratch + "/strace", traced_seconds) / traced_seconds;
        kill(each.program.pid, SIGKILL);
        waitpid(each.program.guard, nullptr, 0);
    }
}
