// The cost of the 32-bit ARM build, measured in an emulator: the instructions of a pass with all tasks due and the
// private memory, compared with the baseline.

#include "handle.h"
#include "programs.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

namespace {

Command emulated(const Command &options, const Command &program) {
    Command command{"qemu-arm-static", "-L", ARMHF_SYSROOT};
    command.insert(command.end(), options.begin(), options.end());
    command.insert(command.end(), program.begin(), program.end());
    return command;
}

/// The number of lines that begin with `start`.
double count_lines(int fd, std::string_view start) {
    const FileHandle file(fdopen(fd, "r"));
    std::array<char, 256> line{};
    double count = 0;
    while (std::fgets(line.data(), line.size(), file.get()) != nullptr) {
        count += start == std::string_view(line.data(), start.size()) ? 1 : 0;
    }
    return count;
}

/// The instructions of the main thread of a program that ends by itself. The emulator writes a line for each.
double instructions_of(const Command &program) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        std::abort();
    }
    const pid_t pid = start(emulated({"-singlestep", "-d", "exec,nochain", "-D", "/proc/self/fd/1"}, program), ends[1]);
    close(ends[1]);
    const double lines = count_lines(ends[0], "Trace 0: ");
    waitpid(pid, nullptr, 0);
    return lines;
}

using MakeCommand = std::function<Command(int heartbeats)>;

/// The instructions of a heartbeat after `heartbeats` others. Takes the minimum of several runs, because extra
/// instructions of one run would distort the difference.
double instructions_of_pass(const MakeCommand &command, int heartbeats) {
    constexpr int more = 2;
    constexpr int runs = 2; // each takes minutes
    const auto least = [&command](int count) {
        double instructions = instructions_of(command(count));
        for (int run = 1; run < runs; ++run) {
            instructions = std::min(instructions, instructions_of(command(count)));
        }
        return instructions;
    };
    return (least(heartbeats + more) - least(heartbeats)) / more;
}

/// Whether a line of smaps starts a mapping below 4 GiB, where all mappings of the emulated program are; the
/// emulator's own are above. For any other line: `before`.
bool is_of_guest(const std::string &line, bool before) {
    char *end = nullptr;
    const std::uint64_t start = std::strtoull(line.c_str(), &end, 16);
    return *end == '-' ? start >> 32U == 0 : before;
}

/// The private dirty KiB of an emulated program after `heartbeats`.
double dirty_kib(const MakeCommand &command, int heartbeats) {
    constexpr std::string_view name = "Private_Dirty:";
    const HeldProgram program(emulated({}, command(heartbeats)));
    double sum = 0;
    bool counts = false;
    for (const std::string &line : lines_of("/proc/" + std::to_string(program.pid()) + "/smaps")) {
        counts = is_of_guest(line, counts);
        sum += counts && line.starts_with(name) ? std::strtod(line.c_str() + name.size(), nullptr) : 0;
    }
    return sum;
}

} // namespace

int main() {
    const BenchBoard board;
    const Baseline baseline(board);
    const MakeCommand daemon = [&](int count) { return daemon_command(board, 0, count, ARMHF_COST_FOLDER); };
    const MakeCommand base = [&](int count) { return baseline.command(0, count, ARMHF_COST_FOLDER); };
    constexpr int longest_delay = 10;
    print_row("armhf: instructions of a pass over the baseline", instructions_of_pass(daemon, longest_delay + 1),
              instructions_of_pass(base, 1), 1.22);
    constexpr int many = 1000;
    const double dirty = dirty_kib(daemon, many);
    print_row("armhf: private dirty KiB after 1,000 heartbeats over 100", dirty, dirty_kib(daemon, many / 10), 1.05);
    print_row("armhf: private dirty KiB after 1,000 over the baseline", dirty, dirty_kib(base, many), 1.5);
    return 0;
}
