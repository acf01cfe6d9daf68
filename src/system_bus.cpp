#include "system_bus.h"

#include "immortal.h"

#include <cerrno>
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
constinit Immortal<std::unique_ptr<sd_bus, Unreference>> connection;

void drop_dead_connection() {
    sd_bus *bus = connection.get().get();
    if (bus != nullptr && sd_bus_is_open(bus) <= 0) {
        connection.get().reset();
    }
}

} // namespace

int system_bus_open() {
    drop_dead_connection();
    if (connection.get()) {
        return 0;
    }
    sd_bus *bus = nullptr;
    const int result = sd_bus_default_system(&bus);
    if (result >= 0) {
        connection.get().reset(bus);
        sd_bus_set_method_call_timeout(bus, CALL_TIMEOUT_USEC);
    }
    return result;
}

int system_bus_read_text(const char *path, const char *property, TextHandle *text, UnitError *error) {
    if (!connection.get()) {
        return -ENOTCONN;
    }
    char *read = nullptr;
    const int result =
        sd_bus_get_property_string(connection.get().get(), DESTINATION, path, INTERFACE, property, error->get(), &read);
    text->reset(read);
    drop_dead_connection();
    return result;
}

int system_bus_read_number(const char *path, const char *property, std::uint64_t *number, UnitError *error) {
    if (!connection.get()) {
        return -ENOTCONN;
    }
    const int result = sd_bus_get_property_trivial(connection.get().get(), DESTINATION, path, INTERFACE, property,
                                                   error->get(), 't', number);
    drop_dead_connection();
    return result;
}
