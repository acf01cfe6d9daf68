// Preloaded before the station's own library: fails the calls that the page selects, without making them. Sees
// the calls of the daemon and of other libraries, but not those inside the C library.

#include "station_page.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <dlfcn.h>
#include <sys/uio.h>
#include <unistd.h>

extern "C" __attribute__((weak)) StationPage *station_page(); // NOLINT(readability-redundant-declaration): weak here

namespace {

/// Whether this call fails; sets errno if so.
bool fails(StationCall call) {
    StationPage *page = station_page == nullptr ? nullptr : station_page();
    if (page == nullptr || page->fault.call != call) {
        return false;
    }
    const StationThreads threads = page->fault.threads;
    if (threads != StationThreads::all && (threads == StationThreads::main) != (gettid() == getpid())) {
        return false;
    }
    const std::uint32_t number = page->calls.fetch_add(1) + 1;
    if (number < page->fault.first || number > page->fault.last) {
        return false;
    }
    errno = page->fault.error;
    return true;
}

} // namespace

// Defines a function under an internal name, because its own would conflict with the headers' declarations.
#define FAILING(CALL, FAILED, RESULT, NAME, PARAMETERS, ARGUMENTS)                                                     \
    extern "C" RESULT failing_##NAME PARAMETERS __asm__(#NAME);                                                        \
    RESULT failing_##NAME PARAMETERS {                                                                                 \
        using Function = RESULT PARAMETERS;                                                                            \
        static constinit Function *real = nullptr;                                                                     \
        if (fails(StationCall::CALL)) {                                                                                \
            return FAILED;                                                                                             \
        }                                                                                                              \
        if (real == nullptr) {                                                                                         \
            real = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, #NAME));                                              \
        }                                                                                                              \
        return real ARGUMENTS;                                                                                         \
    }

FAILING(open, -1, int, open, (const char *path, int flags, unsigned mode), (path, flags, mode))
FAILING(open, -1, int, open64, (const char *path, int flags, unsigned mode), (path, flags, mode))
FAILING(open, -1, int, __open64_2, (const char *path, int flags), (path, flags))
FAILING(fopen, nullptr, std::FILE *, fopen64, (const char *path, const char *mode), (path, mode))
FAILING(fopen, nullptr, std::FILE *, fdopen, (int fd, const char *mode), (fd, mode))
FAILING(read, -1, ssize_t, read, (int fd, void *bytes, std::size_t size), (fd, bytes, size))
FAILING(write, -1, ssize_t, write, (int fd, const void *bytes, std::size_t size), (fd, bytes, size))
FAILING(fread, 0, std::size_t, fread, (void *bytes, std::size_t size, std::size_t count, std::FILE *file),
        (bytes, size, count, file))
FAILING(fwrite, 0, std::size_t, fwrite, (const void *bytes, std::size_t size, std::size_t count, std::FILE *file),
        (bytes, size, count, file))
FAILING(lseek, -1, off_t, lseek64, (int fd, off_t offset, int from), (fd, offset, from))
FAILING(truncate, -1, int, ftruncate64, (int fd, off_t size), (fd, size))
FAILING(sync, -1, int, fdatasync, (int fd), (fd))
FAILING(sync, -1, int, fsync, (int fd), (fd))
FAILING(memory, nullptr, void *, malloc, (std::size_t size), (size))
FAILING(memory, nullptr, void *, calloc, (std::size_t count, std::size_t size), (count, size))
FAILING(memory, nullptr, void *, realloc, (void *memory, std::size_t size), (memory, size))
FAILING(memory, nullptr, void *, reallocarray, (void *memory, std::size_t count, std::size_t size),
        (memory, count, size))
FAILING(fork, -1, int, fork, (), ())
FAILING(thread, errno, int, pthread_create, (void *thread, void *attributes, void *(*start)(void *), void *argument),
        (thread, attributes, start, argument))
FAILING(rename, -1, int, rename, (const char *from, const char *to), (from, to))
FAILING(remove, -1, int, remove, (const char *path), (path))
FAILING(remove, -1, int, unlink, (const char *path), (path))
FAILING(stat, -1, int, stat64, (const char *path, void *result), (path, result))
FAILING(stat, -1, int, access, (const char *path, int mode), (path, mode))
FAILING(ioctl, -1, int, ioctl, (int fd, unsigned long request, void *argument), (fd, request, argument))
FAILING(statvfs, -1, int, statvfs64, (const char *path, void *result), (path, result))
FAILING(socket, -1, int, socket, (int domain, int type, int protocol), (domain, type, protocol))
FAILING(connect, -1, int, connect, (int fd, const void *address, unsigned size), (fd, address, size))
FAILING(send, -1, ssize_t, send, (int fd, const void *bytes, std::size_t size, int flags), (fd, bytes, size, flags))
FAILING(send, -1, ssize_t, sendmsg, (int fd, const void *message, int flags), (fd, message, flags))
FAILING(receive, -1, ssize_t, recv, (int fd, void *bytes, std::size_t size, int flags), (fd, bytes, size, flags))
FAILING(receive, -1, ssize_t, recvmsg, (int fd, void *message, int flags), (fd, message, flags))
FAILING(poll, -1, int, poll, (void *descriptors, unsigned long count, int timeout), (descriptors, count, timeout))
FAILING(poll, -1, int, ppoll, (void *descriptors, unsigned long count, const void *timeout, const void *mask),
        (descriptors, count, timeout, mask))
FAILING(control, -1, int, fcntl64, (int fd, int command, void *argument), (fd, command, argument))
FAILING(timer, -1, int, setitimer, (int which, const void *timer, void *old), (which, timer, old))
FAILING(handler, -1, int, sigaction, (int signo, const void *action, void *old), (signo, action, old))

// Closes the stream all the same, as the C library does.
extern "C" int failing_fclose(std::FILE *file) __asm__("fclose");
int failing_fclose(std::FILE *file) {
    const bool failed = fails(StationCall::fclose);
    const int error = errno;
    auto *real = reinterpret_cast<int (*)(std::FILE *)>(dlsym(RTLD_NEXT, "fclose"));
    const int result = real(file);
    errno = failed ? error : errno;
    return failed ? EOF : result;
}

extern "C" ssize_t failing_writev(int fd, const iovec *pieces, int count) __asm__("writev");
ssize_t failing_writev(int fd, const iovec *pieces, int count) {
    auto *real = reinterpret_cast<ssize_t (*)(int, const iovec *, int)>(dlsym(RTLD_NEXT, "writev"));
    if (fails(StationCall::write)) {
        return -1;
    }
    if (!fails(StationCall::torn_write)) {
        return real(fd, pieces, count);
    }
    const iovec half{.iov_base = pieces->iov_base, .iov_len = (pieces->iov_len + 1) / 2};
    return real(fd, &half, 1);
}
