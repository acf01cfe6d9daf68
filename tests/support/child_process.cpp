#include "child_process.h"

#include <array>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr std::chrono::seconds PATIENCE{60};
constexpr int NOT_STARTED = 127; ///< exit status, as in a shell

struct Pipe {
    Descriptor read_end;
    Descriptor write_end;
};

Pipe make_pipe() {
    std::array<int, 2> ends{-1, -1};
    EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    return {Descriptor(ends[0]), Descriptor(ends[1])};
}

std::vector<char *> pointers(std::vector<std::string> &texts) {
    std::vector<char *> list;
    list.reserve(texts.size() + 1);
    for (std::string &text : texts) {
        list.push_back(text.data());
    }
    list.push_back(nullptr);
    return list;
}

/// `additions`, which take precedence, then the test's own environment.
std::vector<std::string> environment_with(std::vector<std::string> additions) {
    const std::size_t added = additions.size();
    for (char **entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const std::string name = text.substr(0, text.find('=') + 1);
        bool replaced = false;
        for (std::size_t i = 0; i < added; ++i) {
            replaced = replaced || additions[i].starts_with(name);
        }
        if (!replaced) {
            additions.push_back(text);
        }
    }
    return additions;
}

} // namespace

LineReader::LineReader(Descriptor stream) : stream_(std::move(stream)), reader_(&LineReader::read, this) {}

LineReader::~LineReader() { reader_.join(); }

void LineReader::read() {
    std::string pending;
    std::array<char, 4096> chunk{};
    ssize_t size = 0;
    while ((size = ::read(stream_.get(), chunk.data(), chunk.size())) > 0) {
        pending.append(chunk.data(), static_cast<std::size_t>(size));
        const std::lock_guard<std::mutex> hold(lock_);
        for (std::size_t end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
            lines_.push_back(pending.substr(0, end));
            pending.erase(0, end + 1);
        }
        changed_.notify_all();
    }
    const std::lock_guard<std::mutex> hold(lock_);
    ended_ = true;
    changed_.notify_all();
}

std::optional<std::size_t> LineReader::wait_for(const std::string &text, std::size_t from) {
    std::unique_lock<std::mutex> hold(lock_);
    while (true) {
        for (; from < lines_.size(); ++from) {
            if (lines_[from].find(text) != std::string::npos) {
                return from;
            }
        }
        if (ended_ ||
            changed_.wait_until(hold, std::chrono::system_clock::now() + PATIENCE) == std::cv_status::timeout) {
            return std::nullopt;
        }
    }
}

std::string LineReader::line(std::size_t number) {
    const std::lock_guard<std::mutex> hold(lock_);
    return lines_.at(number);
}

std::vector<std::string> LineReader::lines() {
    const std::lock_guard<std::mutex> hold(lock_);
    return lines_;
}

ChildProcess::ChildProcess(const std::vector<std::string> &command, const std::vector<std::string> &environment) {
    Pipe in = make_pipe();
    Pipe out = make_pipe();
    Pipe err = make_pipe();
    std::vector<std::string> arguments = command;
    std::vector<std::string> variables = environment_with(environment);
    const std::vector<char *> argv = pointers(arguments);
    const std::vector<char *> envp = pointers(variables);
    pid_ = fork(); // NOLINT(cppcoreguidelines-prefer-member-initializer): after the pipes are made
    if (pid_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // also if the test is killed
        dup2(in.read_end.get(), STDIN_FILENO);
        dup2(out.write_end.get(), STDOUT_FILENO);
        dup2(err.write_end.get(), STDERR_FILENO);
        execvpe(argv.front(), argv.data(), envp.data());
        _exit(NOT_STARTED);
    }
    EXPECT_GT(pid_, 0) << "cannot start " << command.front();
    out.write_end.reset();
    err.write_end.reset();
    input_ = std::move(in.write_end);
    output_.emplace(std::move(out.read_end));
    errors_.emplace(std::move(err.read_end));
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        wait();
    }
}

void ChildProcess::write(const std::string &text) const {
    EXPECT_EQ(::write(input_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

void ChildProcess::kill(int signo) const {
    if (pid_ > 0) {
        ::kill(pid_, signo);
    }
}

int ChildProcess::wait() {
    int status = 0;
    if (pid_ <= 0 || waitpid(std::exchange(pid_, -1), &status, 0) < 0) {
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

CommandResult run_command(const std::vector<std::string> &command) {
    ChildProcess child(command);
    const int status = child.wait();
    child.output().wait_for("\n"); // never matches: waits for the end of the stream
    return {status, child.output().lines()};
}
