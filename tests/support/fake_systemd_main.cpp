// A fake systemd on the bus of DBUS_SYSTEM_BUS_ADDRESS: answers calls for units' properties with the values set by
// commands; a unit without any is not installed. Executes each line it reads and answers with a line that starts with
// "ok". A UNIT is the last part of its object path.
//   connect                          connects (again) to the bus, under systemd's name; "ok 0" on failure
//   set UNIT PROPERTY s|t VALUE      the property's value from now on
//   error UNIT PROPERTY NAME TIMES   this bus error instead, TIMES times; -1 is for ever
//   hold                             from now on no call is answered
//   release                          answers the held calls, late, and all later ones
//   delay MS                         each answer is delayed by MS
//   noise COUNT [BYTES]              sends COUNT signals with that much content to the caller before each answer
//   strike PID SIGNAL NTH            sends SIGNAL to process PID at the NTH call from now
//   count UNIT PROPERTY              answers "ok N": the number of calls for that property
//   total                            answers "ok N": the number of all calls

#include "dbus-srv/bus_handle.h"

#include <array>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <iostream>
#include <map>
#include <poll.h>
#include <sstream>
#include <string>
#include <sys/types.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char *NAME = "org.freedesktop.systemd1";
constexpr const char *UNIT_INTERFACE = "org.freedesktop.systemd1.Unit";

struct CloseConnection {
    void operator()(DBusConnection *connection) const {
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
    }
};

struct Property {
    char type = 's';
    std::string value;
    std::string error;
    int errors_left = 0;
    int asked = 0;
};

struct Strike {
    pid_t pid = 0;
    int signo = 0;
    int questions_left = 0;
};

std::unique_ptr<DBusConnection, CloseConnection> connection;
std::map<std::string, Property> properties; ///< by "UNIT PROPERTY"
std::vector<BusMessage> held;
Strike strike;
bool holding = false;
int delay_ms = 0;
int noise = 0;
std::size_t noise_bytes = 0;
int total = 0;

/// systemd's answer for a unit that is not installed.
Property property_of_missing_unit(const std::string &name) {
    Property property;
    property.type = name.ends_with("State") ? 's' : 't';
    property.value = name == "LoadState" ? "not-found" : name == "ActiveState" ? "inactive" : "0";
    return property;
}

Property &find_property(const std::string &unit, const std::string &name) {
    return properties.try_emplace(unit + " " + name, property_of_missing_unit(name)).first->second;
}

bool connect() {
    connection.reset();
    BusError error;
    connection.reset(dbus_bus_get_private(DBUS_BUS_SYSTEM, error.fresh()));
    if (!connection) {
        return false;
    }
    dbus_connection_set_exit_on_disconnect(connection.get(), FALSE);
    return dbus_bus_request_name(connection.get(), NAME, DBUS_NAME_FLAG_DO_NOT_QUEUE, error.fresh()) ==
           DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER;
}

void append_value(DBusMessage *reply, const Property &property) {
    DBusMessageIter body{};
    DBusMessageIter variant{};
    const std::string type(1, property.type);
    dbus_message_iter_init_append(reply, &body);
    dbus_message_iter_open_container(&body, DBUS_TYPE_VARIANT, type.c_str(), &variant);
    if (property.type == 't') {
        dbus_uint64_t number = 0;
        std::from_chars(property.value.data(), property.value.data() + property.value.size(), number);
        dbus_message_iter_append_basic(&variant, DBUS_TYPE_UINT64, &number);
    } else {
        const char *text = property.value.c_str();
        dbus_message_iter_append_basic(&variant, DBUS_TYPE_STRING, static_cast<const void *>(&text));
    }
    dbus_message_iter_close_container(&body, &variant);
}

BusMessage answer_to(DBusMessage *call, Property &property) {
    if (property.errors_left != 0) {
        property.errors_left -= property.errors_left > 0 ? 1 : 0;
        return BusMessage(dbus_message_new_error(call, property.error.c_str(), "as told"));
    }
    BusMessage reply(dbus_message_new_method_return(call));
    append_value(reply.get(), property);
    return reply;
}

std::string unit_of(DBusMessage *call) {
    const std::string path = dbus_message_get_path(call);
    return path.substr(path.rfind('/') + 1);
}

/// The requested property; none if it is not a unit's.
std::string property_asked(DBusMessage *call) {
    const char *interface = "";
    const char *name = "";
    const bool is_unit = std::string(dbus_message_get_path(call)).starts_with("/org/freedesktop/systemd1/unit/");
    const bool found = dbus_message_is_method_call(call, DBUS_INTERFACE_PROPERTIES, "Get") != 0 &&
                       dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, static_cast<void *>(&interface),
                                             DBUS_TYPE_STRING, static_cast<void *>(&name), DBUS_TYPE_INVALID) != 0;
    return found && is_unit && std::string(interface) == UNIT_INTERFACE ? name : "";
}

void send_noise(const char *to) {
    const std::string content(noise_bytes, 'x');
    const char *const text = content.c_str();
    for (int i = 0; i < noise; ++i) {
        const BusMessage signal(dbus_message_new_signal("/noise", "noise.Noise", "Noise"));
        dbus_message_set_destination(signal.get(), to);
        dbus_message_append_args(signal.get(), DBUS_TYPE_STRING, static_cast<const void *>(&text), DBUS_TYPE_INVALID);
        dbus_connection_send(connection.get(), signal.get(), nullptr);
    }
}

void answer(DBusMessage *call) {
    std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
    send_noise(dbus_message_get_sender(call));
    const BusMessage reply = answer_to(call, find_property(unit_of(call), property_asked(call)));
    dbus_connection_send(connection.get(), reply.get(), nullptr);
    dbus_connection_flush(connection.get());
}

void strike_if_due() {
    if (strike.questions_left > 0 && --strike.questions_left == 0) {
        kill(strike.pid, strike.signo);
    }
}

void take(BusMessage message) {
    if (dbus_message_get_type(message.get()) != DBUS_MESSAGE_TYPE_METHOD_CALL) {
        return;
    }
    const std::string name = property_asked(message.get());
    if (name.empty()) {
        const BusMessage refusal(dbus_message_new_error(message.get(), DBUS_ERROR_UNKNOWN_METHOD, "not faked"));
        dbus_connection_send(connection.get(), refusal.get(), nullptr);
        return;
    }
    ++total;
    ++find_property(unit_of(message.get()), name).asked;
    strike_if_due();
    if (holding) {
        held.push_back(std::move(message));
    } else {
        answer(message.get());
    }
}

void release() {
    holding = false;
    for (const BusMessage &call : held) {
        answer(call.get());
    }
    held.clear();
}

void set(std::istringstream &words) {
    std::string unit;
    std::string name;
    char type = 's';
    words >> unit >> name >> type >> std::ws;
    Property &property = find_property(unit, name);
    property.type = type;
    property.errors_left = 0;
    property.value.clear(); // stays empty if the line ends here
    std::getline(words, property.value);
}

void set_error(std::istringstream &words) {
    std::string unit;
    std::string name;
    words >> unit >> name;
    Property &property = find_property(unit, name);
    words >> property.error >> property.errors_left;
}

int count_of(std::istringstream &words) {
    std::string unit;
    std::string name;
    words >> unit >> name;
    return find_property(unit, name).asked;
}

/// The number after "ok".
int obey(const std::string &line) {
    std::istringstream words(line);
    std::string command;
    words >> command;
    if (command == "connect") {
        return connect() ? 1 : 0;
    }
    if (command == "count") {
        return count_of(words);
    }
    if (command == "set") {
        set(words);
    } else if (command == "error") {
        set_error(words);
    } else if (command == "hold") {
        holding = true;
    } else if (command == "release") {
        release();
    } else if (command == "delay") {
        words >> delay_ms;
    } else if (command == "noise") {
        words >> noise >> noise_bytes; // 0 if it is not there
    } else if (command == "strike") {
        words >> strike.pid >> strike.signo >> strike.questions_left;
    }
    return total;
}

/// Executes the complete lines received; false at the end of the input.
bool read_commands(std::string &pending) {
    std::array<char, 4096> chunk{};
    const ssize_t size = read(STDIN_FILENO, chunk.data(), chunk.size());
    if (size <= 0) {
        return false;
    }
    pending.append(chunk.data(), static_cast<std::size_t>(size));
    for (std::size_t end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
        std::cout << "ok " << obey(pending.substr(0, end)) << std::endl;
        pending.erase(0, end + 1);
    }
    return true;
}

void serve_bus() {
    const bool open = connection && dbus_connection_read_write(connection.get(), 0) != 0;
    while (connection) {
        BusMessage message(dbus_connection_pop_message(connection.get()));
        if (!message) {
            break;
        }
        take(std::move(message));
    }
    if (!open) {
        held.clear();
        connection.reset();
    }
}

int bus_descriptor() {
    int fd = -1;
    return connection && dbus_connection_get_unix_fd(connection.get(), &fd) != 0 ? fd : -1;
}

} // namespace

int main() {
    std::string pending;
    while (true) {
        serve_bus();
        std::array<pollfd, 2> sources{{{STDIN_FILENO, POLLIN, 0}, {bus_descriptor(), POLLIN, 0}}};
        poll(sources.data(), sources.size(), -1);
        if (sources[0].revents != 0 && !read_commands(pending)) {
            return 0;
        }
    }
}
