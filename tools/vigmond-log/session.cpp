#include "session.h"

#include "log_folder.h"
#include "revision.h"
#include "time_argument.h"

#include <cstdio>
#include <ctime>
#include <sys/stat.h>
#include <utility>

namespace vlog {

namespace {

constexpr const char *OWN_LOG = "/var/lib/evse/vigmond";
constexpr unsigned EVENTS_PER_UPDATE = 4096; // of the progress bar

std::uint64_t size_of(const std::vector<StationFiles> &stations) {
    std::uint64_t size = 0;
    for (const StationFiles &station : stations) {
        for (const std::string &path : station.paths) {
            struct stat status {};
            if (path == "-" || stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
                return 0;
            }
            size += static_cast<std::uint64_t>(status.st_size);
        }
    }
    return size;
}

} // namespace

Progress::Progress(std::uint64_t total, std::chrono::milliseconds delay)
    : total_(total), is_terminal_(isatty(STDERR_FILENO) == 1), next_(std::chrono::steady_clock::now() + delay) {}

Progress::~Progress() {
    if (is_shown_) {
        std::fputs("\r\033[K", stderr);
    }
}

void Progress::show() {
    constexpr std::size_t width = 40;
    if (!is_terminal_ || std::chrono::steady_clock::now() < next_) {
        return;
    }
    next_ = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
    is_shown_ = true;
    if (total_ == 0) {
        std::fprintf(stderr, "\r%llu MB read\033[K", static_cast<unsigned long long>(read_ / 1000000));
        return;
    }
    const std::uint64_t part = std::min(read_.load(), total_);
    const auto filled = static_cast<std::size_t>(part * width / total_);
    std::fprintf(stderr, "\r[%s%s] %3u %%\033[K", std::string(filled, '#').c_str(),
                 std::string(width - filled, ' ').c_str(), static_cast<unsigned>(part * 100 / total_));
}

Session::Session(const Arguments &arguments, Moment now) : arguments_(arguments) {
    if (!zone_set(arguments.timezone)) {
        complain("'" + arguments.timezone + "' is not a time zone: give one like Europe/Berlin", WRONG_USAGE);
    } else if (take_time(arguments.since, now, &since_) && take_time(arguments.until, now, &until_)) {
        take_stations();
    }
    progress_ = std::make_unique<Progress>(size_of(stations_));
}

bool Session::take_time(const std::string &text, Moment now, std::optional<Moment> *moment) {
    if (text.empty()) {
        return true;
    }
    *moment = moment_of_argument(text, now);
    if (!*moment) {
        complain("'" + text + "' is not a time: give one like \"2024-05-01 10:00\", yesterday or -2h", WRONG_USAGE);
    }
    return moment->has_value();
}

void Session::take_stations() {
    const std::vector<std::string> own{OWN_LOG};
    std::string problem;
    bool is_usage = false;
    const auto stations = stations_of(arguments_.inputs.empty() ? own : arguments_.inputs, &problem, &is_usage);
    if (!stations) {
        complain(problem, is_usage ? WRONG_USAGE : UNREADABLE);
        return;
    }
    stations_ = *stations;
}

void Session::note(const std::string &text) { std::fprintf(stderr, "vigmond-log: %s\n", text.c_str()); }

void Session::complain(const std::string &text, int status) {
    note(text);
    status_ = std::max(status_, status);
}

void Session::read(const StationFiles &station, const Visit &visit, const AtEnd &at_end) {
    StationLog log(station, threads_to_use(), progress_->counter(),
                   [this](const std::string &path, const std::string &problem) { complain(path + ": " + problem); });
    bool is_empty = true;
    unsigned count = 0;
    Event event;
    while (log.next(&event)) {
        is_empty = false;
        if (++count % EVENTS_PER_UPDATE == 0) {
            progress_->show();
        }
        if ((!since_ || event.time >= *since_) && (!until_ || event.time < *until_)) {
            visit(event, log);
        }
    }
    if (is_empty) {
        complain(station.paths.front() + ": not a status log");
        return;
    }
    has_read_ = true;
    if (at_end) {
        at_end(log);
    }
}

void Session::spoil(const std::string &text) {
    if (!std::exchange(is_spoiled_, true)) {
        complain(text);
    }
}

/// Keeps an existing file if nothing was read.
int Session::finish(Output *output) {
    if (has_read_ && !is_spoiled_ && !output->finish()) {
        complain(output->problem());
    }
    return status_;
}

int run(int argc, char **argv) {
    std::string problem;
    const std::optional<Arguments> arguments = read_arguments(argc, argv, &problem);
    if (!arguments) {
        std::fprintf(stderr, "vigmond-log: %s\nTry 'vigmond-log --help'.\n", problem.c_str());
        return WRONG_USAGE;
    }
    if (arguments->help || arguments->version) {
        Output output("");
        output.write(arguments->help ? USAGE : "vigmond-log " REVISION_VERSION " " REVISION_GIT_ID "\n");
        return output.finish() ? DONE : UNREADABLE;
    }
    const Moment now = std::time(nullptr);
    Session session(*arguments, now);
    if (!session.is_ready()) {
        return session.status();
    }
    switch (arguments->command) {
    case Command::show:
        return show(&session);
    case Command::changes:
        return changes(&session);
    case Command::plot:
        return plot(&session);
    case Command::export_data:
        return arguments->textfile.empty() ? export_records(&session) : export_textfile(&session, now);
    default:
        return summary(&session);
    }
}

} // namespace vlog
