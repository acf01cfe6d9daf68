// The bus service alone, in its own process since its threads never end. Executes each line it reads and answers "ok"
// when done:
//   update ID STATE   a report to the registry
//   send NOW          the end of a pass that began at NOW
//   flood COUNT       COUNT passes, each raising or clearing CB07
//   fail-send         the next send of a message fails
//   miss-answer       the bus gets the next request for the name, but the thread is told that it was not sent
//   lose-bus PID      the bus (process PID) ends just before the next message is sent
//   go                the stopped thread continues
//   exit              exit(1), as at a termination signal
// With the argument "trace" every trace goes to stderr, otherwise traces are dropped. At most one further argument:
//   interface=NAME    configures the interface
//   name=NAME         configures the name on the bus
//   hold=THREAD       THREAD ("listener" or "sender") stops before it first connects
//   held-pauses       each pause of a thread is reported on stderr and lasts until "go"
//   miss-answer       as the command
//   no-eventfd        eventfd fails
//   noted-message     starts as if a message had already been read
//   sender-reads      before the listener waits, another thread reads the next message; then "read in" on stderr

#include "dbus-srv.h"
#include "dbus-srv/link.h"
#include "dbus-srv/listener.h"
#include "dbus-srv/queue.h"
#include "dbus-srv/sender.h"
#include "gdata.h"
#include "handle.h"
#include "trace.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <dbus/dbus.h>
#include <fcntl.h>
#include <iostream>
#include <poll.h>
#include <semaphore>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <thread>

namespace {

constexpr std::string_view INTERFACE = "interface=";
constexpr std::string_view NAME = "name=";
constexpr std::string_view HOLD = "hold=";

std::string_view held_thread;
std::binary_semaphore held_thread_may_continue{0};
bool held_pauses = false;
bool no_eventfd = false;
bool noted_message = false;
bool sender_reads = false;
std::atomic<bool> send_fails = false;
std::atomic<bool> answer_is_missed = false;
std::atomic<pid_t> bus_to_end = 0;

void flood(int count) {
    for (int pass = 0; pass < count; ++pass) {
        const std::int64_t start = std::time(nullptr);
        d_bus_srv_issue_update(7, 1 - pass % 2);
        d_bus_srv_send_issues(start);
    }
}

void obey(const std::string &line) {
    std::istringstream words(line);
    std::string command;
    std::int64_t first = 0;
    std::int32_t second = 0;
    words >> command >> first >> second;
    if (command == "update") {
        d_bus_srv_issue_update(static_cast<std::uint32_t>(first), second);
    } else if (command == "send") {
        d_bus_srv_send_issues(first);
    } else if (command == "flood") {
        flood(static_cast<int>(first));
    } else if (command == "fail-send") {
        send_fails = true;
    } else if (command == "miss-answer") {
        answer_is_missed = true;
    } else if (command == "lose-bus") {
        bus_to_end = static_cast<pid_t>(first);
    } else if (command == "go") {
        held_thread_may_continue.release();
    } else if (command == "exit") {
        std::exit(1);
    }
}

void configure(std::string_view argument) {
    if (argument == "trace") {
        trace_mode = 3;
    } else if (argument.starts_with(INTERFACE)) {
        gdata_record().dbus_if = argument.data() + INTERFACE.size();
    } else if (argument.starts_with(NAME)) {
        gdata_record().dbus_busname = argument.data() + NAME.size();
    } else if (argument.starts_with(HOLD)) {
        held_thread = argument.substr(HOLD.size());
    }
    held_pauses = held_pauses || argument == "held-pauses";
    answer_is_missed = answer_is_missed || argument == "miss-answer";
    no_eventfd = no_eventfd || argument == "no-eventfd";
    noted_message = noted_message || argument == "noted-message";
    sender_reads = sender_reads || argument == "sender-reads";
}

void hold(std::string_view thread) {
    if (thread == held_thread) {
        held_thread_may_continue.acquire();
    }
}

void *tell_end(const char *thread, void *status) {
    std::fprintf(stderr, "the %s has ended with %d\n", thread, *static_cast<const int *>(status));
    return status;
}

void *run_listener(void *argument) {
    hold("listener");
    return tell_end("listener", d_bus_srv_main(argument));
}
void *run_sender(void *argument) {
    hold("sender");
    return tell_end("sender", d_bus_srv_msg_sender(argument));
}

/// What the sender does with messages that arrive while it sends.
void read_in() {
    if (const BusLinkView link = bus_link_get(); link.connection) {
        dbus_connection_read_write(link.connection.get(), -1);
        std::fputs("read in\n", stderr);
    }
}

/// Ends the bus and waits until its end of the connection is closed. The other thread may close this end at once, and
/// the descriptor number may be reused.
void end_bus(pid_t bus, DBusConnection *connection) {
    int socket = -1;
    dbus_connection_get_unix_fd(connection, &socket);
    const Descriptor own(fcntl(socket, F_DUPFD_CLOEXEC, 0));
    pollfd closing{own.get(), 0, 0};
    kill(bus, SIGKILL);
    poll(&closing, 1, 60000);
}

} // namespace

extern "C" {
dbus_bool_t __real_dbus_connection_send(DBusConnection *connection, DBusMessage *message, dbus_uint32_t *serial);

dbus_bool_t __wrap_dbus_connection_send(DBusConnection *connection, DBusMessage *message, dbus_uint32_t *serial) {
    if (const pid_t bus = bus_to_end.exchange(0); bus > 0) {
        end_bus(bus, connection);
    }
    if (send_fails.exchange(false)) {
        return FALSE;
    }
    const dbus_bool_t sent = __real_dbus_connection_send(connection, message, serial);
    const bool is_request = dbus_message_is_method_call(message, DBUS_INTERFACE_DBUS, "RequestName") != 0;
    return is_request && answer_is_missed.exchange(false) ? FALSE : sent;
}

int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*start)(void *), void *argument);

int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*start)(void *), void *argument) {
    if (start == d_bus_srv_main) {
        start = run_listener;
    } else if (start == d_bus_srv_msg_sender) {
        start = run_sender;
    }
    return __real_pthread_create(thread, attributes, start, argument);
}

unsigned __real_sleep(unsigned seconds);

unsigned __wrap_sleep(unsigned seconds) {
    if (!held_pauses) {
        return __real_sleep(seconds);
    }
    std::fprintf(stderr, "pause %u\n", seconds);
    held_thread_may_continue.acquire();
    return 0;
}

int __real_eventfd(unsigned count, int flags);

int __wrap_eventfd(unsigned count, int flags) {
    if (no_eventfd) {
        errno = EMFILE;
        return -1;
    }
    return __real_eventfd(noted_message ? 1 : count, flags);
}

int __real_poll(pollfd *awaited, nfds_t count, int timeout);

int __wrap_poll(pollfd *awaited, nfds_t count, int timeout) {
    if (sender_reads && count == 2) { // the listener's
        std::thread(read_in).join();
    }
    return __real_poll(awaited, count, timeout);
}

// Linked before the library's own.
int sd_journal_print_with_location(int /*priority*/, const char * /*file*/, const char * /*line*/,
                                   const char * /*function*/, const char * /*format*/, ...) {
    return 0;
}
}

int main(int argc, char *argv[]) {
    for (int i = 1; i < argc; ++i) {
        configure(argv[i]);
    }
    std::cout << "init: " << d_bus_srv_init() << std::endl;
    std::string line;
    while (std::getline(std::cin, line)) {
        obey(line);
        std::cout << "ok" << std::endl;
    }
    return 0;
}
