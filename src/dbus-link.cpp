#include "dbus-link.h"

#include "dbus-signals.h"
#include "dbus-srv.h"
#include "gdata.h"
#include "immortal.h"
#include "mutex_lock.h"
#include "trace.h"

#include <pthread.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr int CALL_TIMEOUT_MS = 5000; // the library's own would be 25 s

constinit pthread_mutex_t link_lock = PTHREAD_MUTEX_INITIALIZER;
constinit BusLink link_state = BusLink::starting;
constinit Immortal<BusConnection> link_connection;

/// A call to the bus itself about the configured name, and `flags` unless they are null.
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

/// Asks for the name; the number of the bus's answer, or 0 when there is none.
dbus_uint32_t request_name(const BusConnection &connection, BusError &error) {
    constexpr dbus_uint32_t flags = DBUS_NAME_FLAG_REPLACE_EXISTING;
    const BusMessage call = name_call("RequestName", &flags);
    if (!call) {
        return 0;
    }
    const BusMessage reply(
        dbus_connection_send_with_reply_and_block(connection.get(), call.get(), CALL_TIMEOUT_MS, error.fresh()));
    dbus_uint32_t result = 0;
    if (reply) {
        dbus_message_get_args(reply.get(), error.fresh(), DBUS_TYPE_UINT32, &result, DBUS_TYPE_INVALID);
    }
    return result;
}

/// Takes the request back, and waits for no answer: the bus keeps the order of the two.
void release_name(const BusConnection &connection) {
    const BusMessage call = name_call("ReleaseName", nullptr);
    if (call) {
        dbus_message_set_no_reply(call.get(), TRUE);
        dbus_connection_send(connection.get(), call.get(), nullptr);
    }
}

} // namespace

void bus_link_set(BusLink state, DBusConnection *connection) {
    BusConnection previous = bus_share(connection); // let go of below, outside the lock
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
    return link_state == BusLink::lost || link_state == BusLink::ended;
}

BusConnection bus_connect(BusError &error) {
    BusConnection connection(dbus_bus_get(DBUS_BUS_SYSTEM, error.fresh()));
    if (connection) {
        dbus_connection_set_exit_on_disconnect(connection.get(), FALSE);
    }
    return connection;
}

bool bus_is_connected(const BusConnection &connection) {
    return connection && dbus_connection_get_is_connected(connection.get()) != 0;
}

bool bus_own_name(const BusConnection &connection, BusError &error) {
    const dbus_uint32_t result = request_name(connection, error);
    // Or the name would come to us later, with nobody listening, and be nothing new when asked for again.
    if (result == 0 || result == DBUS_REQUEST_NAME_REPLY_IN_QUEUE) {
        release_name(connection);
    }
    return result == DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER;
}

void bus_drop_messages(const BusConnection &connection) {
    while (const BusMessage message{dbus_connection_pop_message(connection.get())}) {
    }
}

BusConnection bus_reconnect(BusConnection lost, bool with_name) {
    trace(TRACE_DEBUG, "the bus is gone, trying to come back");
    bus_drop_messages(lost);
    lost.reset();
    for (unsigned attempt = 0;; ++attempt) {
        sleep(bus_pause_seconds(attempt));
        BusError error;
        BusConnection connection = bus_connect(error);
        if (bus_is_connected(connection) && (!with_name || bus_own_name(connection, error))) {
            trace(TRACE_DEBUG, "the bus is back");
            return connection;
        }
        if (connection && !bus_is_connected(connection)) {
            bus_drop_messages(connection);
        }
    }
}
