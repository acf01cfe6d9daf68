#include "gdata.h"

#include "trace.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <span>

namespace {

void print_heading(const char *text) {
    constexpr const char *separator = "########################################";
    std::printf("%s\n%s\n%s\n", separator, text, separator);
}

void print_quoted(const char *label, const char *text) { std::printf("%-16s\"%s\"\n", label, text); }

void print_text(const char *label, const char *text) { std::printf("%-16s%s\n", label, text); }

void print_number(const char *label, std::int32_t number) { std::printf("%-16s%d\n", label, number); }

void print_handler(const char *label, const char *name) {
    if (name != nullptr && *name != '\0') {
        print_text(label, name);
    }
}

void end_block() {
    std::printf("\n");
    std::fflush(stdout);
}

void print_logging(const GlobalData &data) {
    std::printf("#   logging configuration\n");
    print_quoted("logfile:", data.logfile);
    print_number("logcount:", data.logcount);
    std::printf("%-16s%dK\n", "logsize:", data.logsize / 1024);
    print_text("loglevel:", gdata_loglevel_name(data.loglevel));
    end_block();
    std::printf("#   syslog severity\n");
    print_text("severitylevel:", gdata_severitylevel_name(data.severitylevel));
    end_block();
}

void print_bus(const GlobalData &data) {
    std::printf("#   the dbus path vigmond listens/talking too\n"); // sic
    print_quoted("dbus_busname:", data.dbus_busname);
    print_quoted("dbus_path:", data.dbus_path);
    print_quoted("dbus_if:", data.dbus_if);
    end_block();
}

void print_defaults(const GlobalData &data) {
    std::printf("#   heartbeat\n");
    print_number("intervalsteps:", data.intervalsteps);
    print_number("interval:", data.interval);
    end_block();
    std::printf("#   default handlers and configuration\n");
    print_handler("analyze:", data.analyze);
    print_handler("notify:", data.notify);
    print_handler("logging:", data.logging);
    print_number("hysteresis:", data.hysteresis);
    end_block();
}

void print_global_part(const GlobalData &data) {
    print_heading("#   global data");
    end_block();
    print_logging(data);
    print_bus(data);
    print_defaults(data);
    print_heading("#   end global data");
    std::fflush(stdout);
}

void print_task_text(const Task *task, std::uint32_t flag, const char *label, const char *text) {
    if (task_has(task, flag)) {
        std::printf("    %-16s%s\n", label, text);
    }
}

void print_task_quoted(const Task *task, std::uint32_t flag, const char *label, const char *text) {
    if (task_has(task, flag)) {
        std::printf("    %-16s\"%s\"\n", label, text);
    }
}

void print_task_number(const Task *task, std::uint32_t flag, const char *label, std::int32_t number) {
    if (task_has(task, flag)) {
        std::printf("    %-16s%d\n", label, number);
    }
}

void print_task_id(const Task *task) {
    if (!task_has(task, TASK_HAS_ID)) {
        return;
    }
    if (task->id == TASK_ID_UNSET) {
        std::printf("    %-16sCBnn\n", "ID:");
    } else {
        std::printf("    %-16sCB%02d\n", "ID:", task->id);
    }
}

void print_task(const Task *task, int number) {
    std::printf("#    task %d\n{\n", number);
    print_task_text(task, TASK_HAS_SOURCE, "source:", task->source);
    print_task_id(task);
    if (task->id == TASK_ID_NUMERIC_PARAMETER) { // regardless of the flags
        std::printf("    %-16s\"%d\"\n", "parameter:", task->minfail);
    }
    print_task_quoted(task, TASK_HAS_PARAMETER, "parameter:", task->parameter);
    print_task_number(task, TASK_HAS_INTERVAL, "interval:", task->interval);
    print_task_number(task, TASK_HAS_MAXFAIL, "maxfail:", task->maxfail);
    print_task_number(task, TASK_HAS_MAXWARN, "maxwarn:", task->maxwarn);
    print_task_number(task, TASK_HAS_MINWARN, "minwarn:", task->minwarn);
    print_task_number(task, TASK_HAS_MINFAIL, "minfail:", task->minfail);
    print_task_number(task, TASK_HAS_HYSTERESIS, "hysteresis:", task->hysteresis);
    print_task_number(task, TASK_HAS_DELAY, "delay:", task->delay);
    print_task_text(task, TASK_HAS_ANALYZE, "analyze:", task->analyze.name);
    print_task_text(task, TASK_HAS_NOTIFY, "notify:", task->notify.name);
    print_task_text(task, TASK_HAS_LOGGING, "logging:", task->logging.name);
    print_task_quoted(task, TASK_HAS_FORMAT, "format:", task->format);
    std::printf("}\n");
    end_block();
}

void print_task_part(const TaskList &tasks) {
    std::array<char, 40> title{};
    std::snprintf(title.data(), title.size(), "#   tasklist[%d]", tasks.count);
    print_heading(title.data());
    end_block();
    int number = 0;
    for (const Task *task = tasks.first; task != nullptr; task = task->next) {
        print_task(task, ++number);
    }
    print_heading("#   end tasklist");
    std::fflush(stdout);
}

const char *name_of(std::span<const LevelName> table, std::int32_t level) {
    const auto row =
        std::find_if(table.begin(), table.end() - 1, [level](const LevelName &entry) { return entry.level == level; });
    return row->name;
}

} // namespace

const char *gdata_loglevel_name(std::int32_t level) { return name_of(LOG_LEVELS, level); }

const char *gdata_severitylevel_name(std::int32_t level) { return name_of(SEVERITY_LEVELS, level); }

int gdata_config_print() {
    trace(TRACE_TRACE, " ");
    gdata_set_severitylevel(gdata_get_severitylevel());
    gdata_set_logcount(gdata_get_logcount());
    gdata_set_logsize(gdata_get_logsize());
    gdata_set_loglevel(gdata_get_loglevel());
    const GlobalData &data = gdata_record();
    print_global_part(data);
    print_task_part(data.tasks);
    trace(TRACE_TRACE, "DONE");
    return 0;
}
