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

// A heartbeat reads eight properties. With the default of 25 s each they could take twenty heartbeats.
constexpr seconds ANSWER_TIMEOUT{5};
// The library's share of this time. While it waits, it queues all received messages and no signal is handled.
constexpr microseconds LIBRARY_WAIT = milliseconds(20);
constexpr microseconds SIGNAL_INTERVAL = milliseconds(50);

// Limits for messages left unread between two calls. The bus itself sends only a few; more is a flood, and a new
// connection is the fastest way out of it.
constexpr int MAX_UNREAD = 100;
constexpr int MAX_UNREAD_BYTES = 65536;
constexpr milliseconds MAX_DISCARD_TIME{100};

struct Unreference {
    void operator()(sd_bus *bus) const { sd_bus_unref(bus); }
};

/// The process's only reference: as long as another one exists, sd_bus_default_system() returns the dead
/// connection again.
constinit NoDestructor<std::unique_ptr<sd_bus, Unreference>> connection;

struct ReleaseMessage {
    void operator()(sd_bus_message *message) const { sd_bus_message_unref(message); }
};
using UnitMessage = std::unique_ptr<sd_bus_message, ReleaseMessage>;

/// Handles pending signals, then processes one message, which it stores in `message`, or waits a short time.
/// Returns a negative errno if the connection is dead or the deadline has passed.
int process_or_wait(sd_bus *bus, Deadline deadline, UnitMessage *message) {
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

/// Waits until the bus has authenticated a new connection (the library would wait 90 s). Returns 0, or a negative
/// errno with the connection closed.
int await_ready(sd_bus *bus) {
    const Deadline deadline = steady_clock::now() + ANSWER_TIMEOUT;
    int result = 0;
    while (result == 0 && sd_bus_is_ready(bus) == 0) {
        UnitMessage ignored;
        result = process_or_wait(bus, deadline, &ignored);
    }
    if (result < 0) {
        connection.get().reset();
    }
    return result;
}

/// 0 if the connection is ready, or a negative errno.
int ready_connection() {
    sd_bus *bus = connection.get().get();
    return bus == nullptr ? -ENOTCONN : await_ready(bus);
}

/// Whether received messages are queued that no call waits for.
bool has_leftovers(sd_bus *bus) {
    std::uint64_t count = 0;
    return sd_bus_get_n_queued_read(bus, &count) >= 0 && count > 0;
}

/// The number of bytes that can be read from the socket.
int unread_bytes(sd_bus *bus) {
    int bytes = 0;
    return ioctl(sd_bus_get_fd(bus), FIONREAD, &bytes) == 0 ? bytes : 0;
}

/// Returns the memory of a flood's messages to the system; free() alone does not.
void release_memory() { malloc_trim(0); }

void drop_connection() {
    connection.get().reset();
    release_memory();
}

/// Discards messages that no call waits for, such as the bus's own signals, because the library queues them all.
/// Drops the connection if it is dead or if there are too many, counting an incomplete message too.
void discard_leftovers(sd_bus *bus) {
    const Deadline deadline = steady_clock::now() + MAX_DISCARD_TIME;
    int bytes = unread_bytes(bus);
    int count = 0;
    for (; bytes > 0 || has_leftovers(bus); ++count) {
        const bool is_flooded = count == MAX_UNREAD || bytes > MAX_UNREAD_BYTES || steady_clock::now() > deadline;
        if (is_flooded || sd_bus_process(bus, nullptr) <= 0 || sd_bus_is_open(bus) <= 0) {
            drop_connection();
            return;
        }
        bytes = unread_bytes(bus);
    }
    if (count > 0) {
        release_memory();
    }
}

/// Ends a call and returns `result`. After a failure it drops the connection, so that a late reply is never taken
/// for the reply to the next call.
int end_call(sd_bus *bus, int result) {
    if (result < 0) {
        drop_connection();
    } else if (has_leftovers(bus)) {
        discard_leftovers(bus);
    }
    return result;
}

/// Whether the library's own wait timed out. An error reply with the same number has another name.
bool is_unanswered(int result, const UnitError &error) {
    return result == -ETIMEDOUT && std::strcmp(error.name(), SD_BUS_ERROR_TIMEOUT) == 0;
}

/// Whether it is the reply to the call; there is never more than one call pending.
bool is_answer(sd_bus_message *message) {
    std::uint8_t type = 0;
    return message != nullptr && sd_bus_message_get_type(message, &type) >= 0 &&
           (type == SD_BUS_MESSAGE_METHOD_RETURN || type == SD_BUS_MESSAGE_METHOD_ERROR);
}

/// Waits for the reply after the library's own wait timed out. Returns 0, or a negative errno, also for an error
/// reply.
int await_answer(sd_bus *bus, Deadline deadline, UnitMessage *answer, UnitError *error) {
    int result = 0;
    while (result == 0 && !is_answer(answer->get())) {
        result = process_or_wait(bus, deadline, answer);
    }
    release_memory();
    if (result == 0) {
        sd_bus_error_free(error->get());
        result = sd_bus_error_copy(error->get(), sd_bus_message_get_error(answer->get()));
    }
    return result;
}

} // namespace

int system_bus_open() {
    if (connection.get() && sd_bus_is_ready(connection.get().get()) > 0) {
        discard_leftovers(connection.get().get());
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

int system_bus_read_text(const char *path, const char *property, UnitText *text, UnitError *error) {
    if (const int ready = ready_connection(); ready < 0) {
        return ready;
    }
    sd_bus *bus = connection.get().get();
    const Deadline deadline = steady_clock::now() + ANSWER_TIMEOUT;
    char *read = nullptr;
    int result = sd_bus_get_property_string(bus, DESTINATION, path, INTERFACE, property, error->get(), &read);
    text->take(read);
    if (is_unanswered(result, *error)) {
        UnitMessage answer;
        const char *late = nullptr;
        result = await_answer(bus, deadline, &answer, error);
        result = result < 0 ? result : sd_bus_message_read(answer.get(), "v", "s", &late);
        if (late != nullptr) {
            text->copy(late);
        }
    }
    return end_call(bus, result);
}

int system_bus_read_number(const char *path, const char *property, std::uint64_t *number, UnitError *error) {
    if (const int ready = ready_connection(); ready < 0) {
        return ready;
    }
    sd_bus *bus = connection.get().get();
    const Deadline deadline = steady_clock::now() + ANSWER_TIMEOUT;
    int result = sd_bus_get_property_trivial(bus, DESTINATION, path, INTERFACE, property, error->get(), 't', number);
    if (is_unanswered(result, *error)) {
        UnitMessage answer;
        result = await_answer(bus, deadline, &answer, error);
        result = result < 0 ? result : sd_bus_message_read(answer.get(), "v", "t", number);
    }
    return end_call(bus, result);
}
