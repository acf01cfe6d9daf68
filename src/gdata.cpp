#include "gdata.h"

#include "handle.h"
#include "immortal.h"
#include "trace.h"

#include <algorithm>
#include <cstring>

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

constinit Immortal<TextHandle> commandline;
constinit Immortal<TextHandle> logfile_allocated; // none while the built-in text is in force

/// `argument` in double quotes behind a blank, written at `end`; returns the new end.
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

const char *gdata_set_logfile(const char *path) {
    trace(TRACE_TRACE, "fn: %s", path);
    const Descriptor file = open_for_append(path);
    if (!file) {
        return data.logfile;
    }
    TextHandle copy(strdup(path)); // made first: `path` may be the text in force
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
