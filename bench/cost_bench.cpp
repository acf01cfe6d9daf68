// The cost of the whole process, measured from outside: the daemon compared with the baseline, and with installed
// programs of its kind, at one heartbeat per second with all tasks due.
//     cost_bench [start|instructions|calls|memory|cycles]

#include "counts.h"
#include "programs.h"
#include "watched_programs.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

/// The main thread's calls per heartbeat: the difference of a longer and a shorter run.
CallCounts system_calls_of(const std::function<Command(int heartbeats)> &command, const std::string &report) {
    constexpr int few = 20;
    constexpr int more = 50;
    const auto calls_of = [&](int heartbeats) {
        std::filesystem::remove(report);
        Command words{"strace", "-q", "-D", "-c", "-o", report}; // the started process becomes the program
        for (const std::string &word : command(heartbeats)) {
            words.push_back(word);
        }
        waitpid(start(words), nullptr, 0);
        for (int patience = 100; counts_of(report)["total"] == 0 && patience > 0; --patience) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10)); // strace ends after the program
        }
        return counts_of(report);
    };
    CallCounts counts = calls_of(more);
    CallCounts fewer = calls_of(few);
    for (auto &[name, calls] : counts) {
        calls = (calls - fewer[name]) / (more - few);
    }
    return counts;
}

/// The processor times of programs that end by themselves: the minimum of several alternating runs.
std::vector<double> least_microseconds(const std::vector<Command> &commands) {
    constexpr int runs = 25;
    std::vector<double> least(commands.size(), 1e12);
    for (int run = 0; run < runs; ++run) {
        for (std::size_t i = 0; i < commands.size(); ++i) {
            rusage usage{};
            wait4(start(commands[i]), nullptr, 0, &usage);
            const timeval &user = usage.ru_utime;
            const timeval &system = usage.ru_stime;
            const double time = 1e6 * static_cast<double>(user.tv_sec + system.tv_sec) +
                                static_cast<double>(user.tv_usec + system.tv_usec);
            least[i] = std::min(least[i], time);
        }
    }
    return least;
}

bool is_installed(const char *program) {
    const std::string path = std::string("/usr/bin/") + program;
    const std::string admins = std::string("/usr/sbin/") + program;
    return access(path.c_str(), X_OK) == 0 || access(admins.c_str(), X_OK) == 0;
}

/// Writes a peer's configuration, which names the scratch folder, into that folder; returns its path.
std::string configuration(const BenchBoard &board, const std::string &name) {
    std::ifstream file(std::string(PEERS_FOLDER "/") + name);
    std::string text{std::istreambuf_iterator<char>(file), {}};
    const std::string word = "SCRATCH";
    for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word, at)) {
        text.replace(at, word.size(), board.scratch().path());
    }
    std::string path = board.scratch().write(name, text);
    std::filesystem::permissions(path, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    return path;
}

void print_pair(const char *name, const Cycle &daemon, const Cycle &other, double processor_goal) {
    const auto row = [name](const char *what, double figure, double against, double goal) {
        print_row((std::string(what) + " over " + name).c_str(), figure, against, goal);
    };
    row("CPU us a cycle", daemon.microseconds, other.microseconds, processor_goal);
    row("system calls a cycle", daemon.calls, other.calls, 1.0);
    row("CPU us of the first 2 s", daemon.start_microseconds, other.start_microseconds, 1.0);
}

void compare_cycles(const BenchBoard &board, const Baseline &baseline) {
    constexpr int for_ever = 100000;
    std::vector<Subject> subjects{{"daemon", daemon_command(board, 1000, for_ever)},
                                  {"baseline", baseline.command(1000, for_ever)}};
    if (is_installed("monit")) {
        subjects.push_back({"monit", {"monit", "-I", "-c", configuration(board, "monitrc")}});
    }
    if (is_installed("collectd")) {
        subjects.push_back({"collectd", {"collectd", "-f", "-C", configuration(board, "collectd.conf")}});
    }
    watch(&subjects, board.scratch().path());
    const Cycle &daemon = subjects[0].cycle;
    const Cycle &base = subjects[1].cycle;
    print_row("CPU us a cycle over the baseline, with other programs", daemon.microseconds, base.microseconds, 1.10);
    print_row("context switches a cycle, over 10", daemon.waits + daemon.preemptions, 10, 1.0);
    for (std::size_t i = 2; i < subjects.size(); ++i) {
        const Cycle &peer = subjects[i].cycle;
        const bool is_monit = subjects[i].name == std::string("monit");
        print_pair(subjects[i].name, daemon, peer, is_monit ? 0.5 : 0.6);
        const std::string over = std::string(" over ") + subjects[i].name;
        print_row(("private dirty KiB" + over).c_str(), daemon.memory.dirty, peer.memory.dirty, is_monit ? 0.3 : 0.5);
        if (is_monit) { // the other one's work is in plugins
            print_row(("resident KiB" + over).c_str(), daemon.memory.resident, peer.memory.resident, 0.5);
        }
        print_row(("proportional KiB" + over).c_str(), daemon.memory.proportional, peer.memory.proportional, 1.0);
    }
}

struct ListedCalls {
    const char *name;
    double most;
};

// The list in docs/performance.md, without the calls of the wait for a heartbeat. Each line adds a sendmsg.
constexpr double QUESTIONS = 8;
constexpr std::array LISTED_CALLS{ListedCalls{"sendmsg", QUESTIONS},  ListedCalls{"recvmsg", 3 * QUESTIONS},
                                  ListedCalls{"ppoll", QUESTIONS},    ListedCalls{"openat", 13},
                                  ListedCalls{"close", 13},           ListedCalls{"newfstatat", 10 + 8 + 1},
                                  ListedCalls{"read", 2 * 10},        ListedCalls{"ioctl", 1 + QUESTIONS},
                                  ListedCalls{"capget", 2},           ListedCalls{"capset", 2},
                                  ListedCalls{"statfs", 8},           ListedCalls{"access", 1},
                                  ListedCalls{"writev", 23},          ListedCalls{"lseek", 23},
                                  ListedCalls{"rt_sigtimedwait", 31}, ListedCalls{"rt_sigprocmask", 2}};

double most_of(const std::string &name, std::size_t lines) {
    const auto *row = std::find_if(LISTED_CALLS.begin(), LISTED_CALLS.end(),
                                   [&](const ListedCalls &each) { return each.name == name; });
    return row == LISTED_CALLS.end() ? 0 : row->most + (name == "sendmsg" ? static_cast<double>(lines) : 0);
}

void compare_system_calls(const BenchBoard &board, const Baseline &baseline) {
    CallCounts counts =
        system_calls_of([&](int count) { return daemon_command(board, 0, count); }, board.scratch() / "strace");
    const double total = counts["total"];
    auto most = static_cast<double>(baseline.lines_of_pass());
    for (const ListedCalls &each : LISTED_CALLS) {
        most += each.most;
    }
    print_row("system calls of a pass over the list's", total, most, 1.0);
    counts.erase("total");
    for (const auto &[name, calls] : counts) {
        if (calls > most_of(name, baseline.lines_of_pass()) + 0.5) { // one-time calls are spread over all heartbeats
            print_row(("of them " + name).c_str(), calls, most_of(name, baseline.lines_of_pass()), 1.0);
        }
    }
}

void compare_instructions(const BenchBoard &board, const Baseline &baseline) {
    constexpr int settled = 12;
    constexpr int more = 20;
    const std::string report = board.scratch() / "callgrind";
    const auto daemon = [&](int count) { return instructions_of(daemon_command(board, 0, count), report); };
    const auto base = [&](int count) { return instructions_of(baseline.command(0, count), report); };
    print_row("instructions of a pass over the baseline", (daemon(settled + more) - daemon(settled)) / more,
              (base(settled + more) - base(settled)) / more, 1.22);
    print_row("instructions from exec to the end of the first pass", daemon(1), base(1), 1.4);
}

void compare_start(const BenchBoard &board, const Baseline &baseline) {
    const std::vector<double> least = least_microseconds({daemon_command(board, 0, 1), baseline.command(0, 1)});
    print_row("CPU us from exec to the end of the first pass", least[0], least[1], 1.2);
}

void compare_memory(const BenchBoard &board, const Baseline &baseline) {
    const auto held = [](const Command &command) { return memory_of(HeldProgram(command).pid()); };
    const Memory early = held(daemon_command(board, 0, 100));
    const Memory late = held(daemon_command(board, 0, 1000));
    const Memory base = held(baseline.command(0, 1000));
    print_row("private dirty KiB after 1,000 heartbeats over after 100", late.dirty, early.dirty, 1.05);
    print_row("private dirty KiB after 1,000 heartbeats over baseline", late.dirty, base.dirty, 1.5);
    print_row("resident KiB after 1,000 heartbeats over the baseline", late.resident, base.resident, 1.5);
    print_row("proportional KiB after 1,000 heartbeats over baseline", late.proportional, base.proportional, 1.5);
}

struct Stage {
    const char *name;
    void (*run)(const BenchBoard &board, const Baseline &baseline);
};

constexpr std::array STAGES{Stage{"start", compare_start}, Stage{"instructions", compare_instructions},
                            Stage{"calls", compare_system_calls}, Stage{"memory", compare_memory},
                            Stage{"cycles", compare_cycles}};

} // namespace

int main(int argc, char *argv[]) {
    const BenchBoard board;
    const Baseline baseline(board);
    for (const Stage &stage : STAGES) {
        if (argc < 2 || std::strcmp(argv[1], stage.name) == 0) {
            stage.run(board, baseline);
        }
    }
    return 0;
}
