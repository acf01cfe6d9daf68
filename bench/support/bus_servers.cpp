#include "bus_servers.h"

#include "dbus-srv.h"
#include "dbus-srv/bus_handle.h"
#include "dbus-srv/issues.h"
#include "dbus-srv/mutex_lock.h"
#include "gdata.h"
#include "line_tap.h"

#include <array>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <spawn.h>
#include <string_view>
#include <sys/wait.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

namespace {

constexpr std::array<const char *, 4> KIND_NAMES{"daemon", "daemon_without_journal", "bare", "bare_with_traces"};
constexpr dbus_uint32_t CHANGED = 1700000000;
constexpr std::uint32_t SWITCHED_ISSUE = 7;

bool drop_line(int /*priority*/, const char * /*file*/, const char * /*line*/, const char * /*function*/,
               const char * /*format*/, std::va_list /*arguments*/) {
    return false;
}

constexpr std::uint32_t id_of(int issue) { return issue == ALL_ISSUES - 1 ? 99 : static_cast<std::uint32_t>(issue); }

void raise_issues(int count) {
    for (int issue = 0; issue < count; ++issue) {
        d_bus_srv_issue_update(id_of(issue), 1);
    }
    const MutexLock lock(registry_lock);
    for (Issue &issue : issue_registry) {
        issue.changed = CHANGED;
    }
}

[[noreturn]] void serve_as_daemon(const char *name, int issues) {
    gdata_record().dbus_busname = name;
    d_bus_srv_init();
    raise_issues(issues);
    std::string line;
    for (int pass = 0; std::getline(std::cin, line); ++pass) {
        const std::int64_t start = std::time(nullptr);
        d_bus_srv_issue_update(SWITCHED_ISSUE, 1 - pass % 2);
        d_bus_srv_send_issues(start);
        std::cout << monotonic_time() << std::endl;
    }
    std::exit(0);
}

// The bare server: only the calls of libdbus, and of the journal if it traces.

void bare_trace(bool tracing, const char *function, const char *text) {
    if (tracing) {
        sd_journal_print_with_location(LOG_DEBUG, "CODE_FILE=dbus-srv.c", "CODE_LINE=100", function,
                                       "(3) [10000] 12:00:07 dbus-srv.c: %s(100) %s\n", function, text);
    }
}

void bare_answer(DBusConnection *connection, DBusMessage *call, const std::vector<std::string> &labels, bool tracing) {
    constexpr const char *function = "d_bus_srv_GetListing";
    bare_trace(tracing, "d_bus_srv_main", "check request");
    bare_trace(tracing, "d_bus_srv_main", "call method: GetListing");
    bare_trace(tracing, function, " ");
    bare_trace(tracing, function, "LOCK");
    const BusMessage reply(dbus_message_new_method_return(call));
    DBusMessageIter body{};
    DBusMessageIter array{};
    DBusMessageIter element{};
    dbus_message_iter_init_append(reply.get(), &body);
    if (!labels.empty()) {
        dbus_message_iter_open_container(&body, DBUS_TYPE_ARRAY, "(us)", &array);
        for (const std::string &each : labels) {
            bare_trace(tracing, function, "issue: CB00, cnt: 1, time: 1700000000");
            const char *label = each.c_str();
            dbus_message_iter_open_container(&array, DBUS_TYPE_STRUCT, nullptr, &element);
            dbus_message_iter_append_basic(&element, DBUS_TYPE_UINT32, &CHANGED);
            dbus_message_iter_append_basic(&element, DBUS_TYPE_STRING, static_cast<const void *>(&label));
            dbus_message_iter_close_container(&array, &element);
        }
        dbus_message_iter_close_container(&body, &array);
    }
    bare_trace(tracing, function, "UNLOCK");
    dbus_connection_send(connection, reply.get(), nullptr);
    dbus_connection_flush(connection);
}

[[noreturn]] void serve_bare(const char *name, int issues, bool tracing) {
    std::vector<std::string> labels;
    labels.reserve(static_cast<std::size_t>(issues));
    for (int issue = 0; issue < issues; ++issue) {
        labels.emplace_back(issue_registry[static_cast<std::size_t>(issue)].label);
    }
    BusError error;
    DBusConnection *connection = dbus_bus_get(DBUS_BUS_SYSTEM, error.fresh());
    dbus_bus_request_name(connection, name, 0, error.fresh());
    for (;;) {
        while (const BusMessage message{dbus_connection_pop_message(connection)}) {
            if (dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_METHOD_CALL) {
                bare_answer(connection, message.get(), labels, tracing);
            }
        }
        bare_trace(tracing, "d_bus_srv_main", "wait for request");
        dbus_connection_read_write(connection, -1);
    }
}

} // namespace

std::vector<std::string> server_command(Server kind, int issues, const std::string &name) {
    return {"/proc/self/exe", "serve", KIND_NAMES[static_cast<std::size_t>(kind)], std::to_string(issues), name};
}

void serve_if_asked(int argc, char **argv) {
    if (argc != 5 || std::strcmp(argv[1], "serve") != 0) {
        return;
    }
    const std::string_view kind = argv[2];
    int issues = 0;
    std::from_chars(argv[3], argv[3] + std::strlen(argv[3]), issues);
    if (kind.starts_with(KIND_NAMES[0])) {
        line_tap = kind == KIND_NAMES[0] ? nullptr : drop_line;
        serve_as_daemon(argv[4], issues);
    }
    serve_bare(argv[4], issues, kind == KIND_NAMES[3]);
}

Process::Process(std::vector<std::string> command) {
    std::array<int, 2> in{};
    std::array<int, 2> out{};
    if (pipe2(in.data(), O_CLOEXEC) != 0 || pipe2(out.data(), O_CLOEXEC) != 0) {
        return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    std::vector<char *> arguments;
    arguments.reserve(command.size() + 1);
    for (std::string &word : command) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    if (posix_spawnp(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ) != 0) {
        std::perror(arguments[0]);
    }
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    input_ = in[1];
    output_ = out[0];
}

Process::~Process() {
    kill();
    close(input_);
    close(output_);
}

void Process::kill() {
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }
}

void Process::write_line(const std::string &line) const {
    const std::string bytes = line + "\n";
    if (write(input_, bytes.data(), bytes.size()) < 0) {
        std::perror("write");
    }
}

std::string Process::read_line() const {
    std::string line;
    char byte = 0;
    while (read(output_, &byte, 1) == 1 && byte != '\n') {
        line += byte;
    }
    return line;
}

long Process::processor_time() const {
    clockid_t clock = 0;
    timespec used{};
    if (clock_getcpuclockid(pid_, &clock) == 0) {
        clock_gettime(clock, &used);
    }
    return used.tv_sec * 1'000'000'000L + used.tv_nsec;
}

long monotonic_time() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1'000'000'000L + now.tv_nsec;
}
