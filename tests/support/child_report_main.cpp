// Replaces the load logger: writes how it was started to the file "report" in the folder given after "-d". If that
// folder has a pipe "alive", it then writes a line with its process id into it and runs, with the pipe open, until it
// is killed. A file "stubborn" there makes it ignore SIGTERM; a file "family" makes it start a child that does the
// same.

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

std::string folder_of(const std::vector<std::string> &arguments) {
    for (std::size_t i = 0; i + 1 < arguments.size(); ++i) {
        if (arguments[i] == "-d") {
            return arguments[i + 1];
        }
    }
    return ".";
}

std::vector<std::string> open_descriptors() {
    std::vector<std::string> found;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        const auto target = std::filesystem::read_symlink(entry.path(), error);
        if (!error && !target.string().ends_with("/fd")) { // except the one that lists them
            found.push_back(entry.path().filename());
        }
    }
    return found;
}

void write_report(std::ostream &report, const std::vector<std::string> &arguments) {
    for (const std::string &argument : arguments) {
        report << "argument " << argument << '\n';
    }
    for (char **entry = environ; *entry != nullptr; ++entry) {
        report << "environment " << *entry << '\n';
    }
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("Cap") || line.starts_with("SigBlk:") || line.starts_with("SigIgn:")) {
            report << line << '\n';
        }
    }
    report << "leads its group " << (getpgrp() == getpid()) << '\n';
    report << "leads its session " << (getsid(0) == getpid()) << '\n';
}

bool has(const std::string &folder, const char *name) { return access((folder + "/" + name).c_str(), F_OK) == 0; }

[[noreturn]] void live(const std::string &folder) {
    if (has(folder, "stubborn")) {
        signal(SIGTERM, SIG_IGN);
    }
    signal(SIGPIPE, SIG_IGN); // the reader may have closed by then
    if (has(folder, "family")) {
        fork();
    }
    std::ofstream alive(folder + "/alive");
    alive << getpid() << std::endl;
    while (true) {
        pause();
    }
}

} // namespace

int main(int count, char **values) {
    const std::vector<std::string> descriptors = open_descriptors(); // before the report is opened
    const std::vector<std::string> arguments(values, values + count);
    const std::string folder = folder_of(arguments);
    {
        std::ofstream report(folder + "/report");
        write_report(report, arguments);
        for (const std::string &descriptor : descriptors) {
            report << "descriptor " << descriptor << '\n';
        }
    }
    if (has(folder, "alive")) {
        live(folder);
    }
    return 0;
}
