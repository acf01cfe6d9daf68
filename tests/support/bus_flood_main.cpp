// A hostile neighbour on the bus of DBUS_SYSTEM_BUS_ADDRESS: sends signals to every connection of a process, also later
// ones, except the owner of the service's name.
//   bus_flood PID BYTES       signals of BYTES bytes each, as fast as possible, until killed
//   bus_flood PID descriptor  one signal with a socket whose last close blocks for a minute
//   bus_flood announce UID    as root: signals of the issues' interface from that user to a listener, "2 heard"
// Writes "4 MB sent to NAME" and so on, and "sent to all" after the first round. Ends with "refused: ERROR" when
// the policy of the bus refuses a signal.

#include "dbus-srv/bus_handle.h"
#include "handle.h"

#include <arpa/inet.h>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <map>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char *SERVICE = "com.corvana.vigmond";
constexpr std::size_t BURST_BYTES = 200'000;
constexpr std::size_t MEGABYTES = 1'000'000;
constexpr std::size_t STEP = 4;       ///< MB between two reports
constexpr std::size_t OVERHEAD = 400; ///< of a signal, roughly

DBusConnection *connection = nullptr;
std::map<std::string, std::size_t> targets; ///< bytes sent to each
std::uint32_t victim = 0;

/// Calls a method of the bus, with `name` unless it is empty.
BusMessage ask_bus(const char *member, const std::string &name = "") {
    const BusMessage call(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, member));
    const char *const text = name.c_str();
    if (!name.empty()) {
        dbus_message_append_args(call.get(), DBUS_TYPE_STRING, static_cast<const void *>(&text), DBUS_TYPE_INVALID);
    }
    return BusMessage(
        dbus_connection_send_with_reply_and_block(connection, call.get(), DBUS_TIMEOUT_INFINITE, nullptr));
}

void consider(const std::string &name) {
    const BusMessage reply = ask_bus("GetConnectionUnixProcessID", name);
    dbus_uint32_t pid = 0;
    if (reply && name != dbus_bus_get_unique_name(connection) &&
        dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_UINT32, &pid, DBUS_TYPE_INVALID) != 0 && pid == victim) {
        targets.emplace(name, 0);
    }
}

void forget_owner_of_service() {
    const BusMessage reply = ask_bus("GetNameOwner", SERVICE);
    const char *owner = nullptr;
    if (reply && dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_STRING, static_cast<void *>(&owner),
                                       DBUS_TYPE_INVALID) != 0) {
        targets.erase(owner);
    }
}

void consider_all() {
    const BusMessage reply = ask_bus("ListNames");
    char **names = nullptr;
    int count = 0;
    if (reply && dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING,
                                       static_cast<void *>(&names), &count, DBUS_TYPE_INVALID) != 0) {
        for (int i = 0; i < count; ++i) {
            if (*names[i] == ':') {
                consider(names[i]);
            }
        }
        dbus_free_string_array(names);
    }
    forget_owner_of_service();
}

void follow(DBusMessage *change) {
    const char *name = "";
    const char *before = "";
    const char *now = "";
    dbus_message_get_args(change, nullptr, DBUS_TYPE_STRING, static_cast<void *>(&name), DBUS_TYPE_STRING,
                          static_cast<void *>(&before), DBUS_TYPE_STRING, static_cast<void *>(&now), DBUS_TYPE_INVALID);
    if (*name == ':' && *now == '\0') {
        targets.erase(name);
    } else if (*name == ':') {
        consider(name);
    } else if (std::string(name) == SERVICE) {
        targets.erase(now);
    }
}

/// Reads the bus's notices.
void take_in_news() {
    dbus_connection_read_write(connection, 0);
    while (const BusMessage message{dbus_connection_pop_message(connection)}) {
        if (dbus_message_is_signal(message.get(), DBUS_INTERFACE_DBUS, "NameOwnerChanged") != 0) {
            follow(message.get());
        } else if (dbus_message_is_error(message.get(), DBUS_ERROR_ACCESS_DENIED) != 0) { // other: the target is gone
            std::puts("refused: " DBUS_ERROR_ACCESS_DENIED);
            std::_Exit(0); // closes no lingering socket, which would block
        }
    }
}

BusMessage signal_to(const std::string &name) {
    BusMessage signal(dbus_message_new_signal("/flood", "flood.Flood", "Flood"));
    dbus_message_set_destination(signal.get(), name.c_str());
    return signal;
}

void flood(const std::string &content) {
    for (auto &[name, sent] : targets) {
        const BusMessage signal = signal_to(name);
        const char *const text = content.c_str();
        dbus_message_append_args(signal.get(), DBUS_TYPE_STRING, static_cast<const void *>(&text), DBUS_TYPE_INVALID);
        const std::size_t before = sent;
        while (sent < before + BURST_BYTES) {
            const BusMessage copy(dbus_message_copy(signal.get()));
            dbus_connection_send(connection, copy.get(), nullptr);
            sent += OVERHEAD + content.size();
        }
        dbus_connection_flush(connection);
        if (before / MEGABYTES / STEP != sent / MEGABYTES / STEP) {
            std::printf("%zu MB sent to %s\n", sent / MEGABYTES / STEP * STEP, name.c_str());
        }
    }
}

/// A connection to a peer that never reads, with unsent data: its last close blocks for a minute.
Descriptor lingering_socket() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto *const any = reinterpret_cast<sockaddr *>(&address);
    static Descriptor listener; // until the process ends
    listener.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    Descriptor client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (bind(listener.get(), any, size) != 0 || listen(listener.get(), 1) != 0 ||
        getsockname(listener.get(), any, &size) != 0 || connect(client.get(), any, size) != 0) {
        std::perror("bus_flood");
        std::exit(1);
    }
    constexpr std::array<char, 65536> data{};
    while (send(client.get(), data.data(), data.size(), MSG_DONTWAIT) > 0) {
    }
    constexpr linger a_minute{.l_onoff = 1, .l_linger = 60};
    setsockopt(client.get(), SOL_SOCKET, SO_LINGER, &a_minute, sizeof a_minute);
    return client;
}

/// Keeps no descriptor that was sent, so that the receiver has the last one.
void send_descriptor() {
    std::vector<Descriptor> sent;
    for (const auto &[name, bytes] : targets) {
        const BusMessage signal = signal_to(name);
        sent.push_back(lingering_socket());
        const int fd = sent.back().get();
        dbus_message_append_args(signal.get(), DBUS_TYPE_UNIX_FD, &fd, DBUS_TYPE_INVALID);
        dbus_connection_send(connection, signal.get(), nullptr);
        dbus_connection_flush(connection);
    }
    ask_bus("GetId"); // the bus answers after it has handled all of them
    take_in_news();
}

BusMessage announcement(const char *destination) {
    BusMessage signal(dbus_message_new_signal("/com/corvana/Monitoring1", "com.corvana.State2.Issues", "NewIssues"));
    dbus_message_set_destination(signal.get(), destination);
    return signal;
}

DBusConnection *connect_as(uid_t user) {
    if (seteuid(user) != 0) {
        std::exit(1);
    }
    DBusConnection *connected = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
    if (connected == nullptr || seteuid(0) != 0) {
        std::exit(1);
    }
    return connected;
}

/// Sends to everybody, and to the listener, which must hear neither.
int announce(uid_t user) {
    constexpr uid_t nobody = 65534;
    DBusConnection *speaker = connect_as(user);
    DBusConnection *listener = connect_as(nobody);
    dbus_bus_add_match(listener, "type='signal',interface='com.corvana.State2.Issues'", nullptr);
    connection = listener;
    ask_bus("GetId"); // the bus has the rule
    dbus_connection_send(speaker, announcement(nullptr).get(), nullptr);
    dbus_connection_send(speaker, announcement(dbus_bus_get_unique_name(listener)).get(), nullptr);
    for (DBusConnection *each : {speaker, listener}) {
        connection = each;
        ask_bus("GetId"); // the bus has handled both and delivered what it sent
    }
    int heard = 0;
    while (const BusMessage message{dbus_connection_pop_message(listener)}) {
        heard += dbus_message_is_signal(message.get(), "com.corvana.State2.Issues", "NewIssues") != 0 ? 1 : 0;
    }
    std::printf("%d heard\n", heard);
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    connection = dbus_bus_get_private(DBUS_BUS_SYSTEM, nullptr);
    if (argc != 3 || connection == nullptr) {
        return 1;
    }
    if (std::string(argv[1]) == "announce") {
        return announce(static_cast<uid_t>(std::strtoul(argv[2], nullptr, 10)));
    }
    victim = static_cast<std::uint32_t>(std::strtoul(argv[1], nullptr, 10));
    const std::string what = argv[2];
    dbus_bus_add_match(connection, "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged'", nullptr);
    consider_all();
    const bool floods = what != "descriptor";
    const std::string content(floods ? std::strtoul(argv[2], nullptr, 10) : 0, 'x');
    if (floods) {
        flood(content);
    } else {
        send_descriptor();
    }
    std::printf("sent to all %zu\n", targets.size());
    while (dbus_connection_get_is_connected(connection) != 0) {
        if (floods && !targets.empty()) {
            flood(content);
        } else {
            dbus_connection_read_write(connection, 100);
        }
        take_in_news();
    }
    return 0;
}
