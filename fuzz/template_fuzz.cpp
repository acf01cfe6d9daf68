// Input: state, buffer size, length of the parameter (0xff: none), one byte each, then the parameter, then the
// template.

#include "logger.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

constexpr char UNTOUCHED = '#';
constexpr std::size_t HEADER = 3;
constexpr std::uint8_t NO_PARAMETER = 0xff;

constexpr const char *MINFAIL = "-2147483648";
constexpr const char *MINWARN = "0";
constexpr const char *MAXWARN = "70";
constexpr const char *MAXFAIL = "2147483647";

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

/// Borrows the texts; a null parameter means none.
Task make_task(std::int8_t state, const char *parameter, const char *format) {
    Task task{};
    task.flags = TASK_HAS_FORMAT | (parameter == nullptr ? 0U : TASK_HAS_PARAMETER);
    task.state = state;
    task.do_log = 1;
    task.minfail = -2147483647 - 1;
    task.minwarn = 0;
    task.maxwarn = 70;
    task.maxfail = 2147483647;
    task.parameter = parameter;
    task.format = format;
    return task;
}

/// The array has the exact size of the buffer, so that the sanitizer detects a write past its end.
std::string expand(const Task &task, std::size_t size) {
    const std::unique_ptr<char[]> buffer(new char[size]);
    std::fill_n(buffer.get(), size, UNTOUCHED);
    require(logger_format(buffer.get(), size, &task) == 0);
    const std::size_t length = strnlen(buffer.get(), size);
    require(size == 0 || length < size);
    return {buffer.get(), length};
}

std::string threshold(int state) {
    switch (state) {
    case 0:
        return "normal";
    case -2:
        return MINFAIL;
    case -1:
        return MINWARN;
    case 1:
        return MAXWARN;
    default:
        return MAXFAIL;
    }
}

std::string replacement(const Task &task, char letter) {
    switch (letter) {
    case '%':
        return "%";
    case 'P':
        return task.parameter == nullptr ? "" : task.parameter;
    case 'D':
        return task.state == 0 ? "at" : task.state < 0 ? "below" : "above";
    case 'T':
        return threshold(task.state);
    default:
        return "";
    }
}

/// The same in a growing text, truncated at the end.
std::string model(const Task &task, std::size_t size) {
    std::string text;
    for (std::size_t at = 0; text.size() < size && task.format[at] != '\0'; ++at) {
        if (task.format[at] != '%') {
            text += task.format[at];
            continue;
        }
        const char letter = task.format[++at];
        if (letter == '\0') {
            break;
        }
        const std::string inserted = replacement(task, letter);
        if (letter == '%' || text.size() + inserted.size() < size) {
            text += inserted;
        }
    }
    return text.substr(0, size == 0 ? 0 : size - 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t length) {
    if (length < HEADER) {
        return 0;
    }
    const std::size_t size = data[1];
    const bool has_parameter = data[2] != NO_PARAMETER;
    const char *text = reinterpret_cast<const char *>(data) + HEADER;
    const std::size_t rest = length - HEADER;
    const std::size_t split = has_parameter ? std::min<std::size_t>(data[2], rest) : 0;
    const std::string parameter(text, split);
    const std::string format(text + split, rest - split);
    Task task =
        make_task(static_cast<std::int8_t>(data[0]), has_parameter ? parameter.c_str() : nullptr, format.c_str());
    require(expand(task, size) == model(task, size));
    require(threshold_logger(&task) == 0); // in the space after a value
    return 0;
}
