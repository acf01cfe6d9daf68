#include "system_bus.h"

#include "no_destructor.h"

#include <cerrno>
#include <chrono>
#include <memory>

namespace {

constexpr const char *DESTINATION = "org.freedesktop.systemd1";
constexpr const char *INTERFACE = "org.freedesktop.systemd1.Unit";

// A heartbeat asks for eight properties; the library's own 25 s each would cost twenty heartbeats.
constexpr std::uint64_t CALL_TIMEOUT_USEC = 5'000'000;

struct Unreference {
    void operator()(sd_bus *bus) const { sd_bus_unref(bus); }
};

/// The only reference that this program holds: while another was held, the library would hand out a
/// dead connection again and again.
constinit NoDestructor<std::unique_ptr<sd_bus, Unreference>> connection;

void drop_dead_connection() {
    sd_bus *bus = connection.get().get();
    if (bus != nullptr && sd_bus_is_open(bus) <= 0) {
        connection.get().reset();
    }
}

/// Waits for the bus to admit a new connection; the library would wait 90 s. A negative errno when it
/// does not, the connection then given up.
int await_admission(sd_bus *bus) {
    using namespace std::chrono;
    const auto deadline = steady_clock::now() + microseconds(CALL_TIMEOUT_USEC);
    while (sd_bus_is_ready(bus) == 0) {
        const int processed = sd_bus_is_open(bus) > 0 ? sd_bus_process(bus, nullptr) : -ENOTCONN;
        const auto left = duration_cast<microseconds>(deadline - steady_clock::now()).count();
        if (processed < 0 || (processed == 0 && left <= 0)) {
            connection.get().reset();
            return processed < 0 ? processed : -ETIMEDOUT;
        }
        if (processed == 0) {
            sd_bus_wait(bus, static_cast<std::uint64_t>(left));
        }
    }
    return 0;
}

/// Ready to be asked, or a negative errno.
int ready_connection() {
    sd_bus *bus = connection.get().get();
    return bus == nullptr ? -ENOTCONN : await_admission(bus);
}

/// Whether something was read that nobody has waited for.
bool has_leftovers(sd_bus *bus) {
    std::uint64_t count = 0;
    return sd_bus_get_n_queued_read(bus, &count) >= 0 && count > 0;
}

/// Throws away what nobody waits for, such as an answer that came too late: the library keeps all of
/// it, and fails every call when it holds too much.
void tidy_connection() {
    sd_bus *bus = connection.get().get();
    int processed = 1;
    while (processed > 0 && has_leftovers(bus)) {
        processed = sd_bus_process(bus, nullptr);
    }
    drop_dead_connection();
}

} // namespace

int system_bus_open() {
    if (connection.get()) {
        return 0;
    }
    sd_bus *bus = nullptr;
    const int result = sd_bus_default_system(&bus);
    if (result >= 0) {
        connection.get().reset(bus);
        sd_bus_set_method_call_timeout(bus, CALL_TIMEOUT_USEC);
        sd_bus_set_exit_on_disconnect(bus, 0);
    }
    return result;
}

int system_bus_read_text(const char *path, const char *property, TextHandle *text, UnitError *error) {
    if (const int ready = ready_connection(); ready < 0) {
        return ready;
    }
    char *read = nullptr;
    const int result =
        sd_bus_get_property_string(connection.get().get(), DESTINATION, path, INTERFACE, property, error->get(), &read);
    text->reset(read);
    tidy_connection();
    return result;
}

int system_bus_read_number(const char *path, const char *property, std::uint64_t *number, UnitError *error) {
    if (const int ready = ready_connection(); ready < 0) {
        return ready;
    }
    const int result = sd_bus_get_property_trivial(connection.get().get(), DESTINATION, path, INTERFACE, property,
                                                   error->get(), 't', number);
    tidy_connection();
    return result;
}
