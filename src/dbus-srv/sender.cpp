#include "dbus-srv/sender.h"

#include "dbus-srv/link.h"
#include "dbus-srv/queue.h"
#include "trace.h"

#include <csignal>
#include <pthread.h>
#include <utility>

namespace {

constexpr const char *SENDER = "d_bus_srv_msg_sender"; // the function name in all traces of this thread

constinit int sender_status = 0;

struct Sender {
    BusConnection connection; ///< the last one used
    BusMessage unsent;        ///< already removed from the queue when the bus was lost
    bool alone = false;       ///< the listener has ended: the sender must reconnect and drop received messages
};

/// Whether there is a connection to send on. If not, the listener reconnects and then wakes the sender. If the listener
/// has ended, the sender reconnects itself.
bool find_connection(Sender &sender) {
    BusLinkView link = bus_link_get();
    if (link.connection) {
        sender.connection = std::move(link.connection);
        return bus_is_connected(sender.connection);
    }
    sender.alone = link.state == BusLink::ended;
    if (sender.alone && !bus_is_connected(sender.connection)) {
        sender.connection = bus_reconnect(std::move(sender.connection), nullptr);
    }
    return sender.alone;
}

/// Sends one signal. If the connection is lost, keeps the signal for the next connection: it may arrive twice but is
/// never lost.
void send_signal(Sender &sender, BusMessage message) {
    DBusConnection *const connection = sender.connection.get();
    trace_as(SENDER, TRACE_TRACE, "SEND");
    if (dbus_connection_send(connection, message.get(), nullptr) == 0) {
        trace_as(SENDER, TRACE_DEBUG, "dbus_connection_send(\"msg\") failed");
        sender_status = -1;
        return;
    }
    trace_as(SENDER, TRACE_TRACE, "FLUSH");
    bus_flush(connection);
    if (!bus_is_connected(sender.connection)) {
        sender.unsent.reset(dbus_message_copy(message.get())); // without the serial number of this connection
        return;
    }
    trace_as(SENDER, TRACE_TRACE, "DONE");
}

/// Called when the sender could not connect. Waits until the listener has tried, too; false if it has ended.
bool listener_is_alive() {
    BusLink state = bus_link_get().state;
    while (state == BusLink::starting) {
        d_bus_srv_msg_queue_wait();
        state = bus_link_get().state;
    }
    d_bus_srv_msg_queue_signal(); // messages may have been queued during the wait
    return state != BusLink::ended;
}

void drain_queue(Sender &sender) {
    while (find_connection(sender)) {
        BusMessage message = sender.unsent ? std::move(sender.unsent) : d_bus_srv_msg_queue_remove();
        if (!message) {
            break;
        }
        send_signal(sender, std::move(message));
    }
    if (sender.alone) {
        bus_drop_messages(sender.connection);
    }
}

} // namespace

void d_bus_srv_init_signals() {
    trace(TRACE_TRACE, " ");
    sigset_t termination;
    sigemptyset(&termination);
    for (const int signo : {SIGQUIT, SIGHUP, SIGINT, SIGTERM}) {
        sigaddset(&termination, signo);
    }
    pthread_sigmask(SIG_BLOCK, &termination, nullptr);
}

void *d_bus_srv_msg_sender(void * /*none*/) {
    trace(TRACE_DEBUG, " ");
    d_bus_srv_init_signals();
    trace(TRACE_TRACE, "DBUS_GET");
    BusError error;
    Sender sender{.connection = bus_connect(error), .unsent = nullptr};
    if (!sender.connection) {
        trace(TRACE_DEBUG, "dbus_bus_get() failed");
        if (error.is_set()) {
            trace(TRACE_TRACE, "Connection Error (%s)\n", error.message()); // the line feed is kept
        }
        if (!listener_is_alive()) {
            sender_status = -1;
            return &sender_status;
        }
    }
    for (;;) {
        d_bus_srv_msg_queue_wait();
        drain_queue(sender);
    }
}
