#include "log_sockets.h"

#include "handle.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>

namespace {

constexpr int LONGEST_WAIT_MS = 100;
constexpr std::int64_t PAUSE_SECONDS = 10; // a heartbeat: one wait in each at most

constexpr int DESCRIPTORS_AT_START = 16;

constinit std::atomic<std::int64_t> full_until = 0; ///< monotonic seconds; 0 while there is room

std::int64_t monotonic_seconds() {
    std::timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

int socket_option(int fd, int option) {
    int value = -1;
    socklen_t size = sizeof value;
    return getsockopt(fd, SOL_SOCKET, option, &value, &size) == 0 ? value : -1;
}

Descriptor connect_to_syslog() {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    std::strncpy(address.sun_path, _PATH_LOG, sizeof address.sun_path - 1);
    Descriptor socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (connect(socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        socket_.reset();
    }
    return socket_;
}

} // namespace

void journal_bound_waits() {
    constexpr timeval longest{.tv_sec = 0, .tv_usec = LONGEST_WAIT_MS * 1000L};
    // The library does not tell which one is its own. Opened by the first trace of the process, it got the
    // lowest number that was free: behind the first ones, all below it are open.
    for (int fd = 0; fd < DESCRIPTORS_AT_START || fcntl(fd, F_GETFD) >= 0; ++fd) {
        if (socket_option(fd, SO_DOMAIN) == AF_UNIX && socket_option(fd, SO_TYPE) == SOCK_DGRAM) {
            setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &longest, sizeof longest);
        }
    }
}

bool journal_is_full() {
    const std::int64_t until = full_until.load(std::memory_order_relaxed);
    return until != 0 && monotonic_seconds() < until;
}

void journal_note_result(int result) {
    if (result == -EAGAIN) {
        full_until.store(monotonic_seconds() + PAUSE_SECONDS, std::memory_order_relaxed);
    }
}

bool syslog_has_room() {
    const Descriptor socket_ = connect_to_syslog();
    if (!socket_) {
        return true; // the library then does what it does without syslog
    }
    pollfd polled{.fd = socket_.get(), .events = POLLOUT, .revents = 0};
    return poll(&polled, 1, LONGEST_WAIT_MS) != 0;
}
