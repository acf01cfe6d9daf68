// Prints the raised issues and then every change, also across restarts of vigmond.
//   g++ -std=c++20 watch_issues.cpp $(pkg-config --cflags --libs libsystemd) -o watch_issues

#include <cstdint>
#include <cstdio>
#include <systemd/sd-bus.h>

namespace {

constexpr const char *NAME = "com.corvana.vigmond";
constexpr const char *PATH = "/com/corvana/Monitoring1";
constexpr const char *INTERFACE = "com.corvana.State2.Issues";
constexpr const char *NEW_OWNER = "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
                                  "member='NameOwnerChanged',arg0='com.corvana.vigmond'";

int print_change(sd_bus_message *signal, void * /*data*/, sd_bus_error * /*error*/) {
    std::uint32_t time = 0; // of the heartbeat
    const char *label = nullptr;
    if (sd_bus_message_read(signal, "u", &time) < 0 || sd_bus_message_enter_container(signal, 'a', "s") < 0) {
        return 0;
    }
    while (sd_bus_message_read(signal, "s", &label) > 0) {
        std::printf("%u %s %s\n", time, sd_bus_message_get_member(signal), label);
    }
    return 0;
}

void print_raised(sd_bus *bus) {
    sd_bus_message *reply = nullptr;
    const int result = sd_bus_call_method(bus, NAME, PATH, INTERFACE, "GetListing", nullptr, &reply, "");
    std::uint32_t time = 0; // since when it is raised
    const char *label = nullptr;
    // With no issue raised the reply is empty, and there is no array to enter.
    if (result >= 0 && sd_bus_message_enter_container(reply, 'a', "(us)") > 0) {
        while (sd_bus_message_read(reply, "(us)", &time, &label) > 0) {
            std::printf("%u raised %s\n", time, label);
        }
    }
    sd_bus_message_unref(reply);
}

// A restart clears all issues without signals: reads the listing again.
int start_again(sd_bus_message *signal, void * /*data*/, sd_bus_error * /*error*/) {
    const char *owner = nullptr;
    if (sd_bus_message_read(signal, "sss", nullptr, nullptr, &owner) > 0 && *owner != '\0') {
        std::puts("vigmond has started");
        print_raised(sd_bus_message_get_bus(signal));
    }
    return 0;
}

int watch(sd_bus *bus) {
    // Signals first, then the listing, so that no change is missed.
    int result = sd_bus_match_signal(bus, nullptr, NAME, PATH, INTERFACE, nullptr, print_change, nullptr);
    if (result >= 0) {
        result = sd_bus_add_match(bus, nullptr, NEW_OWNER, start_again, nullptr);
    }
    if (result >= 0) {
        print_raised(bus); // nothing when vigmond does not run yet
    }
    while (result >= 0) {
        result = sd_bus_process(bus, nullptr);
        if (result == 0) {
            result = sd_bus_wait(bus, UINT64_MAX);
        }
    }
    return result;
}

} // namespace

int main() {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    sd_bus *bus = nullptr;
    int result = sd_bus_open_system(&bus);
    if (result >= 0) {
        result = watch(bus);
    }
    std::fprintf(stderr, "watch_issues: error %d\n", -result);
    sd_bus_flush_close_unref(bus);
    return 1;
}
