#pragma once

// The task record and the one settings record.

#include <array>
#include <cstdint>

struct Task;

/// An operation of a task. Each slot defines what the result means.
using TaskOperation = int (*)(Task *);

/// An operation and the name under which the dump shows it.
struct NamedOperation {
    TaskOperation run;
    const char *name;
};

enum TaskFlag : std::uint32_t {
    TASK_INITIALISED = 0x1,
    TASK_REINIT = 0x2,
    TASK_RUNNABLE = 0x4,
    TASK_HAS_PRECONDITION = 0x8,
    TASK_HAS_CLEANUP = 0x10,
    TASK_HAS_SOURCE = 0x20,
    TASK_HAS_ANALYZE = 0x40,
    TASK_HAS_NOTIFY = 0x80,
    TASK_HAS_LOGGING = 0x100,
    TASK_HAS_ID = 0x200,
    TASK_HAS_INTERVAL = 0x400,
    TASK_HAS_MINFAIL = 0x800,
    TASK_HAS_MINWARN = 0x1000,
    TASK_HAS_MAXWARN = 0x2000,
    TASK_HAS_MAXFAIL = 0x4000,
    TASK_HAS_HYSTERESIS = 0x8000,
    TASK_HAS_DELAY = 0x10000,
    TASK_VALUE_VALID = 0x20000,
    TASK_HAS_FORMAT = 0x40000,
    TASK_HAS_PARAMETER = 0x80000,
    TASK_BUILTIN = 0x100000,
};

/// The id of a task without an issue, shown as "CBnn".
inline constexpr std::int32_t TASK_ID_UNSET = 99;
/// The id whose parameter is the number in `minfail`; kept, though no built-in task has it.
inline constexpr std::int32_t TASK_ID_NUMERIC_PARAMETER = 19;

/// One check. The texts are borrowed; built-in tasks live for the whole process.
struct Task {
    Task *next;
    Task *prev;
    std::uint32_t flags;
    TaskOperation init;         ///< called once at start
    TaskOperation precondition; ///< 0 skips a run; called when TASK_HAS_PRECONDITION is set
    TaskOperation cleanup;      ///< called at exit when TASK_HAS_CLEANUP is set
    TaskOperation exec;         ///< the probe: stores `value` and TASK_VALUE_VALID, or `error`
    const char *source;         ///< the probe's name, for the dump and the scheduler's traces
    NamedOperation analyze;
    NamedOperation notify;
    NamedOperation logging;
    const char *name;      ///< the probe's name, for the status log's header and all other traces
    std::int32_t id;       ///< the issue's number: 20 is CB20
    std::int32_t index;    ///< distinguishes the tasks of one issue
    std::int32_t interval; ///< seconds
    std::int32_t minfail;
    std::int32_t minwarn;
    std::int32_t maxwarn;
    std::int32_t maxfail;
    std::int32_t hysteresis;
    std::int32_t delay;    ///< consecutive samples before a change of state
    const char *parameter; ///< what the probe measures: a file, an interface, a list of services
    const char *format;    ///< template of the sentence
    std::int64_t next_run; ///< seconds since the epoch
    std::int32_t value;
    std::int32_t error;           ///< errno-style code of the last failed run
    std::int32_t child_pid;       ///< of the load logger; 0 if it does not run
    std::uint8_t counter_minfail; ///< consecutive samples of this class, as the other counters
    std::uint8_t counter_minwarn;
    std::uint8_t counter_ok;
    std::uint8_t counter_maxwarn;
    std::uint8_t counter_maxfail;
    std::int8_t state;       ///< -2 failure below, -1 warning below, 0 OK, 1 warning above, 2 failure above
    std::uint8_t analyzable; ///< 0: the analyzers ignore the value
    std::uint8_t do_notify;  ///< the notifier reports the changed state
    std::uint8_t do_log;     ///< the logger writes a sentence
    std::uint8_t do_logfile; ///< the status log gets a record; 0 while the check is suspended
};

/// Whether all bits of `mask` are set in the task's flags.
constexpr bool task_has(const Task *task, std::uint32_t mask) { return (task->flags & mask) == mask; }

/// Clears all bits of `mask` in the task's flags.
constexpr void task_clear(Task *task, std::uint32_t mask) { task->flags &= ~mask; }

/// A list of tasks linked through `next` and `prev`.
struct TaskList {
    Task *first;
    Task *last;
    std::int32_t count;
};

enum LogLevel : std::int32_t { LOGLEVEL_FAIL = 1, LOGLEVEL_WARNING = 2, LOGLEVEL_OK = 3 };
enum SeverityLevel : std::int32_t { SEVERITY_CRITICAL = 2, SEVERITY_FAILED = 3, SEVERITY_WARNING = 4, SEVERITY_OK = 5 };

inline constexpr std::int32_t LOGSIZE_MIN = 10240;
inline constexpr std::int32_t LOGSIZE_MAX = 104857600;
inline constexpr std::int32_t LOGCOUNT_MAX = 128;

/// The settings of the daemon.
struct GlobalData {
    TaskList tasks;
    const char *logfile;
    std::int32_t logsize; ///< bytes
    std::int32_t logcount;
    std::int32_t loglevel;
    std::int32_t severitylevel;
    const char *dbus_busname;
    const char *dbus_path;
    const char *dbus_if;
    std::int32_t interval;      ///< seconds
    std::int32_t intervalsteps; ///< seconds between heartbeats
    const char *analyze;
    const char *notify;
    const char *logging;
    std::int32_t hysteresis;
};

/// The record itself, for the dump and for tests only.
GlobalData &gdata_record();

/// Sets the list of tasks, which must live as long as the process. Writes no trace: the options, which select the
/// destination of traces, have not been parsed yet.
void gdata_set_tasks(const TaskList &tasks);
/// The first task, null when there is none.
Task *gdata_get_task_head();

/// The current status log file.
const char *gdata_get_logfile();
/// Whether the status log can be appended to `path`, which is created if missing. False with errno set; EINVAL
/// for any name of the lock file in the same folder: closing it would release the lock.
bool gdata_can_log_to(const char *path);
/// Stores a copy of `path` if gdata_can_log_to accepts it. Returns the current path; after a failure this is the
/// old one and errno is set.
const char *gdata_set_logfile(const char *path);

std::int32_t gdata_get_logcount();
/// Stores and returns the number of log generations, clamped to 0..128.
std::int32_t gdata_set_logcount(std::int32_t count);

std::int32_t gdata_get_logsize();
/// Stores and returns the size limit in bytes, clamped to 10240..104857600.
std::int32_t gdata_set_logsize(std::int32_t bytes);

std::int32_t gdata_get_loglevel();
/// Stores and returns the record level; outside 1..3 it becomes 2.
std::int32_t gdata_set_loglevel(std::int32_t level);

std::int32_t gdata_get_severitylevel();
/// Stores and returns the severity level; outside 2..5 it becomes 4.
std::int32_t gdata_set_severitylevel(std::int32_t level);

/// The daemon's command line, null until set.
const char *gdata_get_commandline();
/// Joins argv[0] and, each after a blank, the further arguments in double quotes, unescaped. Returns the
/// text, or null when out of memory; the old text is lost then.
const char *gdata_set_commandline(int argc, char *const argv[]);

const char *gdata_get_dbus_busname();
const char *gdata_get_dbus_path();
const char *gdata_get_dbus_if();
/// The default interval of a task. Never called by the daemon; kept.
[[gnu::used, gnu::retain]] std::int32_t gdata_get_interval();
std::int32_t gdata_get_intervalsteps();

/// Writes the current settings and every task to stdout; returns 0.
int gdata_config_print();

struct LevelName {
    const char *name;
    std::int32_t level;
};

/// The names of the levels, as options take them and as the dump and the options' warnings show them.
inline constexpr std::array<LevelName, 3> LOG_LEVELS{{
    {"fail", LOGLEVEL_FAIL},
    {"warning", LOGLEVEL_WARNING},
    {"OK", LOGLEVEL_OK},
}};
inline constexpr std::array<LevelName, 4> SEVERITY_LEVELS{{
    {"critical", SEVERITY_CRITICAL},
    {"failed", SEVERITY_FAILED},
    {"warning", SEVERITY_WARNING},
    {"OK", SEVERITY_OK},
}};

/// The level's name; the last of its table for an unknown level.
const char *gdata_loglevel_name(std::int32_t level);
const char *gdata_severitylevel_name(std::int32_t level);
