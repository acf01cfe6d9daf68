#pragma once

#include "private_bus.h"

#include <string>
#include <vector>

/// The labels of the issues that the daemon lists.
inline std::vector<std::string> labels_listed(BusClient &client) {
    const BusMessage reply =
        client.call(method_call("/com/corvana/Monitoring1", "com.corvana.State2.Issues", "GetListing"));
    std::vector<std::string> labels;
    DBusMessageIter body{};
    if (!reply || dbus_message_iter_init(reply.get(), &body) == 0) {
        return labels;
    }
    DBusMessageIter array{};
    for (dbus_message_iter_recurse(&body, &array); dbus_message_iter_get_arg_type(&array) == DBUS_TYPE_STRUCT;
         dbus_message_iter_next(&array)) {
        DBusMessageIter element{};
        const char *label = nullptr;
        dbus_message_iter_recurse(&array, &element);
        dbus_message_iter_next(&element);
        dbus_message_iter_get_basic(&element, static_cast<void *>(&label));
        labels.emplace_back(label);
    }
    return labels;
}
