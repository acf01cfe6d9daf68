#include "programs.h"

#include "line_tape.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// The daemon's trace lines of some heartbeats.
std::vector<std::string> daemon_lines(const BenchBoard &board) {
    constexpr int heartbeats = 14;
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        std::abort();
    }
    Command command = daemon_command(board, 0, heartbeats);
    command.emplace_back("trace");
    const pid_t pid = start(command, ends[1]);
    close(ends[1]);
    std::vector<std::string> lines = lines_of("/proc/self/fd/" + std::to_string(ends[0]));
    close(ends[0]);
    waitpid(pid, nullptr, 0);
    return lines;
}

} // namespace

Baseline::Baseline(const BenchBoard &board) : board_(board) {
    const LineTapes tapes = tapes_of(daemon_lines(board));
    lines_of_pass_ = tapes.lines_of_pass;
    start_ = board.scratch().write("start.tape", tapes.start);
    pass_ = board.scratch().write("pass.tape", tapes.pass);
}

Command Baseline::command(int period_ms, int heartbeats, const std::string &folder) const {
    Command command = daemon_command(board_, period_ms, heartbeats, folder);
    command[0] = folder + "/bare_daemon";
    command.insert(command.end(), {start_, pass_});
    return command;
}

Command daemon_command(const BenchBoard &board, int period_ms, int heartbeats, const std::string &folder) {
    const BoardPaths paths = board.paths();
    return {folder + "/beating_daemon", paths.logfile, paths.disk, paths.emmc, std::to_string(period_ms),
            std::to_string(heartbeats)};
}

void become(const Command &command, int out) {
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(out >= 0 ? out : nowhere, STDOUT_FILENO);
    dup2(nowhere, STDERR_FILENO);
    std::vector<char *> arguments;
    for (const std::string &word : command) {
        arguments.push_back(const_cast<char *>(word.c_str())); // NOLINT(cppcoreguidelines-pro-type-const-cast)
    }
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    _exit(127);
}

pid_t start(const Command &command, int out) {
    const pid_t pid = fork();
    if (pid == 0) {
        share_board_network();
        become(command, out);
    }
    return pid;
}

HeldProgram::HeldProgram(Command command) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        std::abort();
    }
    command.emplace_back("hold");
    pid_ = start(command, ends[1]);
    close(ends[1]);
    char byte = 0;
    while (byte != '\n' && read(ends[0], &byte, 1) == 1) {
    }
    close(ends[0]);
}

HeldProgram::~HeldProgram() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
}

std::vector<std::string> lines_of(const std::string &path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

void print_row(const char *what, double figure, double against, double goal) {
    if (against <= 0) {
        std::printf("| %-58s | %10.1f | %10s | %6s | %6s |\n", what, figure, "-", "-", "-");
        return;
    }
    const double ratio = figure / against;
    std::printf("| %-58s | %10.1f | %10.1f | %6.2f | %6.2f | %s\n", what, figure, against, ratio, goal,
                ratio <= goal ? "" : "missed");
}
