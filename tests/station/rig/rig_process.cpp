#include "rig_process.h"

#include "rig_failure.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace {

struct Pipe {
    Descriptor reader;
    Descriptor writer;
};

Pipe make_pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        rig_failure_of("pipe");
    }
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    return {.reader = Descriptor(ends[0]), .writer = Descriptor(ends[1])};
}

StationPage *map_page(const Descriptor &fd) {
    if (!fd || ftruncate(fd.get(), STATION_PAGE_SIZE) != 0) {
        rig_failure_of("page");
    }
    void *memory = mmap(nullptr, STATION_PAGE_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (memory == MAP_FAILED) {
        rig_failure_of("page");
    }
    return new (memory) StationPage{};
}

/// Passes the content of the pipe to `sink` in pieces.
template <class Sink> void drain_pipe(const Descriptor &pipe, Sink sink) {
    static std::array<char, 65536> buffer{};
    for (;;) {
        const ssize_t size = read(pipe.get(), buffer.data(), buffer.size());
        if (size <= 0) {
            return;
        }
        sink(std::string_view(buffer.data(), static_cast<std::size_t>(size)));
    }
}

std::vector<char *> pointers_to(std::vector<std::string> &texts) {
    std::vector<char *> pointers;
    std::transform(texts.begin(), texts.end(), std::back_inserter(pointers),
                   [](std::string &text) { return text.data(); });
    pointers.push_back(nullptr);
    return pointers;
}

std::string preloads_of(const Launch &launch) {
    const std::string faults = launch.fault.call == StationCall::none ? "" : std::string(STATION_FAULTS) + ":";
    return faults + STATION_PRELOAD;
}

std::vector<std::string> environment_of(const Launch &launch, int page_fd) {
    std::vector<std::string> environment{
        "PATH=/usr/sbin:/usr/bin:/sbin:/bin",
        "LD_PRELOAD=" + preloads_of(launch),
        std::string(STATION_PAGE_VARIABLE) + "=" + std::to_string(page_fd),
        // A sanitizer's report must not end with the status of a termination.
        "ASAN_OPTIONS=verify_asan_link_order=0:exitcode=" + std::to_string(SANITIZER_STATUS),
        "UBSAN_OPTIONS=print_stacktrace=1:exitcode=" + std::to_string(SANITIZER_STATUS),
    };
    environment.insert(environment.end(), launch.environment.begin(), launch.environment.end());
    return environment;
}

} // namespace

void UnmapPage::operator()(StationPage *page) const { munmap(page, STATION_PAGE_SIZE); }

RigProcess::RigProcess(const Launch &launch, const Sandbox &sandbox, const Board &board)
    : page_fd_(memfd_create("station", 0)), page_(map_page(page_fd_)), wake_(eventfd(0, EFD_NONBLOCK)) {
    board.fill(page_.get());
    page_->wake_fd = wake_.get();
    page_->fault = launch.fault;
    page_->uses_disk = launch.uses_disk;
    Pipe out = make_pipe();
    Pipe err = make_pipe();
    pid_ = fork(); // NOLINT(cppcoreguidelines-prefer-member-initializer): after the page is filled
    if (pid_ == 0) {
        become(launch, sandbox, out.writer.get(), err.writer.get());
    }
    pidfd_.reset(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
    if (pid_ < 0 || !wake_ || !pidfd_) {
        rig_failure_of("start " + launch.program);
    }
    out_pipe_ = std::move(out.reader);
    err_pipe_ = std::move(err.reader);
    fcntl(wake_.get(), F_SETFD, FD_CLOEXEC); // not inherited by the next process
    fcntl(page_fd_.get(), F_SETFD, FD_CLOEXEC);
}

void RigProcess::become(const Launch &launch, const Sandbox &sandbox, int out, int err) const {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(err, STDERR_FILENO);
    dup2(out, STDOUT_FILENO);
    enter_sandbox(sandbox);
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    dup2(null, STDIN_FILENO);
    umask(launch.umask);
    rlimit file_size{};
    getrlimit(RLIMIT_FSIZE, &file_size);
    file_size.rlim_cur = std::min(launch.file_size, file_size.rlim_max);
    setrlimit(RLIMIT_FSIZE, &file_size);
    std::vector<std::string> arguments{launch.argv0};
    arguments.insert(arguments.end(), launch.arguments.begin(), launch.arguments.end());
    std::vector<std::string> environment = environment_of(launch, page_fd_.get());
    execve(launch.program.c_str(), pointers_to(arguments).data(), pointers_to(environment).data());
    rig_failure_of("exec " + launch.program);
}

RigProcess::~RigProcess() {
    if (!status_) {
        send(SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

void RigProcess::send(int signo) const {
    if (kill(pid_, signo) != 0) {
        rig_failure_of("kill");
    }
}

std::vector<int> RigProcess::descriptors() const {
    if (status_) {
        return {};
    }
    return {wake_.get(), out_pipe_.get(), err_pipe_.get(), pidfd_.get()};
}

void RigProcess::reap() {
    int status = 0;
    if (!status_ && waitpid(pid_, &status, WNOHANG) == pid_) {
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }
}

void RigProcess::drain() {
    reap(); // first: after its end all its output is in the pipes
    std::uint64_t wakes = 0;
    while (read(wake_.get(), &wakes, sizeof wakes) > 0) {
    }
    drain_pipe(out_pipe_, [this](std::string_view bytes) { out_ += bytes; });
    drain_pipe(err_pipe_, [this](std::string_view bytes) { err_.append(bytes); });
}
