#include "dbus-srv/link.h"

#include "dbus-srv.h"
#include "dbus-srv/mutex_lock.h"
#include "dbus-srv/queue.h"
#include "gdata.h"
#include "no_destructor.h"
#include "trace.h"

#include <array>
#include <chrono>
#include <limits>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

namespace {

using std::chrono::ceil;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// libdbus reads at most this much before messages are handled, so that a flood is queued by its sender and not in our
// memory. A single larger message is still read. Small messages take four times their size in memory.
constexpr long MAX_INPUT_BYTES = 64L * 1024;
constexpr long MAX_INPUT_DESCRIPTORS = 16;

// The kernel's limit. A message with more descriptors than our limit would close the connection, and the bus may
// allow more than the library's default.
constexpr long DESCRIPTORS_PER_MESSAGE = 253;

constexpr int FLUSH_RECHECK_MS = 1000; // the other thread may close the socket just before the wait

constinit pthread_mutex_t link_lock = PTHREAD_MUTEX_INITIALIZER;
constinit BusLink link_state = BusLink::starting;
constinit NoDestructor<BusConnection> link_connection;

/// A call to the bus itself with the configured name, and with `flags` unless null.
BusMessage name_call(const char *member, const dbus_uint32_t *flags) {
    const char *const name = gdata_get_dbus_busname();
    BusMessage call(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, member));
    if (call && dbus_message_append_args(call.get(), DBUS_TYPE_STRING, static_cast<const void *>(&name),
                                         flags == nullptr ? DBUS_TYPE_INVALID : DBUS_TYPE_UINT32, flags,
                                         DBUS_TYPE_INVALID) == 0) {
        call.reset();
    }
    return call;
}

bool is_from_bus(const BusMessage &message) { return dbus_message_has_sender(message.get(), DBUS_SERVICE_DBUS) != 0; }

/// Reads until the bus replies to the call `serial`; none, with the error set, after the timeout or if the connection
/// is lost. Keeps the bus's other messages in `early` and drops those of clients.
BusMessage await_reply(const BusConnection &connection, dbus_uint32_t serial, milliseconds timeout,
                       EarlyMessages &early, BusError &error) {
    const auto end = steady_clock::now() + timeout;
    for (auto left = timeout; bus_is_connected(connection); left = ceil<milliseconds>(end - steady_clock::now())) {
        while (BusMessage message{dbus_connection_pop_message(connection.get())}) {
            if (is_from_bus(message) && dbus_message_get_reply_serial(message.get()) == serial) {
                return message;
            }
            if (is_from_bus(message)) {
                early.keep(std::move(message));
            }
        }
        if (left.count() <= 0) {
            dbus_set_error_const(error.fresh(), DBUS_ERROR_NO_REPLY, "Did not receive a reply");
            return nullptr;
        }
        bus_read(connection, -1, static_cast<int>(left.count()));
    }
    dbus_set_error_const(error.fresh(), DBUS_ERROR_DISCONNECTED,
                         "Connection was disconnected before a reply was received");
    return nullptr;
}

/// Requests the name; returns the bus's reply, or none.
BusMessage request_name(const BusConnection &connection, milliseconds timeout, EarlyMessages &early, BusError &error) {
    constexpr dbus_uint32_t flags = DBUS_NAME_FLAG_REPLACE_EXISTING;
    const BusMessage call = name_call("RequestName", &flags);
    dbus_uint32_t serial = 0;
    if (!call || dbus_connection_send(connection.get(), call.get(), &serial) == 0) {
        dbus_set_error_const(error.fresh(), DBUS_ERROR_NO_MEMORY, "Not enough memory");
        return nullptr;
    }
    return await_reply(connection, serial, timeout, early, error);
}

/// Withdraws the request without waiting for a reply: the bus handles the two in order.
void release_name(const BusConnection &connection) {
    const BusMessage call = name_call("ReleaseName", nullptr);
    if (call) {
        dbus_message_set_no_reply(call.get(), TRUE);
        dbus_connection_send(connection.get(), call.get(), nullptr);
    }
}

/// Requests the name on a new connection; updates the link's state if the name is not granted.
bool regain_name(const BusConnection &connection, EarlyMessages &early) {
    BusError error;
    const NameAnswer answer = bus_own_name(connection, early, error);
    if (answer == NameAnswer::refused) {
        bus_link_set(BusLink::nameless, connection.get());
    } else if (answer == NameAnswer::none) {
        bus_link_set(BusLink::lost, nullptr);
    }
    return answer == NameAnswer::owner;
}

void release_if_dead(BusConnection &connection) {
    if (connection && !bus_is_connected(connection)) {
        bus_drop_messages(connection);
        connection.reset();
    }
}

/// Waits. Reads and drops messages sent to the unserved connection, which the bus would otherwise queue.
void pause_for(const BusConnection &connection, unsigned seconds) {
    const auto end = steady_clock::now() + std::chrono::seconds(seconds);
    const auto left_ms = [end] { return static_cast<int>(ceil<milliseconds>(end - steady_clock::now()).count()); };
    while (bus_is_connected(connection) && left_ms() > 0) {
        bus_read(connection, -1, left_ms());
        bus_drop_messages(connection);
    }
    if (const auto left = ceil<std::chrono::seconds>(end - steady_clock::now()).count(); left > 0) {
        sleep(static_cast<unsigned>(left));
    }
}

} // namespace

void bus_link_set(BusLink state, DBusConnection *connection) {
    BusConnection previous = bus_share(connection); // becomes the old one, released outside the lock
    {
        const MutexLock lock(link_lock);
        link_state = state;
        std::swap(link_connection.get(), previous);
    }
    d_bus_srv_msg_queue_signal();
}

BusLinkView bus_link_get() {
    const MutexLock lock(link_lock);
    return {link_state, bus_share(link_connection.get().get())};
}

bool d_bus_srv_is_off_bus() {
    const MutexLock lock(link_lock);
    return link_state == BusLink::nameless || link_state == BusLink::lost || link_state == BusLink::ended;
}

BusConnection bus_connect(BusError &error) {
    BusConnection connection(dbus_bus_get(DBUS_BUS_SYSTEM, error.fresh()));
    if (connection) {
        dbus_connection_set_exit_on_disconnect(connection.get(), FALSE);
        dbus_connection_set_max_message_unix_fds(connection.get(), DESCRIPTORS_PER_MESSAGE);
        dbus_connection_set_max_received_size(connection.get(), MAX_INPUT_BYTES);
        dbus_connection_set_max_received_unix_fds(connection.get(), MAX_INPUT_DESCRIPTORS);
    }
    return connection;
}

bool bus_is_connected(const BusConnection &connection) {
    return connection && dbus_connection_get_is_connected(connection.get()) != 0;
}

NameAnswer bus_own_name(const BusConnection &connection, EarlyMessages &early, BusError &error, milliseconds timeout) {
    early = {};
    const BusMessage reply = request_name(connection, timeout, early, error);
    dbus_uint32_t result = 0;
    if (reply && dbus_set_error_from_message(error.fresh(), reply.get()) == 0) {
        dbus_message_get_args(reply.get(), error.fresh(), DBUS_TYPE_UINT32, &result, DBUS_TYPE_INVALID);
    }
    // Leave the queue: otherwise the bus could give us the name later, with no listener, and a new request would
    // only report that we own it already.
    if (!reply || result == DBUS_REQUEST_NAME_REPLY_IN_QUEUE) {
        release_name(connection);
    }
    if (!reply) {
        return NameAnswer::none;
    }
    return result == DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER ? NameAnswer::owner : NameAnswer::refused;
}

// Waits outside libdbus, which would lock the connection for this time and block the sender.
void bus_read(const BusConnection &connection, int wakeup, int timeout_ms) {
    int socket = -1;
    dbus_connection_get_unix_fd(connection.get(), &socket);
    std::array awaited{pollfd{socket, POLLIN, 0}, pollfd{wakeup, POLLIN, 0}};
    do { // a large message arrives in many parts
        poll(awaited.data(), awaited.size(), timeout_ms);
        dbus_connection_read_write(connection.get(), 0);
    } while (awaited[0].revents == POLLIN && awaited[1].revents == 0 &&
             dbus_connection_get_dispatch_status(connection.get()) == DBUS_DISPATCH_COMPLETE);
    if (awaited[1].revents != 0) {
        eventfd_t ignored = 0;
        eventfd_read(wakeup, &ignored);
    }
}

// In place of dbus_connection_flush(), which never returns if the bus dies while the library has read as much as it
// may: it then reads no further, so not to the end, and does not take a failing write for the end.
void bus_flush(DBusConnection *connection) {
    while (dbus_connection_has_messages_to_send(connection) != 0 && dbus_connection_get_is_connected(connection) != 0) {
        int socket = -1;
        dbus_connection_get_unix_fd(connection, &socket);
        pollfd awaited{socket, POLLOUT, 0};
        poll(&awaited, 1, FLUSH_RECHECK_MS);
        if ((awaited.revents & (POLLHUP | POLLERR)) != 0) { // the rest is not more than the socket's buffer
            dbus_connection_set_max_received_size(connection, std::numeric_limits<long>::max());
        }
        dbus_connection_read_write(connection, 0);
    }
}

void bus_drop_messages(const BusConnection &connection) {
    while (const BusMessage message{dbus_connection_pop_message(connection.get())}) {
    }
}

BusConnection bus_reconnect(BusConnection connection, EarlyMessages *early) {
    trace(TRACE_DEBUG, "the bus is gone, trying to come back");
    for (unsigned attempt = 0;; ++attempt) {
        release_if_dead(connection);
        pause_for(connection, bus_pause_seconds(attempt));
        release_if_dead(connection);
        if (!connection) {
            BusError error;
            connection = bus_connect(error);
        }
        if (bus_is_connected(connection) && (early == nullptr || regain_name(connection, *early))) {
            trace(TRACE_DEBUG, "the bus is back");
            return connection;
        }
    }
}
