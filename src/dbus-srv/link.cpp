#include "dbus-srv/link.h"

#include "dbus-srv.h"
#include "dbus-srv/mutex_lock.h"
#include "dbus-srv/queue.h"
#include "gdata.h"
#include "no_destructor.h"
#include "trace.h"

#include <array>
#include <chrono>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

namespace {

/// How much libdbus reads before messages are handled. A single larger message is still read.
struct InputBound {
    long bytes;
    long descriptors;
};
// A flood must queue at its sender and not in our memory.
constexpr InputBound USUAL_INPUT{.bytes = 1024L * 1024, .descriptors = 16};
// While waiting for a reply, when no message is handled: many other messages may precede it.
constexpr InputBound INPUT_BEFORE_ANSWER{.bytes = 64 * 1024L * 1024, .descriptors = 256};

// The kernel's limit. A message with more descriptors than our limit would close the connection, and the bus may
// allow more than the library's default.
constexpr long DESCRIPTORS_PER_MESSAGE = 253;

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

void bound_input(const BusConnection &connection, const InputBound &bound) {
    dbus_connection_set_max_received_size(connection.get(), bound.bytes);
    dbus_connection_set_max_received_unix_fds(connection.get(), bound.descriptors);
}

/// Requests the name. Returns the bus's reply code, or 0 for an error or no reply.
dbus_uint32_t request_name(const BusConnection &connection, BusError &error) {
    constexpr dbus_uint32_t flags = DBUS_NAME_FLAG_REPLACE_EXISTING;
    const BusMessage call = name_call("RequestName", &flags);
    if (!call) {
        return 0;
    }
    bound_input(connection, INPUT_BEFORE_ANSWER);
    const BusMessage reply(dbus_connection_send_with_reply_and_block(connection.get(), call.get(),
                                                                     DBUS_TIMEOUT_USE_DEFAULT, error.fresh()));
    bound_input(connection, USUAL_INPUT);
    dbus_uint32_t result = 0;
    if (reply) {
        dbus_message_get_args(reply.get(), error.fresh(), DBUS_TYPE_UINT32, &result, DBUS_TYPE_INVALID);
    }
    return result;
}

/// Whether the bus sent the error, rather than the library itself.
bool is_answer(const BusError &error) {
    return error.is_set() && !error.has_name(DBUS_ERROR_NO_REPLY) && !error.has_name(DBUS_ERROR_DISCONNECTED) &&
           !error.has_name(DBUS_ERROR_NO_MEMORY);
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
bool regain_name(const BusConnection &connection) {
    BusError error;
    const NameAnswer answer = bus_own_name(connection, error);
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
    using namespace std::chrono;
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
        bound_input(connection, USUAL_INPUT);
    }
    return connection;
}

bool bus_is_connected(const BusConnection &connection) {
    return connection && dbus_connection_get_is_connected(connection.get()) != 0;
}

NameAnswer bus_own_name(const BusConnection &connection, BusError &error) {
    const dbus_uint32_t result = request_name(connection, error);
    const bool answered = result != 0 || is_answer(error);
    // Leave the queue: otherwise the bus could give us the name later, with no listener, and a new request would
    // only report that we own it already.
    if (!answered || result == DBUS_REQUEST_NAME_REPLY_IN_QUEUE) {
        release_name(connection);
    }
    if (!answered) {
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

void bus_drop_messages(const BusConnection &connection) {
    while (const BusMessage message{dbus_connection_pop_message(connection.get())}) {
    }
}

BusConnection bus_reconnect(BusConnection connection, bool with_name) {
    trace(TRACE_DEBUG, "the bus is gone, trying to come back");
    for (unsigned attempt = 0;; ++attempt) {
        release_if_dead(connection);
        pause_for(connection, bus_pause_seconds(attempt));
        release_if_dead(connection);
        if (!connection) {
            BusError error;
            connection = bus_connect(error);
        }
        if (bus_is_connected(connection) && (!with_name || regain_name(connection))) {
            trace(TRACE_DEBUG, "the bus is back");
            return connection;
        }
    }
}
