#include "builtin.h"
#include "common.h"
#include "handle.h"
#include "logger.h"
#include "network.h"
#include "probe_read.h"
#include "table_lines.h"
#include "text_buffer.h"
#include "trace.h"

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

// /proc/net/wireless; after the name: status, link quality, signal level in dBm, noise:
//     wlan0sta: 0000   70.  -40.  -256        0      0      0      0     45        0

namespace {

constexpr std::int32_t ID_WIFI_HARDWARE = 1;
constexpr std::int32_t ID_WIFI_LINK = 2;
constexpr std::int32_t ID_QUALITY = 4;
constexpr std::int32_t ID_STRENGTH = 9;

static_assert(ENONET == 64); // the error number of a disabled path is fixed

constexpr int TOKEN_QUALITY = 2;
constexpr int TOKEN_LEVEL = 3;

/// The source of a wireless task. Exists, with its list node, until the process ends.
struct Record {
    std::int32_t id;
    std::int32_t index;
    const char *dev;
    const char *file;
};

/// The head of the list; the records follow, newest first.
constinit DListNode wireless_list{};

} // namespace

Reading wireless_round(double level) {
    return Reading::of_number(level >= 0 ? level + 0.5 : level - 0.5); // half away from zero
}

bool wireless_parse_line(char *line, const char *device, int token, double *number) {
    constexpr int max_tokens = 8;
    constexpr int needed = 5;
    std::array<char *, max_tokens + 1> tokens{};
    if (strsplit(line, tokens.data(), max_tokens) < needed || !names_interface(tokens[0], device)) {
        return false;
    }
    const char *word = tokens[static_cast<std::size_t>(token)];
    char *end = nullptr;
    *number = std::strtod(word, &end);
    return end != word && Reading::of_number(*number).error == 0;
}

int wp_cmp(const void *left, const void *right) {
    const auto *a = static_cast<const Record *>(left);
    const auto *b = static_cast<const Record *>(right);
    return a != nullptr && b != nullptr && a->id == b->id && a->index == b->index ? 1 : 0;
}

namespace {

bool is_wireless_id(std::int32_t id) {
    return id == ID_WIFI_HARDWARE || id == ID_WIFI_LINK || id == ID_QUALITY || id == ID_STRENGTH;
}

/// The file that a task reads. The text exists until the process ends; null when out of memory.
const char *file_of(const Task *task) {
    if (std::strchr(task->parameter, '/') != nullptr) {
        return task->parameter;
    }
    trace_as("wireless_init", TRACE_TRACE, "create filename");
    if (task->id == ID_QUALITY || task->id == ID_STRENGTH) {
        return "/proc/net/wireless";
    }
    const std::size_t size = std::strlen(task->parameter) + 27;
    TextHandle file = text_allocate(size);
    if (file) {
        std::snprintf(file.get(), size, "/sys/class/net/%s/operstate", task->parameter);
    }
    return file.release();
}

/// Adds a record of the task to the list. Returns the text of the failed step, or null.
const char *add_record(const Task *task) {
    auto record = record_allocate<Record>();
    if (!record) {
        return "no memory";
    }
    DListNode *node = d_list_create();
    if (node == nullptr) {
        return "create failed";
    }
    const char *file = file_of(task);
    if (file == nullptr) {
        d_list_delete(node);
        return "no memory";
    }
    *record = {.id = task->id, .index = task->index, .dev = task->parameter, .file = file};
    node->data = record.release();
    d_list_add(&wireless_list, node);
    return nullptr;
}

const Record *wireless_psearch(const Task *task) {
    trace(TRACE_TRACE, "ID: %d, ID_ndx: %d", task->id, task->index);
    const Record key{.id = task->id, .index = task->index, .dev = nullptr, .file = nullptr};
    const DListNode *node = d_list_search(&wireless_list, wp_cmp, &key);
    trace(TRACE_TRACE, "%s", node == nullptr ? "MISSING" : "FOUND");
    return node == nullptr ? nullptr : static_cast<const Record *>(node->data);
}

/// Whether the interface exists (id 1) or is up (id 2).
Reading wireless_state(const Record *record) {
    trace(TRACE_TRACE, "%s %d", record->file, record->id);
    const FileHandle file(std::fopen(record->file, "re"));
    if (record->id == ID_WIFI_HARDWARE) {
        return Reading::of(file ? 0 : 1);
    }
    std::array<char, 1024> line{};
    if (!file || std::fgets(line.data(), static_cast<int>(line.size()), file.get()) == nullptr) {
        trace(TRACE_TRACE, "%s FAILED!", "CB02");
        return Reading::failed(EINVAL);
    }
    return operstate_parse(line.data());
}

/// The number of the first usable line of the device; false when there is none.
bool search_number(std::FILE *file, const char *device, int token, double *number) {
    TableLines lines(file);
    for (char *line = lines.next(); line != nullptr; line = lines.next()) {
        if (wireless_parse_line(line, device, token, number)) {
            return true;
        }
    }
    return false;
}

Reading wireless_quality(const Record *record) {
    trace(TRACE_TRACE, "%s %s", record->file, record->dev);
    const FileHandle file(std::fopen(record->file, "re"));
    const int open_error = errno;
    double quality = 0;
    Reading reading = Reading::failed(EINVAL);
    if (!file) {
        reading = Reading::failed_with_errno(open_error);
    } else if (search_number(file.get(), record->dev, TOKEN_QUALITY, &quality)) {
        reading = Reading::of_number(quality);
    }
    if (reading.error != 0) {
        trace(TRACE_TRACE, "%s FAILED!", "CB04");
    }
    return reading;
}

/// Any failure to open is EINVAL, unlike for the quality.
Reading wireless_strength(const Record *record) {
    trace(TRACE_TRACE, "%s %s", record->file, record->dev);
    const FileHandle file(std::fopen(record->file, "re"));
    if (!file && errno == 0) {
        return Reading::of(0);
    }
    double level = 0;
    const bool found = file && search_number(file.get(), record->dev, TOKEN_LEVEL, &level);
    const Reading reading = found ? wireless_round(level) : Reading::failed(EINVAL);
    if (reading.error != 0) {
        trace(TRACE_TRACE, "%s FAILED!", "CB09");
    } else {
        trace(TRACE_TRACE, "value: %d (%f), level: %f", reading.value, level >= 0 ? level + 0.5 : level - 0.5, level);
    }
    return reading;
}

Reading wireless_read(const Record *record) {
    switch (record->id) {
    case ID_QUALITY:
        return wireless_quality(record);
    case ID_STRENGTH:
        return wireless_strength(record);
    case ID_WIFI_HARDWARE:
    case ID_WIFI_LINK:
        return wireless_state(record);
    default:
        trace_as("wireless_exec", TRACE_TRACE, "%s(%d) FAILED!", "default", record->id);
        return Reading::failed(EINVAL);
    }
}

/// The run condition of the wireless tasks: always run.
int wireless_active(Task * /*task*/) {
    trace(TRACE_TRACE, " ");
    return 1;
}

/// Appends the task's sentence; false for an id without one. "sufficiant" and the capital "Signal" are kept.
bool append_sentence(TextBuffer *line, const Task *task) {
    const bool good = task->state == 0;
    if (!is_wireless_id(task->id)) {
        trace_as("wireless_logger", TRACE_TRACE, "unknown");
        return false;
    }
    trace_as("wireless_logger", TRACE_TRACE, "Issue CB%02d", task->id);
    switch (task->id) {
    case ID_WIFI_HARDWARE:
        line->append_format("Wireless hardware %s available.", good ? "is" : "is not");
        break;
    case ID_WIFI_LINK:
        line->append_format("Wireless hardware %s working.", good ? "is" : "is not");
        break;
    case ID_QUALITY:
        line->append_format("Wireless Signal quality is %ssufficiant.", good ? "" : "in");
        break;
    default:
        line->append_format("Wireless signal strength is %ssufficiant.", good ? "" : "in");
        break;
    }
    return true;
}

} // namespace

int wireless_init(Task *task) {
    trace(TRACE_INFO, " ");
    if (!is_wireless_id(task->id)) {
        trace(TRACE_TRACE, "wrong id: %d", task->id);
        return -1;
    }
    const char *failure = add_record(task);
    if (failure != nullptr) {
        trace(TRACE_TRACE, "%s", failure);
        return -1;
    }
    task->precondition = wireless_active;
    probe_mark_initialised(task);
    task->flags |= TASK_HAS_PRECONDITION;
    return 0;
}

int wireless_exec(Task *task) {
    trace(TRACE_DEBUG, " ");
    if (wifi_available != 1) {
        task->do_logfile = 0;
        return probe_fail(task, ENONET);
    }
    task->do_logfile = 1;
    const Record *record = wireless_psearch(task);
    if (record == nullptr || record->file == nullptr) {
        trace(TRACE_TRACE, "CB%02d %d: FAILED", task->id, task->index);
        return -1;
    }
    trace(TRACE_TRACE, "CB%02d %d: FOUND", task->id, task->index);
    task_clear(task, TASK_VALUE_VALID);
    const Reading reading = wireless_read(record);
    if (reading.error != 0) {
        return probe_fail(task, reading.error);
    }
    trace(TRACE_TRACE, "%s: %d", task->parameter, reading.value);
    return probe_succeed(task, reading.value);
}

int wireless_logger(Task *task) {
    trace(TRACE_DEBUG, " ");
    if (task->do_log != 1) {
        return 0;
    }
    task->do_log = 0;
    std::array<char, 1023> text{}; // half the size in the other probes' loggers
    TextBuffer line = logger_value_line(text, task);
    if (task_has(task, TASK_HAS_FORMAT) && task->format != nullptr && *task->format != '\0') {
        line.append_format("%s: ", task->format); // format holds the interface's name; no sentence follows
    } else if (!append_sentence(&line, task)) {
        return 0;
    }
    logger_syslog(probe_log_state(task), line.c_str());
    return 0;
}
