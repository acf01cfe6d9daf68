#include "builtin/service.h"

#include "builtin.h"
#include "common.h"
#include "logger.h"
#include "signals.h"
#include "system_bus.h"
#include "text_buffer.h"
#include "trace.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace {

constexpr std::size_t PATH_SIZE = 1024;
using UnitPath = std::array<char, PATH_SIZE>;

constexpr std::uint8_t STOPPED = 0;
constexpr std::uint8_t RUNNING = 1;
constexpr std::uint8_t UNKNOWN = 255;

/// A watched unit. Exists, with its name and list node, until the process ends.
struct Service {
    char *name; ///< without its suffix
    std::int32_t index;
    std::uint8_t running;
};

/// The head of the list; the records follow, newest first.
constinit DListNode service_list{};

bool begins_with(const char *text, const char *prefix) { return std::strncmp(text, prefix, std::strlen(prefix)) == 0; }

bool is_letter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

bool is_digit(char c) { return c >= '0' && c <= '9'; }

Service *service_of(const DListNode *node) { return static_cast<Service *>(node->data); }

/// False if the text was truncated.
bool append_escaped(TextBuffer *text, const char *name) {
    constexpr std::string_view digits = "0123456789abcdef";
    bool fits = true;
    for (const char *c = name; fits && *c != '\0'; ++c) {
        if (is_letter(*c) || (is_digit(*c) && c != name)) {
            fits = text->append(*c);
        } else {
            const auto byte = static_cast<unsigned char>(*c);
            fits = text->append('_') && text->append(digits[byte >> 4U]) && text->append(digits[byte & 0xFU]);
        }
    }
    return fits;
}

} // namespace

TextHandle unit_path_escape(const char *name) {
    if (name == nullptr) {
        return nullptr;
    }
    const std::size_t size = 3 * std::strlen(name) + 1;
    TextHandle escaped = text_allocate(size);
    if (escaped) {
        TextBuffer text(escaped.get(), size);
        append_escaped(&text, name);
    }
    return escaped;
}

bool service_counts_as_loaded(const char *load_state) {
    constexpr std::array absent{"masked", "stub", "not-found", "merged"};
    return std::none_of(absent.begin(), absent.end(),
                        [load_state](const char *prefix) { return begins_with(load_state, prefix); });
}

bool service_counts_as_running(const char *active_state) {
    return begins_with(active_state, "activating") || begins_with(active_state, "active");
}

int service_retry_pause_ms(int repeat) {
    constexpr std::array pauses_ms{0, 0, 0, 100, 200, 400, 800};
    constexpr int longest_ms = 1000;
    const auto row = static_cast<std::size_t>(repeat) - 1;
    return row < pauses_ms.size() ? pauses_ms[row] : longest_ms;
}

namespace {

/// Writes the unit's object path; false when it does not fit.
bool service_path(const char *name, UnitPath *path) {
    TextBuffer text(path->data(), path->size());
    const bool fits =
        text.append("/org/freedesktop/systemd1/unit/") && append_escaped(&text, name) && text.append("_2eservice");
    if (!fits) {
        trace(TRACE_TRACE, "FAILED");
    }
    return fits;
}

/// Reads the property once; traces a failure under the caller's name.
int ask(const char *step, const char *path, const char *property, UnitText *state) {
    UnitError error;
    int result = system_bus_open();
    if (result >= 0) {
        result = system_bus_read_text(path, property, state, &error);
    }
    if (result < 0) {
        trace_as(step, TRACE_TRACE, "GET PROPERTY FAILED: ret : %d (%s) -- err.name: %s err.message: %s", result,
                 std::strerror(-result), error.name(), error.message());
    }
    return result;
}

/// Retries until success or -EINVAL, so that a slow start-up loses no unit.
int ask_load_state(const char *path, UnitText *state) {
    for (int repeat = 1;; ++repeat) {
        const int result = ask("service_is_loaded", path, "LoadState", state);
        if (result >= 0 || result == -EINVAL) {
            return result;
        }
        signals_pause(service_retry_pause_ms(repeat));
    }
}

bool service_is_loaded(const char *name) {
    trace(TRACE_TRACE, " ");
    UnitPath path{};
    UnitText state;
    if (!service_path(name, &path) || ask_load_state(path.data(), &state) < 0) {
        return false;
    }
    if (state.get() == nullptr) {
        trace(TRACE_TRACE, "FAILED");
        return false;
    }
    const bool loaded = service_counts_as_loaded(state.get());
    trace(TRACE_TRACE, "DONE");
    return loaded;
}

bool service_add(const char *name, std::int32_t index) {
    trace(TRACE_TRACE, "service: %s", name);
    DListNode *node = d_list_create();
    auto service = record_allocate<Service>();
    TextHandle copy(strdup(name));
    if (node == nullptr || !service || !copy || d_list_add(&service_list, node) == nullptr) {
        d_list_delete(node);
        trace(TRACE_TRACE, "FAILED");
        return false;
    }
    *service = {.name = copy.release(), .index = index, .running = UNKNOWN};
    node->data = service.release();
    trace(TRACE_TRACE, "service: %s added", name);
    return true;
}

/// Adds the unit if it is loaded, else reports it; false when out of memory.
bool service_consider(const char *name, std::int32_t index) {
    trace_as("service_init", TRACE_TRACE, "service: %s", name);
    if (service_is_loaded(name)) {
        return service_add(name, index);
    }
    std::array<char, 1024> text{};
    std::snprintf(text.data(), text.size(), "service \"%s\" not loaded/installed", name);
    constexpr int state_warning = 3;
    logger_syslog(state_warning, text.data());
    return true;
}

/// Splits at each single blank: two blanks in a row give the empty name.
bool service_consider_all(char *names, std::int32_t index) {
    bool all_added = true;
    while (names != nullptr) {
        signals_safe_point();
        const char *name = strsep(&names, " ");
        all_added = service_consider(name, index) && all_added;
    }
    return all_added;
}

/// Reads whether the unit runs. Retries an interrupted call; unlike at start-up, any other failure is final.
std::uint8_t service_ask_running(const char *name) {
    UnitPath path{};
    if (!service_path(name, &path)) {
        return STOPPED;
    }
    UnitText state;
    int result = ask("service_read", path.data(), "ActiveState", &state);
    while (result == -EINTR) {
        signals_safe_point();
        result = ask("service_read", path.data(), "ActiveState", &state);
    }
    if (result < 0) {
        return UNKNOWN;
    }
    if (state.get() == nullptr) {
        trace_as("service_read", TRACE_TRACE, "FAILED");
        return UNKNOWN;
    }
    const bool running = service_counts_as_running(state.get());
    trace_as("service_read", TRACE_TRACE, "service: %s -%s running (%s)", name, running ? "" : " not", state.get());
    trace_as("service_read", TRACE_TRACE, "DONE");
    return running ? RUNNING : STOPPED;
}

/// 1 if a unit of the task does not run or could not be read, else 0.
std::int32_t service_read(const Task *task) {
    std::int32_t result = 0;
    for (const DListNode *node = service_list.next; node != nullptr; node = node->next) {
        Service *service = service_of(node);
        if (service->index != task->index) {
            continue;
        }
        signals_safe_point();
        trace(TRACE_TRACE, "service: %s", service->name);
        service->running = service_ask_running(service->name);
        if (service->running != RUNNING) {
            result = 1;
        }
    }
    return result;
}

/// The number of stopped units of all service tasks.
int count_stopped() {
    int count = 0;
    for (const DListNode *node = service_list.next; node != nullptr; node = node->next) {
        count += service_of(node)->running == STOPPED ? 1 : 0;
    }
    return count;
}

} // namespace

int service_init(Task *task) {
    trace(TRACE_INFO, " ");
    const int opened = system_bus_open();
    if (opened < 0) {
        trace(TRACE_TRACE, "FAILED: ret : %d (%s)", opened, std::strerror(-opened));
        return -1;
    }
    const char *parameter = task->parameter;
    trace(TRACE_TRACE, "param: <%s>", parameter == nullptr ? "" : parameter);
    const TextHandle names(parameter == nullptr ? nullptr : strdup(parameter));
    const bool all_added = service_consider_all(names.get(), task->index);
    probe_mark_initialised(task);
    trace(TRACE_TRACE, "DONE");
    return all_added ? 0 : -1;
}

int service_exec(Task *task) {
    trace(TRACE_DEBUG, " ");
    task_clear(task, TASK_VALUE_VALID);
    return probe_succeed(task, service_list.next == nullptr ? 0 : service_read(task));
}

namespace {

using Line = std::array<char, 2048>;

/// Appends "Services: ocppd, nginx are not running" with the units of all service tasks, newest first. The names are
/// truncated at 2024 characters, so that the last words always fit.
void append_stopped(Line *text) {
    constexpr std::size_t names_size = 2024 + 1;
    const int stopped = count_stopped();
    const char *separator = "";
    TextBuffer names = TextBuffer::after(text->data(), names_size);
    names.append_format("Service%s:", stopped == 1 ? "" : "s");
    for (const DListNode *node = service_list.next; node != nullptr; node = node->next) {
        if (service_of(node)->running == STOPPED) {
            names.append_format("%s %s", separator, service_of(node)->name);
            separator = ",";
        }
    }
    TextBuffer::after(text->data(), text->size()).append_format(" %s not running", stopped == 1 ? "is" : "are");
}

} // namespace

int service_logger(Task *task) {
    trace(TRACE_DEBUG, " ");
    if (task->do_log != 1) {
        return 0;
    }
    Line text{};
    TextBuffer line = logger_value_line(text, task);
    if (task->state == 0) {
        line.append("all services are up and running");
    } else {
        append_stopped(&text);
    }
    logger_syslog(probe_log_state(task), text.data());
    task->do_log = 0;
    return 0;
}
