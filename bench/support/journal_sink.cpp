#include "journal_sink.h"

#include "handle.h"
#include "processors.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <pthread.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

constexpr const char *SOCKET_PATH = "/run/systemd/journal/socket";

std::atomic<long> taken = 0;
int sink = -1;

void *drain(void * /*unused*/) {
    std::array<char, 4096> datagram{};
    while (recv(sink, datagram.data(), datagram.size(), MSG_TRUNC) >= 0) {
        ++taken;
    }
    return nullptr;
}

/// Mounts a private, empty /run. False with errno set.
bool own_run_folder() {
    return unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("tmpfs", "/run", "tmpfs", 0, nullptr) == 0;
}

/// Sets the queue length that systemd configures on a station; the kernel's default is shorter.
bool deepen_queue() {
    const FileHandle depth(unshare(CLONE_NEWNET) == 0 ? std::fopen("/proc/sys/net/unix/max_dgram_qlen", "we")
                                                      : nullptr);
    return depth && std::fputs("512", depth.get()) > 0 && std::fflush(depth.get()) == 0;
}

bool bind_socket() {
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(SOCKET_PATH).parent_path(), ignored);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, SOCKET_PATH, sizeof address.sun_path - 1);
    sink = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    return sink >= 0 && bind(sink, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

} // namespace

bool start_journal_sink() {
    const int own_processor = leave_last_processor();
    pthread_t thread{};
    if (!own_run_folder() || !deepen_queue() || !bind_socket() ||
        pthread_create(&thread, nullptr, drain, nullptr) != 0) {
        std::printf("no journal of our own (%s): the traces go to the system's, or nowhere\n", std::strerror(errno));
        return false;
    }
    pthread_detach(thread);
    keep_to(own_processor);
    return true;
}

long journal_datagrams() { return taken; }
