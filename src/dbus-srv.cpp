#include "dbus-srv.h"

#include "dbus-srv/issues.h"
#include "dbus-srv/listener.h"
#include "dbus-srv/sender.h"
#include "signals.h"
#include "trace.h"

#include <csignal>
#include <dbus/dbus.h>
#include <malloc.h>
#include <pthread.h>

namespace {

// Larger blocks get their own pages, which free() returns to the kernel at once. This is the C library's default;
// setting it keeps the limit from growing after the first large message.
constexpr int LARGE_BLOCK = 128 * 1024;

// Never joined: the threads end with the process.
constinit pthread_t listener_thread{};
constinit pthread_t sender_thread{};

/// Blocks all of the daemon's signals in a scope: a thread created in it inherits the mask and never sees one.
class ScopedSignalBlock {
  public:
    ScopedSignalBlock() {
        const sigset_t all = signals_all();
        pthread_sigmask(SIG_BLOCK, &all, &before_);
    }
    ~ScopedSignalBlock() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    ScopedSignalBlock(const ScopedSignalBlock &) = delete;
    ScopedSignalBlock(ScopedSignalBlock &&) = delete;
    ScopedSignalBlock &operator=(const ScopedSignalBlock &) = delete;
    ScopedSignalBlock &operator=(ScopedSignalBlock &&) = delete;

  private:
    sigset_t before_{};
};

} // namespace

int d_bus_srv_init() {
    trace(TRACE_INFO, " ");
    mallopt(M_MMAP_THRESHOLD, LARGE_BLOCK);
    dbus_threads_init_default(); // old versions of libdbus need this before any other call
    d_bus_srv_issue_init();
    const ScopedSignalBlock held;
    if (pthread_create(&listener_thread, nullptr, d_bus_srv_main, nullptr) != 0) {
        trace(TRACE_DEBUG, "unable to create D-Bus listener");
        return -1;
    }
    if (pthread_create(&sender_thread, nullptr, d_bus_srv_msg_sender, nullptr) != 0) {
        trace(TRACE_DEBUG, "unable to create D-Bus listener"); // kept: the same text for both threads
        return -1;
    }
    return 0;
}
