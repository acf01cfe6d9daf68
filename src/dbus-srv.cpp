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

// What is larger has pages of its own, which the kernel gets back at once. It is the library's first value;
// set, it does not grow with the first large message.
constexpr int LARGE_BLOCK = 128 * 1024;

// Never joined: the threads end with the process.
constinit pthread_t listener_thread{};
constinit pthread_t sender_thread{};

/// Holds all of the daemon's signals for a scope: a thread created in it never sees one.
class SignalsHeld {
  public:
    SignalsHeld() {
        const sigset_t all = signals_all();
        pthread_sigmask(SIG_BLOCK, &all, &before_);
    }
    ~SignalsHeld() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsHeld(const SignalsHeld &) = delete;
    SignalsHeld(SignalsHeld &&) = delete;
    SignalsHeld &operator=(const SignalsHeld &) = delete;
    SignalsHeld &operator=(SignalsHeld &&) = delete;

  private:
    sigset_t before_{};
};

} // namespace

int d_bus_srv_init() {
    trace(TRACE_INFO, " ");
    mallopt(M_MMAP_THRESHOLD, LARGE_BLOCK);
    dbus_threads_init_default(); // older libraries on the boards need it before their first use
    d_bus_srv_issue_init();
    const SignalsHeld held;
    if (pthread_create(&listener_thread, nullptr, d_bus_srv_main, nullptr) != 0) {
        trace(TRACE_DEBUG, "unable to create D-Bus listener");
        return -1;
    }
    if (pthread_create(&sender_thread, nullptr, d_bus_srv_msg_sender, nullptr) != 0) {
        trace(TRACE_DEBUG, "unable to create D-Bus listener"); // the same words, kept
        return -1;
    }
    return 0;
}
