#include "supervision.h"

#include "handle.h"
#include "no_destructor.h"
#include "text_buffer.h"
#include "time_of_day.h"
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

constinit NoDestructor<Descriptor> notify_socket; // open from the first message on, as long as the process lives

/// Writes where the manager listens: a path, or behind an @ a name of the abstract kind. The address's
/// size, 0 when nobody asks.
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

/// Sends by hand: the library's sd_notify waits for room at a manager that does not read.
void notify(const char *message) {
    sockaddr_un address{};
    const socklen_t size = notify_address(&address);
    if (size == 0) {
        return;
    }
    Descriptor &socket_ = notify_socket.get();
    if (!socket_) {
        socket_.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    }
    if (sendto(socket_.get(), message, std::strlen(message), MSG_DONTWAIT | MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr *>(&address), size) < 0) {
        trace(TRACE_TRACE, "FAILED: %s", std::strerror(errno));
    }
}

} // namespace

void supervision_ready() { notify("READY=1"); }

void supervision_pass_done(std::int64_t now, int raised_issues) {
    std::array<char, 128> message{};
    const TimeOfDay time = utc_time_of_day(now);
    TextBuffer(message.data(), message.size())
        .append_format("WATCHDOG=1\nSTATUS=Last heartbeat at %02d:%02d:%02d UTC, raised issues: %d", time.hour,
                       time.minute, time.second, raised_issues);
    notify(message.data());
}

void supervision_stopping() { notify("STOPPING=1"); }
