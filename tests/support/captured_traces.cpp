#include "captured_traces.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <mutex>

namespace {

std::mutex guard;

std::vector<CapturedTrace> &captured() {
    static std::vector<CapturedTrace> traces;
    return traces;
}

/// The message starts after "function(line) " of the prefix.
std::string text_after_prefix(const std::string &line, const char *function, const char *code_line) {
    const std::string place = std::string(function) + "(" + (code_line + std::strlen("CODE_LINE=")) + ") ";
    const std::size_t found = line.find(place);
    return found == std::string::npos ? std::string{} : line.substr(found + place.size());
}

} // namespace

std::atomic<int> journal_result = 0;

// Linked before the library's own.
extern "C" int sd_journal_print_with_location(int priority, const char *file, const char *line, const char *function,
                                              const char *format, ...) {
    if (journal_result != 0) {
        return journal_result;
    }
    std::array<char, 2048> message{};
    std::va_list arguments;
    va_start(arguments, format);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::vsnprintf(message.data(), message.size(), format, arguments);
#pragma GCC diagnostic pop
    va_end(arguments);
    std::string text(message.data());
    if (text.ends_with('\n')) {
        text.pop_back();
    }
    const std::lock_guard<std::mutex> hold(guard);
    captured().push_back({priority, file, line, function, text, text_after_prefix(text, function, line)});
    errno = ENOTCONN; // the library changes it too
    return 0;
}

CapturedTraces::CapturedTraces() {
    const std::lock_guard<std::mutex> hold(guard);
    captured().clear();
}

CapturedTraces::~CapturedTraces() {
    if (!testing::Test::HasFailure()) {
        return;
    }
    constexpr std::size_t most = 40;
    const std::lock_guard<std::mutex> hold(guard);
    for (std::size_t i = captured().size() - std::min(most, captured().size()); i < captured().size(); ++i) {
        std::fprintf(stderr, "traced: %s\n", captured()[i].line.c_str());
    }
}

// All objects share one collection, which the first one starts.
// NOLINTBEGIN(readability-convert-member-functions-to-static)
const std::vector<CapturedTrace> &CapturedTraces::all() const { return captured(); }

std::vector<std::string> CapturedTraces::texts_of(std::string_view function) const {
    std::vector<std::string> texts;
    for (const CapturedTrace &trace : captured()) {
        if (trace.function == function) {
            texts.push_back(trace.text);
        }
    }
    return texts;
}

bool CapturedTraces::has(std::string_view function, std::string_view text) const {
    const std::vector<std::string> texts = texts_of(function);
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}
// NOLINTEND(readability-convert-member-functions-to-static)
