#include "raised_issues.h"

#include "line.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
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

struct CloseBus {
    void operator()(sd_bus *bus) const { sd_bus_close_unref(bus); }
};
using Bus = std::unique_ptr<sd_bus, CloseBus>;

/// The result of the call.
struct Listing {
    bool is_complete = false;
    std::optional<Issues> issues;
    std::string problem;
};

/// The issues of a reply. Without raised issues it has no argument at all. Texts of another form are left out.
std::optional<Issues> issues_in(sd_bus_message *reply) {
    Issues issues;
    if (sd_bus_message_has_signature(reply, "") > 0) {
        return issues;
    }
    if (sd_bus_message_has_signature(reply, "a(us)") <= 0 || sd_bus_message_enter_container(reply, 'a', "(us)") <= 0) {
        return std::nullopt;
    }
    const char *label = nullptr;
    int result = 0;
    while ((result = sd_bus_message_read(reply, "(us)", nullptr, &label)) > 0) {
        if (const std::optional<std::int16_t> issue = issue_of(label)) {
            issues.insert(*issue);
        }
    }
    return result == 0 ? std::optional(issues) : std::nullopt;
}

int take_reply(sd_bus_message *reply, void *data, sd_bus_error * /*error*/) {
    auto *listing = static_cast<Listing *>(data);
    listing->is_complete = true;
    if (const sd_bus_error *error = sd_bus_message_get_error(reply)) {
        listing->problem = error->message != nullptr ? error->message : error->name;
    } else if (!(listing->issues = issues_in(reply))) {
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
        int result = sd_bus_process(bus, nullptr);
        if (result == 0 && !listing.is_complete) {
            result = sd_bus_wait(bus, static_cast<std::uint64_t>(left.count()));
        }
        if (result < 0 && result != -EINTR) {
            return result;
        }
    }
    return 0;
}

int ask(Bus *bus, Listing *listing) {
    sd_bus *opened = nullptr;
    int result = sd_bus_open_system(&opened);
    bus->reset(opened);
    if (result >= 0) {
        result = sd_bus_call_method_async(opened, nullptr, NAME, PATH, INTERFACE, "GetListing", take_reply, listing,
                                          nullptr);
    }
    return result < 0 ? result : await(opened, *listing);
}

} // namespace

std::optional<Issues> raised_issues(std::string *problem) {
    Listing listing; // outlives the bus, which refers to it
    Bus bus;
    const int result = ask(&bus, &listing);
    if (result < 0) {
        listing.problem = std::strerror(-result);
    }
    if (!listing.issues) {
        *problem = "raised issues: " + listing.problem;
    }
    return listing.issues;
}

} // namespace vlog
