#include "parse_ini.h"

#include "handle.h"
#include "trace.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstring>

namespace {

constexpr int LINE_SIZE = 4096;
constexpr std::size_t SECTION_SIZE = 50;

constexpr int SYNTAX_ERROR = -1;
constexpr int REFUSED = -2;

using Section = std::array<char, SECTION_SIZE>;

bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

/// Extracts the section's name from a line that starts with a bracket.
bool take_section(char *line, Section &section) {
    char *name = line + 1;
    char *end = find_chars_or_comment(name, "]");
    if (*end != ']') {
        return false;
    }
    *end = '\0';
    strncpy0(section.data(), name, section.size());
    return true;
}

/// Cuts `line` into its name and the value that it returns; null without a separator.
char *cut_pair(char *line) {
    char *separator = find_chars_or_comment(line, "=:");
    if (*separator != '=' && *separator != ':') {
        return nullptr;
    }
    *separator = '\0';
    rstrip(line);
    char *value = lskip(separator + 1);
    *find_chars_or_comment(value, nullptr) = '\0';
    return rstrip(value);
}

} // namespace

char *rstrip(char *text) {
    char *end = text + std::strlen(text);
    while (end > text && is_space(end[-1])) {
        --end;
    }
    *end = '\0';
    return text;
}

char *lskip(char *text) {
    while (is_space(*text)) {
        ++text;
    }
    return text;
}

char *find_chars_or_comment(char *text, const char *characters) {
    bool behind_space = false;
    for (; *text != '\0'; ++text) {
        if ((characters != nullptr && std::strchr(characters, *text) != nullptr) || (behind_space && *text == ';')) {
            break;
        }
        behind_space = is_space(*text);
    }
    return text;
}

char *strncpy0(char *destination, const char *source, std::size_t size) {
    if (size > 0) {
        const std::size_t length = strnlen(source, size - 1);
        std::copy_n(source, length, destination);
        destination[length] = '\0';
    }
    return destination;
}

int ini_parse_stream(IniReader reader, void *stream, IniHandler handler) {
    trace(TRACE_TRACE, " ");
    std::array<char, LINE_SIZE> line{};
    Section section{};
    while (reader(line.data(), LINE_SIZE, stream) != nullptr) {
        char *name = lskip(rstrip(line.data()));
        if (*name == '\0' || *name == ';' || *name == '#') {
            continue;
        }
        if (*name == '[') {
            if (!take_section(name, section)) {
                return SYNTAX_ERROR;
            }
            trace(TRACE_TRACE, "section: \"%s\"", section.data());
            continue;
        }
        const char *value = cut_pair(name);
        if (value == nullptr) {
            return SYNTAX_ERROR;
        }
        trace(TRACE_TRACE, "section: \"%s\" name: \"%s\" value: \"%s\"", section.data(), name, value);
        if (handler(section.data(), name, value) == 0) {
            trace(TRACE_TRACE, "ERROR: semantics failed -- section: \"%s\" name: \"%s\" value: \"%s\"", section.data(),
                  name, value);
            return REFUSED;
        }
    }
    return 0;
}

int ini_parse_file(const char *path, IniHandler handler) {
    trace(TRACE_TRACE, " ");
    const FileHandle file(std::fopen(path, "re"));
    if (!file) {
        return SYNTAX_ERROR;
    }
    const int result = ini_parse_stream(ini_read_line, file.get(), handler);
    return result == 0 && ferror(file.get()) != 0 ? SYNTAX_ERROR : result;
}

char *ini_read_line(char *buffer, int size, void *stream) {
    return std::fgets(buffer, size, static_cast<std::FILE *>(stream));
}
