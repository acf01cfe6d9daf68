// Input: state, buffer size, length of the parameter (0xff: none), one byte each, then the parameter
// and the template up to the end.

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

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

/// The texts are borrowed; a null parameter is none.
Task make_task(std::int8_t state, const char *parameter, const char *format) {
    Task task{};
    task.flags = TASK_HAS_FORMAT | (parameter == nullptr ? 0U : TASK_HAS_PARAMETER);
    task.state = state;
    task.minfail = -2147483647 - 1;
    task.minwarn = 0;
    task.maxwarn = 70;
    task.maxfail = 2147483647;
    task.parameter = parameter;
    task.format = format;
    return task;
}

/// What the template can grow to: an insertion takes the place of two characters.
std::size_t longest(const std::string &format, const std::string &parameter) {
    constexpr std::size_t longest_word = 11; // "-2147483648"
    return (format.size() + 1) * std::max({std::size_t{1}, parameter.size(), longest_word});
}

/// The array ends where the buffer does, so that the sanitizer sees a byte written behind it.
std::string expand(const Task &task, std::size_t size) {
    const std::unique_ptr<char[]> buffer(new char[size]);
    std::fill_n(buffer.get(), size, UNTOUCHED);
    require(logger_format(buffer.get(), size, &task) == 0);
    if (size == 0) {
        return {};
    }
    const std::size_t length = strnlen(buffer.get(), size);
    require(length < size);
    return {buffer.get(), length};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t length) {
    if (length < HEADER) {
        return 0;
    }
    const auto state = static_cast<std::int8_t>(data[0]);
    const std::size_t size = data[1];
    const bool has_parameter = data[2] != NO_PARAMETER;
    const char *text = reinterpret_cast<const char *>(data) + HEADER;
    const std::size_t rest = length - HEADER;
    const std::size_t split = has_parameter ? std::min<std::size_t>(data[2], rest) : 0;
    const std::string parameter(text, split);
    const std::string format(text + split, rest - split);
    const Task task = make_task(state, has_parameter ? parameter.c_str() : nullptr, format.c_str());

    const std::string cut = expand(task, size);
    const std::size_t ample = longest(format, parameter) + 1;
    const std::string whole = expand(task, ample);
    require(whole.size() < ample - 1); // nothing was cut there
    if (size > whole.size()) {
        require(cut == whole);
    }
    return 0;
}
