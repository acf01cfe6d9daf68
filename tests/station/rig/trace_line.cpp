#include "trace_line.h"

#include <array>
#include <cstdio>

std::optional<TraceLine> parse_trace_line(const std::string &text) {
    TraceLine trace{};
    std::array<char, 9> time{};
    std::array<char, 64> file{};
    std::array<char, 64> function{};
    int prefix = 0;
    // NOLINTNEXTLINE(cert-err34-c): a mismatch is no trace
    const int fields = std::sscanf(text.c_str(), "(%d) [%u] %8[0-9:] %63[^: ]: %63[^( ](%d)%n", &trace.level,
                                   &trace.thread, time.data(), file.data(), function.data(), &trace.line, &prefix);
    const auto end = static_cast<std::size_t>(prefix);
    if (fields != 6 || end == 0 || (end < text.size() && text[end] != ' ')) {
        return std::nullopt;
    }
    trace.time = time.data();
    trace.file = file.data();
    trace.function = function.data();
    trace.message = end < text.size() ? text.substr(end + 1) : std::string{}; // the journal strips blanks
    return trace;
}

void TraceLog::append(std::string_view bytes) {
    text_ += bytes;
    for (std::size_t end = text_.find('\n', parsed_); end != std::string::npos; end = text_.find('\n', parsed_)) {
        if (auto trace = parse_trace_line(text_.substr(parsed_, end - parsed_))) {
            lines_.push_back(std::move(*trace));
        }
        parsed_ = end + 1;
    }
}

void TraceLog::clear() {
    text_.erase(0, parsed_);
    parsed_ = 0;
    lines_.clear();
}

std::vector<std::string> TraceLog::messages_of(std::string_view function) const {
    std::vector<std::string> messages;
    for (const TraceLine &trace : lines_) {
        if (trace.function == function) {
            messages.push_back(trace.message);
        }
    }
    return messages;
}

std::vector<std::string> TraceLog::messages_with(std::string_view part) const {
    std::vector<std::string> messages;
    for (const TraceLine &trace : lines_) {
        if (trace.message.find(part) != std::string::npos) {
            messages.push_back(trace.message);
        }
    }
    return messages;
}
