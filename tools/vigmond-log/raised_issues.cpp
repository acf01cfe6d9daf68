#include "raised_issues.h"

#include "line.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <dlfcn.h>
#include <memory>
#include <systemd/sd-bus.h>

namespace vlog {

namespace {

using std::chrono::microseconds;
using std::chrono::steady_clock;
using Issues = std::set<std::int16_t>;

constexpr std::chrono::seconds TIMEOUT{2};
constexpr const char *NAME = "com.corvana.vigmond";
constexpr const char *PATH = "/com/corvana/Monitoring1";
constexpr const char *INTERFACE = "com.corvana.State2.Issues";

/// The functions of libsystemd. It is loaded only for --bus: with the libraries that it needs it would double the time
/// of an export without.
struct SystemdBus {
    decltype(&sd_bus_open_system) open_system = nullptr;
    decltype(&sd_bus_close_unref) close_unref = nullptr;
    decltype(&sd_bus_call_method_async) call_method_async = nullptr;
    decltype(&sd_bus_process) process = nullptr;
    decltype(&sd_bus_wait) wait = nullptr;
    decltype(&sd_bus_message_get_error) get_error = nullptr;
    decltype(&sd_bus_message_has_signature) has_signature = nullptr;
    decltype(&sd_bus_message_enter_container) enter_container = nullptr;
    decltype(&sd_bus_message_read) read = nullptr;
};

template <typename Function> bool find(void *library, const char *name, Function *function) {
    *function = reinterpret_cast<Function>(dlsym(library, name));
    return *function != nullptr;
}

/// Loads the library, until the program ends. On failure dlerror() says why.
bool load(SystemdBus *bus) {
    void *const library = dlopen("libsystemd.so.0", RTLD_NOW | RTLD_NODELETE);
    return library != nullptr && find(library, "sd_bus_open_system", &bus->open_system) &&
           find(library, "sd_bus_close_unref", &bus->close_unref) &&
           find(library, "sd_bus_call_method_async", &bus->call_method_async) &&
           find(library, "sd_bus_process", &bus->process) && find(library, "sd_bus_wait", &bus->wait) &&
           find(library, "sd_bus_message_get_error", &bus->get_error) &&
           find(library, "sd_bus_message_has_signature", &bus->has_signature) &&
           find(library, "sd_bus_message_enter_container", &bus->enter_container) &&
           find(library, "sd_bus_message_read", &bus->read);
}

/// The result of the call.
struct Listing {
    SystemdBus systemd;
    bool is_complete = false;
    std::optional<Issues> issues;
    std::string problem;
};

/// The issues of a reply. Without raised issues it has no argument at all. Texts of another form are left out.
std::optional<Issues> issues_in(const SystemdBus &systemd, sd_bus_message *reply) {
    Issues issues;
    if (systemd.has_signature(reply, "") > 0) {
        return issues;
    }
    if (systemd.has_signature(reply, "a(us)") <= 0 || systemd.enter_container(reply, 'a', "(us)") <= 0) {
        return std::nullopt;
    }
    const char *label = nullptr;
    int result = 0;
    while ((result = systemd.read(reply, "(us)", nullptr, &label)) > 0) {
        if (const std::optional<std::int16_t> issue = issue_of(label)) {
            issues.insert(*issue);
        }
    }
    return result == 0 ? std::optional(issues) : std::nullopt;
}

int take_reply(sd_bus_message *reply, void *data, sd_bus_error * /*error*/) {
    auto *listing = static_cast<Listing *>(data);
    listing->is_complete = true;
    if (const sd_bus_error *error = listing->systemd.get_error(reply)) {
        listing->problem = error->message != nullptr ? error->message : error->name;
    } else if (!(listing->issues = issues_in(listing->systemd, reply))) {
        listing->problem = "the reply is no listing";
    }
    return 0;
}

/// Negative errno, also when the reply does not arrive in time. The library's own calls would wait a minute and a half
/// for a bus that does not authenticate.
int await(sd_bus *bus, const Listing &listing) {
    const auto deadline = steady_clock::now() + TIMEOUT;
    while (!listing.is_complete) {
        const auto left = std::chrono::duration_cast<microseconds>(deadline - steady_clock::now());
        if (left.count() <= 0) {
            return -ETIMEDOUT;
        }
        int result = listing.systemd.process(bus, nullptr);
        if (result == 0 && !listing.is_complete) {
            result = listing.systemd.wait(bus, static_cast<std::uint64_t>(left.count()));
        }
        if (result < 0 && result != -EINTR) {
            return result;
        }
    }
    return 0;
}

/// Negative errno if there is no reply.
int ask(Listing *listing) {
    sd_bus *opened = nullptr;
    int result = listing->systemd.open_system(&opened);
    const std::unique_ptr<sd_bus, decltype(&sd_bus_close_unref)> bus(opened, listing->systemd.close_unref);
    if (result >= 0) {
        result = listing->systemd.call_method_async(opened, nullptr, NAME, PATH, INTERFACE, "GetListing", take_reply,
                                                    listing, nullptr);
    }
    return result < 0 ? result : await(opened, *listing);
}

} // namespace

std::optional<Issues> raised_issues(std::string *problem) {
    Listing listing;
    if (!load(&listing.systemd)) {
        listing.problem = dlerror();
    } else if (const int result = ask(&listing); result < 0) {
        listing.problem = std::strerror(-result);
    }
    if (!listing.issues) {
        *problem = "raised issues: " + listing.problem;
    }
    return listing.issues;
}

} // namespace vlog
