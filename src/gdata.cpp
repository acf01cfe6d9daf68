#include "gdata.h"

#include "handle.h"
#include "no_destructor.h"
#include "trace.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

namespace {

constinit GlobalData data{
    .tasks = {},
    .logfile = "/var/lib/evse/vigmond/logfile",
    .logsize = 8388608,
    .logcount = 20,
    .loglevel = LOGLEVEL_OK,
    .severitylevel = SEVERITY_OK,
    .dbus_busname = "com.corvana.vigmond",
    .dbus_path = "/com/corvana/Monitoring1",
    .dbus_if = "com.corvana.State2.Issues",
    .interval = 10,
    .intervalsteps = 10,
    .analyze = "common",
    .notify = "common",
    .logging = "common",
    .hysteresis = 0,
};

constinit NoDestructor<TextHandle> commandline;
constinit NoDestructor<TextHandle> logfile_allocated; // null while the built-in path is used

/// Writes a blank and `argument` in double quotes at `end`; returns the new end.
char *append_quoted(char *end, const char *argument) {
    end = stpcpy(end, " \"");
    end = stpcpy(end, argument);
    return stpcpy(end, "\"");
}

std::size_t commandline_size(int argc, char *const argv[]) {
    std::size_t size = 1;
    for (int i = 0; i < argc; ++i) {
        size += std::strlen(argv[i]) + std::strlen(" \"\"");
    }
    return size;
}

constexpr const char *LOCK_NAME = ".lock";

/// The length of the path's directory part, including the slash.
std::size_t directory_length(const char *path) {
    const char *slash = std::strrchr(path, '/');
    return slash == nullptr ? 0 : static_cast<std::size_t>(slash - path) + 1;
}

/// Whether `file`, opened as `path`, is a link to the lock file in its directory.
bool is_lock_file(const char *path, const Descriptor &file) {
    std::array<char, PATH_MAX + 8> lock{}; // open() has accepted the path, so it is not longer than PATH_MAX
    std::snprintf(lock.data(), lock.size(), "%.*s%s", static_cast<int>(directory_length(path)), path, LOCK_NAME);
    struct stat of_lock {};
    struct stat of_file {};
    return stat(lock.data(), &of_lock) == 0 && fstat(file.get(), &of_file) == 0 && of_lock.st_dev == of_file.st_dev &&
           of_lock.st_ino == of_file.st_ino;
}

} // namespace

GlobalData &gdata_record() { return data; }

void gdata_set_tasks(const TaskList &tasks) { data.tasks = tasks; }

Task *gdata_get_task_head() {
    trace(TRACE_TRACE, " ");
    return data.tasks.first;
}

const char *gdata_get_logfile() {
    trace(TRACE_TRACE, " ");
    return data.logfile;
}

bool gdata_can_log_to(const char *path) {
    if (std::strcmp(path + directory_length(path), LOCK_NAME) == 0) {
        errno = EINVAL;
        return false;
    }
    const Descriptor file = open_for_append(path);
    if (file && is_lock_file(path, file)) {
        errno = EINVAL;
        return false;
    }
    return static_cast<bool>(file);
}

const char *gdata_set_logfile(const char *path) {
    trace(TRACE_TRACE, "fn: %s", path);
    if (!gdata_can_log_to(path)) {
        return data.logfile;
    }
    TextHandle copy(strdup(path)); // before the old one is freed: `path` may point to it
    if (!copy) {
        return data.logfile;
    }
    logfile_allocated.get() = std::move(copy);
    data.logfile = logfile_allocated.get().get();
    return data.logfile;
}

std::int32_t gdata_get_logcount() {
    trace(TRACE_TRACE, " ");
    return data.logcount;
}

std::int32_t gdata_set_logcount(std::int32_t count) {
    trace(TRACE_TRACE, "cnt: %d", count);
    data.logcount = std::clamp(count, 0, LOGCOUNT_MAX);
    return data.logcount;
}

std::int32_t gdata_get_logsize() {
    trace(TRACE_TRACE, " ");
    return data.logsize;
}

std::int32_t gdata_set_logsize(std::int32_t bytes) {
    trace(TRACE_TRACE, "sz: %d", bytes);
    data.logsize = std::clamp(bytes, LOGSIZE_MIN, LOGSIZE_MAX);
    return data.logsize;
}

std::int32_t gdata_get_loglevel() {
    trace(TRACE_TRACE, " ");
    return data.loglevel;
}

std::int32_t gdata_set_loglevel(std::int32_t level) {
    trace(TRACE_TRACE, "lvl: %d", level);
    data.loglevel = level < LOGLEVEL_FAIL || level > LOGLEVEL_OK ? LOGLEVEL_WARNING : level;
    return data.loglevel;
}

std::int32_t gdata_get_severitylevel() {
    trace(TRACE_TRACE, " ");
    return data.severitylevel;
}

std::int32_t gdata_set_severitylevel(std::int32_t level) {
    trace(TRACE_TRACE, "lvl: %d", level);
    data.severitylevel = level < SEVERITY_CRITICAL || level > SEVERITY_OK ? SEVERITY_WARNING : level;
    return data.severitylevel;
}

const char *gdata_get_commandline() {
    trace(TRACE_TRACE, " ");
    return commandline.get().get();
}

const char *gdata_set_commandline(int argc, char *const argv[]) {
    trace(TRACE_TRACE, "argc: %d", argc);
    commandline.get() = text_allocate(commandline_size(argc, argv));
    char *end = commandline.get().get();
    if (end == nullptr) {
        return nullptr;
    }
    if (argc > 0) {
        end = stpcpy(end, argv[0]);
    }
    for (int i = 1; i < argc; ++i) {
        end = append_quoted(end, argv[i]);
    }
    trace(TRACE_TRACE, "gdata_commandline: '%s'", commandline.get().get());
    return commandline.get().get();
}

const char *gdata_get_dbus_busname() {
    trace(TRACE_TRACE, " ");
    return data.dbus_busname;
}

const char *gdata_get_dbus_path() {
    trace(TRACE_TRACE, " ");
    return data.dbus_path;
}

const char *gdata_get_dbus_if() {
    trace(TRACE_TRACE, " ");
    return data.dbus_if;
}

std::int32_t gdata_get_interval() {
    trace(TRACE_TRACE, " ");
    return data.interval;
}

std::int32_t gdata_get_intervalsteps() {
    trace(TRACE_TRACE, " ");
    return data.intervalsteps;
}
