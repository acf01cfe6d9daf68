#include "supervision.h"

#include "handle.h"
#include "no_destructor.h"
#include "text_buffer.h"
#include "trace.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

/// Large enough for all labels and the longest error text of the C library.
using StatusText = std::array<char, 448>;

constinit StatusText sent_status{}; // the last one that the manager accepted
constinit PassStatus traced_status;

constinit NoDestructor<Descriptor> notify_socket; // opened by the first message

/// Stores the manager's address: a path, or an abstract name after an @. Returns its size, 0 without a manager.
socklen_t notify_address(sockaddr_un *address) {
    const char *variable = std::getenv("NOTIFY_SOCKET");
    const std::string_view name = variable == nullptr ? "" : variable;
    if (name.size() < 2 || name.size() >= sizeof address->sun_path || (name[0] != '/' && name[0] != '@')) {
        return 0;
    }
    address->sun_family = AF_UNIX;
    name.copy(address->sun_path, name.size());
    const bool is_path = name[0] == '/';
    if (!is_path) {
        address->sun_path[0] = '\0';
    }
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + (is_path ? 1 : 0));
}

/// True if the manager has received the message. Not sd_notify(): it blocks while the manager does not read.
bool notify(const char *message) {
    sockaddr_un address{};
    const socklen_t size = notify_address(&address);
    if (size == 0) {
        return false;
    }
    Descriptor &manager = notify_socket.get();
    if (!manager) {
        manager.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    }
    if (sendto(manager.get(), message, std::strlen(message), MSG_DONTWAIT | MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr *>(&address), size) < 0) {
        trace(TRACE_TRACE, "FAILED: %s", std::strerror(errno));
        return false;
    }
    return true;
}

StatusText status_text(const PassStatus &status) {
    StatusText array{};
    TextBuffer text(array.data(), array.size());
    text.append("Raised issues: ");
    text.append(*status.raised_issues == '\0' ? "none" : status.raised_issues);
    if (status.is_off_bus) {
        text.append("; not on the bus");
    }
    if (status.status_log_error != 0) {
        text.append("; status log cannot be written: ");
        text.append(std::strerror(status.status_log_error));
    }
    if (status.lost_traces != 0) {
        text.append_format("; traces lost: %u", status.lost_traces);
    }
    return array;
}

/// Sends the keep-alive. Adds the status only if it has changed, because the manager announces it on the bus.
void keep_alive(const StatusText &status) {
    const bool is_new = status != sent_status;
    std::array<char, sizeof(StatusText) + sizeof "WATCHDOG=1\nSTATUS="> message{};
    TextBuffer text(message.data(), message.size());
    text.append("WATCHDOG=1");
    if (is_new) {
        text.append("\nSTATUS=");
        text.append(status.data());
    }
    if (notify(message.data()) && is_new) {
        sent_status = status;
    }
}

/// Traces at a level that a journal without debug traces also stores.
void say_changes(const PassStatus &status) {
    if (status.is_off_bus != traced_status.is_off_bus) {
        trace(TRACE_INFO, "%s", status.is_off_bus ? "not on the bus" : "on the bus again");
    }
    if (status.status_log_error != traced_status.status_log_error) {
        if (status.status_log_error != 0) {
            trace(TRACE_INFO, "status log cannot be written: %s", std::strerror(status.status_log_error));
        } else {
            trace(TRACE_INFO, "status log is written again");
        }
    }
    traced_status = {.is_off_bus = status.is_off_bus, .status_log_error = status.status_log_error};
}

bool has_manager() {
    sockaddr_un address{};
    return notify_address(&address) != 0;
}

} // namespace

void supervision_ready() {
    sent_status = {};
    traced_status = {};
    notify("READY=1");
}

void supervision_pass_done(const PassStatus &status) {
    if (has_manager()) {
        keep_alive(status_text(status));
        say_changes(status);
    }
}

void supervision_stopping() { notify("STOPPING=1"); }
