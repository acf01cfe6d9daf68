#include "dbus-srv/listener.h"

#include "dbus-srv/link.h"
#include "dbus-srv/methods.h"
#include "dbus-srv/sender.h"
#include "handle.h"
#include "trace.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <sys/eventfd.h>
#include <utility>

namespace {

constexpr const char *LISTENER = "d_bus_srv_main"; // the function name in all traces of this thread

constexpr int WAIT_MS = 60000;      // only sets how often the wait is traced
constexpr int BLIND_WAIT_MS = 1000; // without an eventfd, a message that the sender has read may wait this long

// How many messages that need no action are served; the rest are dropped. This many take a few per cent of a processor.
constexpr unsigned MOST_ACTIONLESS_A_SECOND = 1000;

constinit int listener_status = -1;
constinit thread_local bool is_listener = false;

struct MethodEntry {
    const char *interface;
    const char *member;
    int (*handler)(DBusConnection *, DBusMessage *);
};

// Fixed names: the configured interface is that of the signals only.
constexpr std::array<MethodEntry, 3> METHODS{{
    {"com.corvana.State2.Issues", "GetListing", d_bus_srv_GetListing},
    {"org.freedesktop.DBus.Introspectable", "Introspect", d_bus_srv_Introspect},
    {"com.corvana.Config1.Network", "ChangeInterfaceAvailability", d_bus_srv_ChangeInterfaceAvailability},
}};

/// Whether the message needs no action: not a call, or a call that wants no reply and changes nothing.
bool needs_no_action(DBusMessage *message) {
    return dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL ||
           (dbus_message_get_no_reply(message) != 0 &&
            dbus_message_has_member(message, "ChangeInterfaceAvailability") == 0);
}

/// Drops messages that need no action above a limit per second. The bus delivers messages in order: serving a flood,
/// with all its traces, would delay all other clients.
class FloodGuard {
  public:
    bool drops(DBusMessage *message) {
        begin_second();
        return needs_no_action(message) && ++messages_ > MOST_ACTIONLESS_A_SECOND;
    }

  private:
    void begin_second() {
        const auto now = std::chrono::steady_clock::now();
        if (now - begin_ < std::chrono::seconds(1)) {
            return;
        }
        if (messages_ > MOST_ACTIONLESS_A_SECOND) {
            trace_as(LISTENER, TRACE_DEBUG, "flood: %u messages dropped", messages_ - MOST_ACTIONLESS_A_SECOND);
        }
        begin_ = now;
        messages_ = 0;
    }

    std::chrono::steady_clock::time_point begin_;
    unsigned messages_ = 0; ///< that need no action, in this second
};

/// The next message to serve; none if the queue is empty.
BusMessage next_message(const BusConnection &connection, EarlyMessages &early, FloodGuard &guard) {
    BusMessage message = early.take();
    if (!message) {
        message.reset(dbus_connection_pop_message(connection.get()));
    }
    while (message && guard.drops(message.get())) {
        message.reset(); // freed first: it counts toward the limit of received bytes
        message.reset(dbus_connection_pop_message(connection.get()));
    }
    return message;
}

/// Calls the method. Unknown calls get no reply.
void serve_message(DBusConnection *connection, DBusMessage *message) {
    trace_as(LISTENER, TRACE_TRACE, "check request");
    for (const MethodEntry &method : METHODS) {
        if (dbus_message_is_method_call(message, method.interface, method.member) != 0) {
            trace_as(LISTENER, TRACE_TRACE, "call method: %s", method.member);
            method.handler(connection, message);
            return;
        }
    }
    trace_as(LISTENER, TRACE_TRACE, "unknown request - type: %s",
             dbus_message_type_to_string(dbus_message_get_type(message)));
}

/// Called by libdbus, with some of its locks held, when a thread has read a message. If that was the sender, wakes the
/// listener. The listener itself checks for messages before each wait.
void note_message(void *wakeup) {
    if (!is_listener) {
        [[maybe_unused]] const int noted = eventfd_write(static_cast<const Descriptor *>(wakeup)->get(), 1);
    }
}

/// Serves messages until the connection is lost.
void serve(const BusConnection &connection, EarlyMessages &early, Descriptor &wakeup) {
    dbus_connection_set_wakeup_main_function(connection.get(), note_message, &wakeup, nullptr);
    bus_link_set(BusLink::serving, connection.get());
    FloodGuard guard;
    while (true) {
        trace_as(LISTENER, TRACE_TRACE, "wait for request");
        BusMessage message = next_message(connection, early, guard);
        if (!message) {
            if (!bus_is_connected(connection)) {
                break;
            }
            bus_read(connection, wakeup.get(), wakeup ? WAIT_MS : BLIND_WAIT_MS);
            message = next_message(connection, early, guard);
        }
        if (message) {
            serve_message(connection.get(), message.get());
        }
    }
    bus_link_set(BusLink::lost, nullptr);
}

void trace_failure(const char *failure, const BusError &error) {
    trace_as(LISTENER, TRACE_DEBUG, "%s", failure);
    if (error.is_set()) { // the line feed is kept
        trace_as(LISTENER, TRACE_TRACE, "Connection Error (%s)\n", error.message());
    }
}

/// Traces the failure and returns the thread's exit status.
void *end_listener(const char *failure, const BusError &error) {
    trace_failure(failure, error);
    bus_link_set(BusLink::ended, nullptr);
    return &listener_status;
}

} // namespace

void *d_bus_srv_main(void * /*none*/) {
    trace(TRACE_DEBUG, " ");
    is_listener = true;
    d_bus_srv_init_signals();
    Descriptor wakeup(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wakeup) {
        trace(TRACE_DEBUG, "eventfd() failed");
    }
    BusError error;
    trace(TRACE_TRACE, "DBUS_GET");
    BusConnection connection = bus_connect(error);
    if (!connection) {
        return end_listener("dbus_bus_get() failed", error);
    }
    trace(TRACE_TRACE, "DBUS_REQUEST");
    EarlyMessages early;
    switch (bus_own_name(connection, early, error)) {
    case NameAnswer::owner:
        break;
    case NameAnswer::refused:
        connection.reset();
        return end_listener("dbus_bus_request_name() failed", error);
    case NameAnswer::none:
        trace_failure("dbus_bus_request_name() failed", error);
        bus_link_set(BusLink::lost, nullptr);
        connection = bus_reconnect(std::move(connection), &early);
        break;
    }
    trace(TRACE_TRACE, "WHILE");
    for (;;) {
        serve(connection, early, wakeup);
        connection = bus_reconnect(std::move(connection), &early);
    }
}
