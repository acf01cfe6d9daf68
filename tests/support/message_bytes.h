#pragma once

#include "dbus-srv/bus_handle.h"

#include <cstdint>
#include <cstring>
#include <string>

/// The body of a message on the wire (byte order of this machine).
inline std::string body_bytes(DBusMessage *message) {
    char *bytes = nullptr;
    int size = 0;
    if (dbus_message_marshal(message, &bytes, &size) == 0) {
        return "not marshalled";
    }
    // 12 bytes, the length of the header fields, the fields, and padding to a multiple of 8.
    std::uint32_t fields = 0;
    std::memcpy(&fields, bytes + 12, sizeof fields);
    const std::size_t body = (16 + std::size_t{fields} + 7) / 8 * 8;
    std::string text(bytes + body, static_cast<std::size_t>(size) - body);
    dbus_free(bytes);
    return text;
}

/// A number on the wire.
inline std::string wire(std::uint32_t number) { return {reinterpret_cast<const char *>(&number), sizeof number}; }

/// A text on the wire: length, text, zero.
inline std::string wire(const std::string &text) { return wire(static_cast<std::uint32_t>(text.size())) + text + '\0'; }
