#include "dbus-srv/methods.h"

#include "dbus-srv/bus_handle.h"
#include "dbus-srv/issues.h"
#include "dbus-srv/link.h"
#include "dbus-srv/mutex_lock.h"
#include "trace.h"

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

namespace {

constexpr const char *ACCEPTED = "accepted";
constexpr const char *FAILED = "failed";

struct InterfaceGroup {
    std::string_view word;
    std::span<const std::int32_t> ids;
};

// Kept: CB10 under WiFi and CB13 under LAN.
constexpr std::array WIFI_IDS{1, 2, 4, 9, 10};
constexpr std::array LAN_IDS{11, 12, 13};
constexpr std::array CELL_IDS{14, 15, 16, 17, 18, 19};

constexpr std::array<InterfaceGroup, 3> INTERFACE_GROUPS{{
    {"WiFi", WIFI_IDS},
    {"LAN", LAN_IDS},
    {"Cell", CELL_IDS},
}};

/// The only object with a description, independent of the path configured for the signals.
constexpr std::string_view DESCRIBED_PATH = "/com/corvana/Monitoring1";

constexpr const char *DESCRIPTION = "<node>\n"
                                    "    <interface name='com.corvana.State2.Issues'>\n"
                                    "        <method name='GetListing'>\n"
                                    "            <arg type='a(us)' name='activeIssues' direction='out'/>\n"
                                    "        </method>\n"
                                    "        <signal name='ClearedIssues'>\n"
                                    "            <arg type='uas' name='Issues' direction='out'/>\n"
                                    "        </signal>\n"
                                    "        <signal name='NewIssues'>\n"
                                    "            <arg type='uas' name='Issues' direction='out'/>\n"
                                    "        </signal>\n"
                                    "    </interface>\n"
                                    "    <interface name='org.freedesktop.DBus.Introspectable'>\n"
                                    "        <method name='Introspect'>\n"
                                    "            <arg type='s' name='xml_data' direction='out'/>\n"
                                    "        </method>\n"
                                    "    </interface>\n"
                                    "</node>\n";
constexpr const char *NO_DESCRIPTION = "<node>\n</node>\n";

/// The reply's array of (us). The first issue opens it. Kept: without issues the reply has no array, not an empty one.
class Listing {
  public:
    explicit Listing(DBusMessage *reply) : reply_(reply) {}
    ~Listing() {
        if (open_) {
            dbus_message_iter_abandon_container(&body_, &array_);
        }
    }
    Listing(const Listing &) = delete;
    Listing(Listing &&) = delete;
    Listing &operator=(const Listing &) = delete;
    Listing &operator=(Listing &&) = delete;

    bool append(const Issue &issue) {
        if (!open_) {
            dbus_message_iter_init_append(reply_, &body_);
            open_ = dbus_message_iter_open_container(&body_, DBUS_TYPE_ARRAY, "(us)", &array_) != 0;
        }
        return open_ && append_element(issue);
    }

    bool close() {
        if (!open_) {
            return true;
        }
        open_ = false;
        return dbus_message_iter_close_container(&body_, &array_) != 0;
    }

  private:
    bool append_element(const Issue &issue) {
        const auto changed = static_cast<dbus_uint32_t>(issue.changed); // 32 bits on the wire
        DBusMessageIter element{};
        if (dbus_message_iter_open_container(&array_, DBUS_TYPE_STRUCT, nullptr, &element) == 0) {
            return false;
        }
        if (dbus_message_iter_append_basic(&element, DBUS_TYPE_UINT32, &changed) == 0 ||
            dbus_message_iter_append_basic(&element, DBUS_TYPE_STRING, static_cast<const void *>(&issue.label)) == 0) {
            dbus_message_iter_abandon_container(&array_, &element);
            return false;
        }
        return dbus_message_iter_close_container(&array_, &element) != 0;
    }

    DBusMessage *reply_;
    DBusMessageIter body_{};
    DBusMessageIter array_{};
    bool open_ = false;
};

/// Sends the reply to `call`, unless the caller wants none: the bus would refuse the reply and log that.
int send_reply(DBusConnection *connection, DBusMessage *call, const BusMessage &reply) {
    if (dbus_message_get_no_reply(call) != 0) {
        return 0;
    }
    if (dbus_connection_send(connection, reply.get(), nullptr) == 0) {
        return -1;
    }
    bus_flush(connection);
    return 0;
}

int send_text(DBusConnection *connection, DBusMessage *call, const BusMessage &reply, const char *text) {
    if (dbus_message_append_args(reply.get(), DBUS_TYPE_STRING, static_cast<const void *>(&text), DBUS_TYPE_INVALID) ==
        0) {
        return -1;
    }
    return send_reply(connection, call, reply);
}

/// The group with whose word `word` starts: WiFi0 is in WiFi, wifi in none.
const InterfaceGroup *find_group(std::string_view word) {
    for (const InterfaceGroup &group : INTERFACE_GROUPS) {
        if (word.starts_with(group.word)) {
            return &group;
        }
    }
    return nullptr;
}

/// Sets the availability of the issues of `word` and returns the text of the reply. Kept: "failed" if it has set them,
/// "accepted" if not.
const char *switch_group(const char *word, dbus_bool_t enable) {
    const bool known_value = enable == 1 || enable == 0;
    const InterfaceGroup *const group = known_value && word != nullptr ? find_group(word) : nullptr;
    if (group == nullptr) {
        return ACCEPTED;
    }
    for (const std::int32_t id : group->ids) {
        d_bus_srv_ID_set_enabled(static_cast<std::uint32_t>(id), static_cast<std::int32_t>(enable));
    }
    return FAILED;
}

} // namespace

int d_bus_srv_GetListing(DBusConnection *connection, DBusMessage *message) {
    trace(TRACE_DEBUG, " ");
    const BusMessage reply(dbus_message_new_method_return(message));
    if (!reply) {
        trace(TRACE_TRACE, "dbus_message_new_method_return() failed");
        return -1;
    }
    Listing listing(reply.get());
    bool complete = true;
    {
        trace(TRACE_TRACE, "LOCK");
        const MutexLock lock(registry_lock);
        for (const Issue &issue : issue_registry) {
            if (!complete || issue.count < 1 || issue.label == nullptr) {
                continue;
            }
            trace(TRACE_TRACE, "issue: %s, cnt: %d, time: %lld", issue.label, issue.count,
                  static_cast<long long>(issue.changed));
            complete = listing.append(issue);
        }
        trace(TRACE_TRACE, "UNLOCK");
    }
    return complete && listing.close() ? send_reply(connection, message, reply) : -1;
}

int d_bus_srv_Introspect(DBusConnection *connection, DBusMessage *message) {
    trace(TRACE_DEBUG, " ");
    const BusMessage reply(dbus_message_new_method_return(message));
    if (!reply) {
        return -1;
    }
    const char *const path = dbus_message_get_path(message);
    const bool described = path != nullptr && path == DESCRIBED_PATH;
    return send_text(connection, message, reply, described ? DESCRIPTION : NO_DESCRIPTION);
}

int d_bus_srv_ChangeInterfaceAvailability(DBusConnection *connection, DBusMessage *message) {
    trace(TRACE_DEBUG, " ");
    const char *word = nullptr;
    auto enable = static_cast<dbus_bool_t>(-1); // libdbus stores four bytes
    const char *answer = FAILED;
    BusError error;
    if (dbus_message_get_args(message, error.fresh(), DBUS_TYPE_STRING, static_cast<void *>(&word), DBUS_TYPE_BOOLEAN,
                              &enable, DBUS_TYPE_INVALID) != 0) {
        answer = switch_group(word, enable);
    } else {
        trace(TRACE_TRACE, "dbus_message_get_args() failed");
    }
    const BusMessage reply(dbus_message_new_method_return(message));
    if (!reply) {
        trace(TRACE_TRACE, "dbus_message_new_method_return() failed");
        return -1;
    }
    return send_text(connection, message, reply, answer);
}
