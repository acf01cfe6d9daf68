#include "readings.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <strings.h>

namespace model {

namespace {

constexpr std::size_t LINE = 1023;

bool is_readable(const File &file) { return file.kind != File::Kind::missing; }

/// None for an empty file or a folder, which opens but has no line.
std::optional<std::string> first_line(const File &file, std::size_t size) {
    const std::vector<std::string> lines = lines_of(file.content, size);
    return lines.empty() ? std::nullopt : std::optional(lines[0]);
}

bool begins(const std::string &line, const std::string &start) {
    return strncasecmp(line.c_str(), start.c_str(), start.size()) == 0;
}

/// The number at the beginning; none without a digit or if not finite.
std::optional<double> real(const std::string &text) {
    char *end = nullptr;
    const double number = std::strtod(text.c_str(), &end);
    return end == text.c_str() || !std::isfinite(number) ? std::nullopt : std::optional(number);
}

Reading truncated(double number) {
    const double whole = std::trunc(number);
    constexpr double lowest = std::numeric_limits<std::int32_t>::min();
    constexpr double highest = std::numeric_limits<std::int32_t>::max();
    return whole < lowest || whole > highest ? std::nullopt : Reading(static_cast<std::int32_t>(whole));
}

std::int64_t decimal(const std::string &text) { return std::strtoll(text.c_str(), nullptr, 10); }

/// The token with this number, 0 for a missing one.
std::int64_t decimal(const std::vector<std::string> &tokens, std::size_t number) {
    return number < tokens.size() ? decimal(tokens[number]) : 0;
}

bool names(const std::string &token, const std::string &interface) {
    return token.size() >= 2 && token.back() == ':' &&
           strcasecmp(token.substr(0, token.size() - 1).c_str(), interface.c_str()) == 0;
}

std::int64_t sum(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

Reading traffic_value(const std::vector<std::string> &tokens) {
    const std::int64_t packets = sum(decimal(tokens, 2), decimal(tokens, 10));
    const std::int64_t errors =
        sum(sum(decimal(tokens, 3), decimal(tokens, 4)), sum(decimal(tokens, 11), decimal(tokens, 12)));
    const std::int32_t p = wrapped(packets);
    const std::int32_t e = wrapped(errors);
    if (p == 0) {
        return std::nullopt;
    }
    const std::int32_t shares = wrapped(100 * (static_cast<std::int64_t>(e) + p / 50 - 1));
    return wrapped(static_cast<std::int64_t>(shares) / p);
}

/// The number after `token` in the interface's first line that has one.
std::optional<double> wireless_number(const File &file, const std::string &interface, std::size_t token) {
    for (const std::string &line : lines_of(file.content, LINE)) {
        const std::vector<std::string> tokens = split(line, 8);
        if (tokens.size() >= 5 && names(tokens[0], interface)) {
            const auto number = real(tokens[token]);
            if (number && truncated(*number)) {
                return number;
            }
        }
    }
    return std::nullopt;
}

Reading share_available(std::uint32_t total, std::uint32_t free, std::uint32_t available) {
    const std::uint32_t divisor = std::max({total, free, available});
    if (divisor == 0) {
        return std::nullopt;
    }
    return static_cast<std::int32_t>((100U * available + divisor / 2) / divisor);
}

std::uint32_t blocks(const std::string &text) {
    constexpr std::int64_t most = std::numeric_limits<std::uint32_t>::max();
    return static_cast<std::uint32_t>(std::clamp<std::int64_t>(decimal(text), 0, most));
}

Reading read_disk_file(const File &file) {
    const auto line = first_line(file, LINE - 1);
    const std::vector<std::string> tokens = line ? split(*line, 6) : std::vector<std::string>();
    if (tokens.size() < 5) {
        return std::nullopt;
    }
    return share_available(blocks(tokens[2]), blocks(tokens[3]), blocks(tokens[4]));
}

Reading up(const std::string &line) { return begins(line, "up") ? 0 : 1; }

} // namespace

std::vector<std::string> lines_of(const std::string &text, std::size_t size) {
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t feed = text.find('\n', at);
        const std::size_t length = feed == std::string::npos ? text.size() - at : feed + 1 - at;
        const std::string piece = text.substr(at, std::min(length, size));
        lines.push_back(piece.substr(0, piece.find('\0'))); // a zero byte ends the text
        at += piece.size();
    }
    return lines;
}

std::vector<std::string> split(const std::string &line, std::size_t max) {
    constexpr const char *separators = " \t\r\n";
    std::vector<std::string> tokens;
    std::size_t at = line.find_first_not_of(separators);
    while (at != std::string::npos && tokens.size() < max) {
        const std::size_t end = std::min(line.find_first_of(separators, at), line.size());
        tokens.push_back(line.substr(at, end - at));
        at = line.find_first_not_of(separators, end);
    }
    return tokens;
}

std::int32_t wrapped(std::int64_t number) { return static_cast<std::int32_t>(static_cast<std::uint32_t>(number)); }

Reading read_temperature(const File &file) {
    const auto line = first_line(file, 127);
    const auto millidegrees = line ? real(*line) : std::nullopt;
    return millidegrees ? truncated((*millidegrees + 499.0) / 1000.0) : std::nullopt;
}

Reading read_memory(const File &meminfo) {
    std::uint64_t total = 0;
    std::uint64_t free = 0;
    for (const std::string &line : lines_of(meminfo.content, LINE)) {
        const bool is_total = begins(line, "MemTotal:");
        const std::vector<std::string> tokens = split(line, 8);
        if ((is_total || begins(line, "MemFree:")) && tokens.size() >= 2) {
            (is_total ? total : free) = static_cast<std::uint64_t>(decimal(tokens[1]));
        }
    }
    if (total == 0) {
        return std::nullopt;
    }
    return static_cast<std::int32_t>(static_cast<std::uint32_t>((100 * free + total / 2 - 1) / total));
}

Reading read_wear(const File &device, const Emmc &emmc) {
    const int worst = std::max(emmc.type_a & 15, emmc.type_b & 15);
    if (!is_readable(device) || emmc.error != 0 || emmc.revision <= 6 || worst > 10) {
        return std::nullopt;
    }
    return 10 * worst;
}

Reading read_disk(const File &mount_point, const Disk &disk) {
    if (mount_point.kind == File::Kind::regular) {
        return read_disk_file(mount_point);
    }
    if (!is_readable(mount_point) || disk.fails || static_cast<std::uint32_t>(disk.blocks) == 0) {
        return std::nullopt;
    }
    return share_available(static_cast<std::uint32_t>(disk.blocks), static_cast<std::uint32_t>(disk.free),
                           static_cast<std::uint32_t>(disk.available));
}

Reading read_presence(const File &file) { return is_readable(file) ? 0 : 1; }

Reading read_ethernet_link(const File &operstate) {
    const auto line = first_line(operstate, LINE);
    if (line) {
        return up(*line);
    }
    return operstate.kind == File::Kind::regular ? Reading(1) : std::nullopt;
}

Reading read_wifi_link(const File &operstate) {
    const auto line = first_line(operstate, LINE);
    return line ? up(*line) : std::nullopt;
}

Reading read_traffic(const File &net_dev, const std::string &interface) {
    for (const std::string &line : lines_of(net_dev.content, LINE)) {
        const std::vector<std::string> tokens = split(line, 16);
        if (tokens.size() >= 11 && names(tokens[0], interface)) {
            return traffic_value(tokens);
        }
    }
    return std::nullopt;
}

Reading read_quality(const File &net_wireless, const std::string &interface) {
    const auto quality = wireless_number(net_wireless, interface, 2);
    return quality ? truncated(*quality) : std::nullopt;
}

Reading read_strength(const File &net_wireless, const std::string &interface) {
    const auto level = wireless_number(net_wireless, interface, 3);
    return level ? truncated(*level >= 0 ? *level + 0.5 : *level - 0.5) : std::nullopt;
}

} // namespace model
