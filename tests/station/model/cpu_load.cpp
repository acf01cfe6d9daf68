#include "cpu_load.h"

#include <cmath>
#include <cstdlib>
#include <optional>

namespace model {

namespace {

constexpr std::int64_t TOO_FEW_TICKS = 99;

std::optional<std::int32_t> counter(const std::string &text) {
    constexpr double exact = 9007199254740992.0; // 2^53
    const double number = std::strtod(text.c_str(), nullptr);
    if (!std::isfinite(number) || std::fabs(number) > exact) {
        return std::nullopt;
    }
    return wrapped(static_cast<std::int64_t>(number));
}

std::int64_t difference(std::int32_t now, std::int32_t before) {
    return wrapped(static_cast<std::int64_t>(now) - before);
}

} // namespace

bool CpuLoad::parse(const File &stat, Counters *counters) {
    const std::vector<std::string> lines = lines_of(stat.content, 1023);
    const std::vector<std::string> tokens = lines.empty() ? std::vector<std::string>() : split(lines[0], 11);
    if (tokens.size() < 5) {
        return false;
    }
    const auto user = counter(tokens[1]);
    const auto system = counter(tokens[3]);
    const auto idle = counter(tokens[4]);
    if (!user || !system || !idle) {
        return false;
    }
    *counters = {.user = *user, .system = *system, .idle = *idle};
    return true;
}

void CpuLoad::note_counters(const File &stat) { parse(stat, &before_); }

Reading CpuLoad::read(const File &stat) {
    Counters now;
    if (!parse(stat, &now)) {
        return std::nullopt;
    }
    const std::int64_t idle = difference(now.idle, before_.idle);
    const std::int64_t total = difference(now.user, before_.user) + difference(now.system, before_.system) + idle;
    if (total > TOO_FEW_TICKS) {
        const std::int64_t load = 100 - 100 * idle / total;
        last_ = static_cast<std::int32_t>(std::trunc(static_cast<double>(load) + 0.5)); // rounds up, also below 0
        before_ = now;
    }
    return last_;
}

void LoadLoggers::begin_run(const std::string &issue) {
    if (marked_.erase(issue) != 0) {
        started_ = false;
    }
}

bool LoadLoggers::start(const std::string &issue) {
    if (runs(issue) || started_) {
        return false;
    }
    started_ = true;
    running_.insert(issue);
    return true;
}

void LoadLoggers::end(const std::string &issue) {
    running_.erase(issue);
    mark(issue);
}

std::string load_logger_call(const std::string &issue) {
    return "load_logger -c 120 -t 10 -d /var/lib/evse/vigmond/ -i " + issue +
           " PATH=/usr/bin:/usr/sbin:/home/tovik/bin";
}

} // namespace model
