#pragma once

// The messages that the kernel keeps for a datagram socket whose reader is slow.

#include "handle.h"

#include <cerrno>
#include <fstream>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>

/// Moves the calling thread to a new network namespace, where a socket that it creates keeps `messages` unread ones.
/// False without the right to create one; sockets have the machine's usual length then.
inline bool lengthen_datagram_queues(int messages) {
    if (unshare(CLONE_NEWNET) != 0) {
        return false;
    }
    std::ofstream length("/proc/sys/net/unix/max_dgram_qlen");
    length << messages << std::flush;
    return length.good();
}

/// Sends `message` to the socket at `address` until its queue is full. False if a call failed for another reason.
inline bool fill_datagram_queue(const sockaddr_un &address, const std::string &message) {
    for (;;) { // each sender has its own limit
        const Descriptor sender(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        if (connect(sender.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
            return false;
        }
        int sent = 0;
        while (send(sender.get(), message.data(), message.size(), 0) > 0) {
            ++sent;
        }
        if (sent == 0) {
            return errno == EAGAIN;
        }
    }
}
