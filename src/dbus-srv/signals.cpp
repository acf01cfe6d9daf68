#include "dbus-srv/signals.h"

#include "dbus-srv.h"
#include "dbus-srv/issues.h"
#include "dbus-srv/mutex_lock.h"
#include "dbus-srv/queue.h"
#include "gdata.h"
#include "trace.h"

#include <array>
#include <cstddef>
#include <utility>

namespace {

/// Labels in row order. They are constants and can be used after the registry is unlocked.
struct LabelList {
    std::array<const char *, ISSUE_ROWS> labels{};
    int count = 0;

    void add(const char *label) { labels[static_cast<std::size_t>(count++)] = label; }
};

/// Builds and queues one signal. On failure it traces under the caller's name and returns false.
bool announce(std::int64_t now, const char *member, const LabelList &issues) {
    constexpr const char *caller = "d_bus_srv_create_signal_messages";
    BusMessage message = d_bus_create_signals(now, member, issues.labels.data(), issues.count);
    if (!message) {
        trace_as(caller, TRACE_DEBUG, "d_bus_create_signals(\"%s\") failed", member);
        return false;
    }
    if (d_bus_srv_msg_queue_add(std::move(message)) != 0) {
        trace_as(caller, TRACE_DEBUG, "d_bus_srv_msg_queue_add(\"%s\") failed", member);
        return false;
    }
    return true;
}

} // namespace

BusMessage d_bus_create_signals(std::int64_t now, const char *member, const char *const *labels, int count) {
    trace(TRACE_DEBUG, " ");
    const char *const path = gdata_get_dbus_path();
    const char *const interface = gdata_get_dbus_if();
    BusMessage message;
    // libdbus aborts on a malformed name.
    if (dbus_validate_path(path, nullptr) != 0 && dbus_validate_interface(interface, nullptr) != 0) {
        message.reset(dbus_message_new_signal(path, interface, member));
    }
    if (!message) {
        trace(TRACE_TRACE, "dbus_message_new_signal() failed");
        return nullptr;
    }
    const auto time = static_cast<dbus_uint32_t>(now); // 32 bits on the wire
    if (dbus_message_append_args(message.get(), DBUS_TYPE_UINT32, &time, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING,
                                 static_cast<const void *>(&labels), count, DBUS_TYPE_INVALID) == 0) {
        trace(TRACE_TRACE, "dbus_message_append_args() failed");
        return nullptr;
    }
    trace(TRACE_TRACE, "DONE");
    return message;
}

int d_bus_srv_create_signal_messages(std::int64_t now) {
    trace(TRACE_DEBUG, " ");
    LabelList raised;
    LabelList cleared;
    trace(TRACE_TRACE, "LOCK");
    {
        const MutexLock lock(registry_lock);
        for (const Issue &issue : issue_registry) {
            // Kept: an equal time counts, so a pass that starts in the same second announces the change again.
            if (issue.changed < now || issue.label == nullptr) {
                continue;
            }
            trace(TRACE_TRACE, "%s: time: %lld %s", issue.label, static_cast<long long>(issue.changed),
                  issue.count != 0 ? "NewIssue" : "ClearedIssue");
            (issue.count != 0 ? raised : cleared).add(issue.label);
        }
        trace(TRACE_TRACE, "UNLOCK");
    }
    if (raised.count == 0 && cleared.count == 0) {
        return 0;
    }
    trace(TRACE_TRACE, "cleared|new");
    if (raised.count > 0) {
        trace(TRACE_TRACE, "new");
        if (!announce(now, "NewIssues", raised)) {
            return -1; // the cleared issues are not announced either
        }
    }
    if (cleared.count > 0) {
        trace(TRACE_TRACE, "cleared");
        if (!announce(now, "ClearedIssues", cleared)) {
            return -1; // a queued NewIssues waits for the next wake-up
        }
    }
    trace(TRACE_DEBUG, "DONE");
    return raised.count + cleared.count;
}

int d_bus_srv_send_issues(std::int64_t now) {
    trace(TRACE_TRACE, " ");
    if (d_bus_srv_create_signal_messages(now) >= 1) {
        d_bus_srv_msg_queue_signal();
    }
    return 0;
}
