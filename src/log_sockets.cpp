#include "log_sockets.h"

#include "handle.h"
#include "monotonic_clock.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>

namespace {

constexpr int LONGEST_WAIT_MS = 100;
constexpr int SEND_WAIT_MS = 40; // the library sends twice, and the kernel rounds up to ticks
constexpr std::int64_t PAUSE_SECONDS = 10;

/// A period in which a socket is not used. Thread-safe.
class Pause {
  public:
    [[nodiscard]] bool lasts() const {
        const std::int64_t until = until_.load(std::memory_order_relaxed);
        return until != 0 && monotonic_seconds() < until;
    }
    void begin() { until_.store(monotonic_seconds() + PAUSE_SECONDS, std::memory_order_relaxed); }
    void end() { until_.store(0, std::memory_order_relaxed); }

  private:
    std::atomic<std::int64_t> until_ = 0; ///< monotonic seconds; 0: no pause
};

constinit Pause journal_pause;
constinit Pause syslog_pause;

int socket_option(int fd, int option) {
    int value = -1;
    socklen_t size = sizeof value;
    return getsockopt(fd, SOL_SOCKET, option, &value, &size) == 0 ? value : -1;
}

/// The number of the next descriptor; -1 if none is left.
int lowest_free_descriptor() { return Descriptor(open("/", O_PATH | O_CLOEXEC)).get(); }

Descriptor connect_to_syslog() {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    std::strncpy(address.sun_path, _PATH_LOG, sizeof address.sun_path - 1);
    Descriptor syslog_socket(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (connect(syslog_socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        syslog_socket.reset();
    }
    return syslog_socket;
}

} // namespace

JournalOpening::JournalOpening() : socket_(lowest_free_descriptor()) { start_timer(); }

// The library does not expose its socket. It got the number that was free before. Inherited sockets, which other
// processes may share, have other numbers.
JournalOpening::~JournalOpening() {
    stop_timer();
    constexpr timeval longest{.tv_sec = 0, .tv_usec = SEND_WAIT_MS * 1000L};
    if (socket_option(socket_, SO_DOMAIN) == AF_UNIX && socket_option(socket_, SO_TYPE) == SOCK_DGRAM) {
        setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &longest, sizeof longest);
    }
}

/// The library opens its socket and blocks in the same call, which only a signal can interrupt. The timer repeats
/// in case the first signal arrives before the wait.
void JournalOpening::start_timer() {
    const int signo = SIGRTMIN;
    sigevent event{};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = signo;
    timed_ = timer_create(CLOCK_MONOTONIC, &event, &timer_) == 0;
    if (!timed_) {
        return;
    }
    struct sigaction action {};
    action.sa_handler = [](int) {}; // without SA_RESTART
    sigaction(signo, &action, &action_before_);
    sigset_t open;
    sigemptyset(&open);
    sigaddset(&open, signo);
    pthread_sigmask(SIG_UNBLOCK, &open, &mask_before_);
    constexpr std::timespec longest{.tv_sec = 0, .tv_nsec = LONGEST_WAIT_MS * 1'000'000L};
    constexpr itimerspec period{.it_interval = longest, .it_value = longest};
    timer_settime(timer_, 0, &period, nullptr);
}

void JournalOpening::stop_timer() {
    if (timed_) {
        timer_delete(timer_);
        sigaction(SIGRTMIN, &action_before_, nullptr);
        pthread_sigmask(SIG_SETMASK, &mask_before_, nullptr);
    }
}

bool journal_is_paused() { return journal_pause.lasts(); }

void journal_note_result(int result) {
    const bool refused_at_once = result == -ECONNREFUSED; // the journal restarts
    if (result < 0 && !refused_at_once) {
        journal_pause.begin();
    }
}

bool syslog_has_room() {
    if (syslog_pause.lasts()) {
        return false;
    }
    const Descriptor syslog_socket = connect_to_syslog();
    if (!syslog_socket) {
        return true; // syslog() handles a missing socket without waiting
    }
    pollfd polled{.fd = syslog_socket.get(), .events = POLLOUT, .revents = 0};
    const bool has_room = poll(&polled, 1, LONGEST_WAIT_MS) != 0;
    if (!has_room) {
        syslog_pause.begin();
    }
    return has_room;
}

void log_sockets_resume() {
    journal_pause.end();
    syslog_pause.end();
}
