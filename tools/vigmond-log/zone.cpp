#include "zone.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sys/stat.h>

namespace vlog {

namespace {

bool is_in_database(const std::string &name) {
    const char *const folder = std::getenv("TZDIR");
    const std::string path = std::string(folder == nullptr ? "/usr/share/zoneinfo" : folder) + "/" + name;
    struct stat status {};
    return name.find("..") == std::string::npos && stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

/// At least three letters, or any text in angle brackets, followed by a number.
bool is_rule(const std::string &name) {
    std::size_t at = 0;
    if (name.starts_with("<")) {
        at = name.find('>');
        at = at == std::string::npos ? 0 : at + 1;
    } else {
        while (at < name.size() && std::isalpha(static_cast<unsigned char>(name[at])) != 0) {
            ++at;
        }
    }
    if (at >= 3 && at < name.size() && (name[at] == '+' || name[at] == '-')) {
        ++at;
    }
    return at >= 3 && at < name.size() && std::isdigit(static_cast<unsigned char>(name[at])) != 0;
}

std::tm local_parts(Moment moment) {
    const std::time_t seconds = moment;
    std::tm parts{};
    localtime_r(&seconds, &parts);
    return parts;
}

} // namespace

bool zone_set(const std::string &name) {
    if (!name.empty()) {
        if (name != "UTC" && !is_in_database(name) && !is_rule(name)) {
            return false;
        }
        setenv("TZ", name.c_str(), 1);
    }
    tzset();
    return true;
}

std::int32_t zone_offset(Moment moment) { return static_cast<std::int32_t>(local_parts(moment).tm_gmtoff); }

std::string local_text(Moment moment) {
    std::array<char, 48> text{};
    const std::tm parts = local_parts(moment);
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
    return text.data();
}

std::string iso_text(Moment moment) {
    std::array<char, 48> text{};
    std::array<char, 16> offset{};
    const std::tm parts = local_parts(moment);
    std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
    const auto minutes = static_cast<int>(std::labs(parts.tm_gmtoff) / 60);
    std::snprintf(offset.data(), offset.size(), "%c%02d:%02d", parts.tm_gmtoff < 0 ? '-' : '+', minutes / 60,
                  minutes % 60);
    return std::string(text.data()) + offset.data();
}

Moment LocalClock::moment_of(LocalTime local, std::optional<Moment> before) {
    if (hour_ == NO_TIME || local < hour_ || local >= hour_ + HOUR) {
        hour_ = local - (local % HOUR + HOUR) % HOUR;
        earlier_ = zone_offset(hour_ - DAY);
        later_ = zone_offset(hour_ + HOUR + DAY);
    }
    if (earlier_ == later_) {
        return local - earlier_;
    }
    // Within a day of a change of the offset. The first of two equal times has the larger offset.
    const Moment first = local - std::max(earlier_, later_);
    const Moment second = local - std::min(earlier_, later_);
    const bool is_first = zone_offset(first) + first == local;
    const bool is_second = zone_offset(second) + second == local;
    if (is_first && is_second) {
        return before && *before - CORRECTION > first ? second : first;
    }
    if (is_first || is_second) {
        return is_first ? first : second;
    }
    return local - earlier_; // skipped at the start of summer time: the clock was not set yet
}

} // namespace vlog
