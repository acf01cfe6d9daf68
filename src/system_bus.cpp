#include "system_bus.h"

#include "no_destructor.h"
#include "signals.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <malloc.h>
#include <memory>
#include <sys/ioctl.h>

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using Deadline = steady_clock::time_point;

constexpr const char *DESTINATION = "org.freedesktop.systemd1";
constexpr const char *INTERFACE = "org.freedesktop.systemd1.Unit";

// A heartbeat reads eight properties; the default of 25 s each would cost twenty heartbeats.
constexpr seconds ANSWER_TIMEOUT{5};
// The library's part of them. While it waits it keeps all that comes, and nobody looks at signals.
constexpr microseconds LIBRARY_WAIT = milliseconds(20);
constexpr microseconds SIGNAL_INTERVAL = milliseconds(50);

// What may wait unread between two questions. The bus sends a few messages; more than this is a flood, which
// ends sooner on a new connection.
constexpr int MOST_UNREAD = 100;
constexpr int MOST_UNREAD_BYTES = 65536;
constexpr milliseconds MOST_TIDYING{100};

struct Unreference {
    void operator()(sd_bus *bus) const { sd_bus_unref(bus); }
};

/// The program's only reference: with another one left, sd_bus_default_system() would return the dead
/// connection again.
constinit NoDestructor<std::unique_ptr<sd_bus, Unreference>> connection;

struct UnreferenceMessage {
    void operator()(sd_bus_message *message) const { sd_bus_message_unref(message); }
};
using MessageHandle = std::unique_ptr<sd_bus_message, UnreferenceMessage>;

/// Waits for the bus a little, and takes in one message at most, which becomes `message`. Held signals are
/// taken. A negative errno when the connection is dead or the time is over.
int wait_a_little(sd_bus *bus, Deadline deadline, MessageHandle *message) {
    signals_safe_point();
    const auto left = std::chrono::duration_cast<microseconds>(deadline - steady_clock::now());
    if (left.count() <= 0) {
        return -ETIMEDOUT;
    }
    sd_bus_message *taken = nullptr;
    const int processed = sd_bus_is_open(bus) > 0 ? sd_bus_process(bus, &taken) : -ECONNRESET;
    message->reset(taken);
    if (processed == 0) {
        sd_bus_wait(bus, static_cast<std::uint64_t>(std::min(left, SIGNAL_INTERVAL).count()));
    }
    return std::min(processed, 0);
}

/// Waits until the bus admits a new connection (the library would wait 90 s). 0, or a negative errno with the
/// connection closed.
int await_admission(sd_bus *bus) {
    const Deadline deadline = steady_clock::now() + ANSWER_TIMEOUT;
    int result = 0;
    while (result == 0 && sd_bus_is_ready(bus) == 0) {
        MessageHandle ignored;
        result = wait_a_little(bus, deadline, &ignored);
    }
    if (result < 0) {
        connection.get().reset();
    }
    return result;
}

/// 0 when the connection is ready, or a negative errno.
int ready_connection() {
    sd_bus *bus = connection.get().get();
    return bus == nullptr ? -ENOTCONN : await_admission(bus);
}

/// Whether there are received messages that no call waits for.
bool has_leftovers(sd_bus *bus) {
    std::uint64_t count = 0;
    return sd_bus_get_n_queued_read(bus, &count) >= 0 && count > 0;
}

/// What waits in the socket.
int unread_bytes(sd_bus *bus) {
    int bytes = 0;
    return ioctl(sd_bus_get_fd(bus), FIONREAD, &bytes) == 0 ? bytes : 0;
}

/// Gives back what the messages of a flood have taken, which would stay with the process else.
void give_memory_back() { malloc_trim(0); }

void drop_connection() {
    connection.get().reset();
    give_memory_back();
}

/// Throws away what nobody waits for, such as what the bus says of itself: the library keeps all of it. The
/// connection is dropped when that is too much, a message that is not wholly there included, or when it is dead.
void tidy_connection(sd_bus *bus) {
    const Deadline deadline = steady_clock::now() + MOST_TIDYING;
    int bytes = unread_bytes(bus);
    for (int count = 0; bytes > 0 || has_leftovers(bus); ++count) {
        const bool is_flooded = count == MOST_UNREAD || bytes > MOST_UNREAD_BYTES || steady_clock::now() > deadline;
        if (is_flooded || sd_bus_process(bus, nullptr) <= 0 || sd_bus_is_open(bus) <= 0) {
            drop_connection();
            return;
        }
        bytes = unread_bytes(bus);
    }
}

/// Ends a question; its result. The answer to one that has failed may still come, but not on the next connection.
int conclude(sd_bus *bus, int result) {
    if (result < 0) {
        drop_connection();
    } else if (has_leftovers(bus)) {
        tidy_connection(bus);
    }
    return result;
}

/// Whether the library has given up its wait; an error that was sent has a name of its own.
bool is_unanswered(int result, const UnitError &error) {
    return result == -ETIMEDOUT && std::strcmp(error.name(), SD_BUS_ERROR_TIMEOUT) == 0;
}

/// Whether it answers a question; there is never more than one on a connection.
bool is_answer(sd_bus_message *message) {
    std::uint8_t type = 0;
    return message != nullptr && sd_bus_message_get_type(message, &type) >= 0 &&
           (type == SD_BUS_MESSAGE_METHOD_RETURN || type == SD_BUS_MESSAGE_METHOD_ERROR);
}

/// Waits for the answer that the library has not waited for; 0, or a negative errno, also that of an error
/// for an answer.
int await_answer(sd_bus *bus, Deadline deadline, MessageHandle *answer, UnitError *error) {
    int result = 0;
    while (result == 0 && !is_answer(answer->get())) {
        result = wait_a_little(bus, deadline, answer);
    }
    give_memory_back();
    if (result == 0) {
        sd_bus_error_free(error->get());
        result = sd_bus_error_copy(error->get(), sd_bus_message_get_error(answer->get()));
    }
    return result;
}

} // namespace

int system_bus_open() {
    if (connection.get() && sd_bus_is_ready(connection.get().get()) > 0) {
        tidy_connection(connection.get().get());
    }
    if (connection.get()) {
        return 0;
    }
    sd_bus *bus = nullptr;
    const int result = sd_bus_default_system(&bus);
    if (result >= 0) {
        connection.get().reset(bus);
        sd_bus_set_method_call_timeout(bus, LIBRARY_WAIT.count());
        sd_bus_set_exit_on_disconnect(bus, 0);
    }
    return result;
}

int system_bus_read_text(const char *path, const char *property, TextHandle *text, UnitError *error) {
    if (const int ready = ready_connection(); ready < 0) {
        return ready;
    }
    sd_bus *bus = connection.get().get();
    const Deadline deadline = steady_clock::now() + ANSWER_TIMEOUT;
    char *read = nullptr;
    int result = sd_bus_get_property_string(bus, DESTINATION, path, INTERFACE, property, error->get(), &read);
    if (is_unanswered(result, *error)) {
        MessageHandle answer;
        const char *late = nullptr;
        result = await_answer(bus, deadline, &answer, error);
        result = result < 0 ? result : sd_bus_message_read(answer.get(), "v", "s", &late);
        read = late == nullptr ? nullptr : strdup(late);
    }
    text->reset(read);
    return conclude(bus, result);
}

int system_bus_read_number(const char *path, const char *property, std::uint64_t *number, UnitError *error) {
    if (const int ready = ready_connection(); ready < 0) {
        return ready;
    }
    sd_bus *bus = connection.get().get();
    const Deadline deadline = steady_clock::now() + ANSWER_TIMEOUT;
    int result = sd_bus_get_property_trivial(bus, DESTINATION, path, INTERFACE, property, error->get(), 't', number);
    if (is_unanswered(result, *error)) {
        MessageHandle answer;
        result = await_answer(bus, deadline, &answer, error);
        result = result < 0 ? result : sd_bus_message_read(answer.get(), "v", "t", number);
    }
    return conclude(bus, result);
}
