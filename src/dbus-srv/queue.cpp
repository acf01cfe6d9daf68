#include "dbus-srv/queue.h"

#include "dbus-srv/mutex_lock.h"
#include "no_destructor.h"
#include "trace.h"

#include <cstdlib>
#include <memory>
#include <pthread.h>
#include <utility>

namespace {

struct SignalNode {
    BusMessage message;
    std::unique_ptr<SignalNode> next;

    // The standard operator new would link exception support, a third of the program's size.
    // NOLINTBEGIN(cppcoreguidelines-no-malloc)
    static void *operator new(std::size_t size) noexcept { return std::malloc(size); }
    static void operator delete(void *memory) { std::free(memory); }
    // NOLINTEND(cppcoreguidelines-no-malloc)
};

struct SignalQueue {
    std::unique_ptr<SignalNode> head;
    SignalNode *tail = nullptr;
};

constinit NoDestructor<SignalQueue> signal_queue;
constinit pthread_mutex_t queue_lock = PTHREAD_MUTEX_INITIALIZER;
constinit pthread_mutex_t wakeup_lock = PTHREAD_MUTEX_INITIALIZER;
constinit pthread_cond_t wakeup_cond = PTHREAD_COND_INITIALIZER;
/// Set when a pass has queued all of its signals, and when the link's state changes. The sender waits for this, not for
/// the first message.
constinit bool woken = false;

void link_node(SignalQueue &queue, std::unique_ptr<SignalNode> node) {
    SignalNode *const last = node.get();
    (queue.tail == nullptr ? queue.head : queue.tail->next) = std::move(node);
    queue.tail = last;
}

std::unique_ptr<SignalNode> unlink_node(SignalQueue &queue) {
    std::unique_ptr<SignalNode> node = std::move(queue.head);
    if (node) {
        queue.head = std::move(node->next);
    }
    if (!queue.head) {
        queue.tail = nullptr;
    }
    return node;
}

} // namespace

int d_bus_srv_msg_queue_add(BusMessage message) {
    std::unique_ptr<SignalNode> node(new SignalNode{std::move(message), nullptr});
    if (!node) {
        trace(TRACE_TRACE, "FAIL");
        return -1;
    }
    trace(TRACE_TRACE, "ADD");
    {
        const MutexLock lock(queue_lock);
        link_node(signal_queue.get(), std::move(node));
    }
    trace(TRACE_TRACE, "DONE");
    return 0;
}

BusMessage d_bus_srv_msg_queue_remove() {
    std::unique_ptr<SignalNode> node;
    {
        const MutexLock lock(queue_lock);
        node = unlink_node(signal_queue.get());
    }
    return node ? std::move(node->message) : nullptr;
}

void d_bus_srv_msg_queue_wait() {
    const MutexLock lock(wakeup_lock);
    while (!woken) {
        pthread_cond_wait(&wakeup_cond, &wakeup_lock);
    }
    woken = false;
}

void d_bus_srv_msg_queue_signal() {
    const MutexLock lock(wakeup_lock);
    woken = true;
    pthread_cond_signal(&wakeup_cond);
}
