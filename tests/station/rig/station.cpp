#include "station.h"

#include "from_environment.h"
#include "rig_failure.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <ratio>

namespace {

constexpr std::chrono::seconds FAIL_SAFE{30};

std::string tail_of(const std::string &text) {
    constexpr std::size_t enough = 3000;
    return text.size() <= enough ? text : "..." + text.substr(text.size() - enough);
}

} // namespace

Station::Station(Board board)
    : program(daemon_or(STATION_DAEMON)), board_(std::move(board)), folder_(board_, scratch_.path()),
      journal_socket_(folder_.host_path("/run/systemd/journal/socket"), DatagramSocket::Queue::roomy),
      syslog_socket_(folder_.host_path("/dev/log")) {}

Station::~Station() {
    if (is_running()) {
        stop();
    }
    if (daemon_ && *daemon_->status() == SANITIZER_STATUS) {
        give_up(daemon_.get(), "a sanitizer ended the daemon");
    }
}

Launch Station::launch_of(const std::vector<std::string> &arguments) const {
    return {.program = program,
            .argv0 = argv0,
            .arguments = arguments,
            .environment = environment,
            .umask = umask,
            .file_size = file_size,
            .fault = fault,
            .uses_disk = uses_disk};
}

Sandbox Station::sandbox() const {
    Sandbox result = folder_.sandbox({program, STATION_PRELOAD});
    for (const auto &[folder, path] : shown) {
        const std::string target = folder_.host_path(path);
        std::filesystem::create_directories(target);
        result.mounts.push_back({.source = folder, .target = target});
    }
    return result;
}

RigProcess &Station::daemon() const {
    if (!daemon_) {
        rig_failure("the daemon has not been started");
    }
    return *daemon_;
}

void Station::launch(const std::vector<std::string> &arguments) {
    awaited_ = 0;
    daemon_ = std::make_unique<RigProcess>(launch_of(arguments), sandbox(), board_);
}

void Station::start(const std::vector<std::string> &arguments) {
    launch(arguments);
    await_wait_after(0);
}

Outcome Station::run(const std::vector<std::string> &arguments) {
    RigProcess process(launch_of(arguments), sandbox(), board_);
    return await_end(&process);
}

Outcome Station::run_one_pass(const std::vector<std::string> &arguments) {
    RigProcess process(launch_of(arguments), sandbox(), board_);
    await(&process, "the wait", [&process] { return process.page().waits.load() > 0; });
    process.send(SIGTERM);
    return await_end(&process);
}

Outcome Station::await_end(RigProcess *process) {
    await(process, "the end of the run", [process] { return process->status().has_value(); });
    return {.status = *process->status(), .out = process->out(), .err = process->err().text()};
}

void Station::step(std::int64_t seconds) {
    advance(seconds);
    const unsigned taken = daemon().page().taken.load();
    send(SIGALRM);
    await("the end of a pass", [this, taken] { return daemon().page().settled.load() > taken; });
    awaited_ = trace().lines().size();
}

void Station::heartbeats(int count) {
    for (int i = 0; i < count; ++i) {
        step();
    }
}

void Station::signal(int signo) {
    const unsigned before = waits();
    send(signo);
    await_wait_after(before);
}

void Station::advance(std::int64_t seconds) { daemon().page().now.fetch_add(seconds * std::nano::den); }

void Station::set_clock(std::int64_t seconds) { daemon().page().now.store(seconds * std::nano::den); }

std::int64_t Station::clock() const { return daemon().page().now.load() / std::nano::den; }

void Station::await_wait_after(unsigned count) {
    await("the wait", [this, count] { return waits() > count; });
    awaited_ = trace().lines().size();
}

TraceLine Station::await_trace(std::string_view function) {
    TraceLine found{};
    await("a trace of " + std::string(function), [this, function, &found] {
        const std::vector<TraceLine> &lines = trace().lines();
        while (awaited_ < lines.size()) {
            found = lines[awaited_++];
            if (found.function == function) {
                return true;
            }
        }
        return false;
    });
    return found;
}

int Station::await_exit() {
    await("the daemon's end", [this] { return daemon().status().has_value(); });
    return *daemon().status();
}

int Station::stop() {
    send(SIGTERM);
    return await_exit();
}

void Station::forget() {
    trace().clear();
    awaited_ = 0;
    journal_.clear();
    syslog_.clear();
}

void Station::temperature(int millidegrees) const {
    folder_.write(TEMPERATURE_FILE, std::to_string(millidegrees) + "\n");
}

void Station::drain() {
    if (daemon_) {
        daemon_->drain();
    }
    if (reads_journal) {
        for (const std::string &datagram : journal_socket_.take()) {
            journal_.emplace_back(datagram);
        }
    }
    if (reads_syslog) {
        for (const std::string &datagram : syslog_socket_.take()) {
            syslog_.push_back(parse_syslog(datagram));
        }
    }
}

void Station::await(const std::string &what, const std::function<bool()> &done) { await(nullptr, what, done); }

void Station::await(RigProcess *other, const std::string &what, const std::function<bool()> &done) {
    RigProcess *process = other != nullptr ? other : &daemon();
    const auto deadline = std::chrono::steady_clock::now() + FAIL_SAFE;
    for (;;) {
        const bool was_running = !process->status();
        process->drain();
        drain();
        if (done()) {
            process->drain(); // output written before it became true
            drain();
            return;
        }
        if (!was_running) {
            give_up(process, "ended with " + std::to_string(*process->status()) + " instead of " + what);
        }
        const auto left = deadline - std::chrono::steady_clock::now();
        if (left.count() <= 0) {
            give_up(process, "has not come to " + what);
        }
        if (!process->status()) {
            poll_all(other, static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count()));
        }
    }
}

void Station::poll_all(const RigProcess *other, int milliseconds) const {
    std::vector<int> descriptors;
    if (reads_journal) {
        descriptors.push_back(journal_socket_.fd());
    }
    if (reads_syslog) {
        descriptors.push_back(syslog_socket_.fd());
    }
    for (const RigProcess *process : {other, static_cast<const RigProcess *>(daemon_.get())}) {
        if (process != nullptr) {
            const std::vector<int> own = process->descriptors();
            descriptors.insert(descriptors.end(), own.begin(), own.end());
        }
    }
    std::vector<pollfd> polled;
    polled.reserve(descriptors.size());
    for (const int fd : descriptors) {
        polled.push_back({.fd = fd, .events = POLLIN, .revents = 0});
    }
    poll(polled.data(), polled.size(), milliseconds);
}

void Station::give_up(RigProcess *process, const std::string &text) {
    std::string report =
        (note.empty() ? "" : note + ": ") + "the process " + text + "; its stderr:\n" + tail_of(process->err().text());
    for (std::size_t i = journal_.size() > 10 ? journal_.size() - 10 : 0; i < journal_.size(); ++i) {
        report += "\njournal: " + journal_[i]["MESSAGE"];
    }
    daemon_.reset();
    std::error_code ignored;
    std::filesystem::remove_all(scratch_.path(), ignored);
    rig_failure(report);
}

HeldFile::HeldFile(const Station &station, std::string path)
    : files_(station.files()), path_(std::move(path)),
      fifo_((files_.make_fifo(path_), open(files_.host_path(path_).c_str(), O_RDWR | O_CLOEXEC))) {
    if (!fifo_) {
        rig_failure_of("fifo " + path_);
    }
}

void HeldFile::release(const std::string &content) const {
    files_.write(path_, content); // in case the daemon has not opened the FIFO yet
    if (::write(fifo_.get(), content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
        rig_failure_of("release " + path_);
    }
}
