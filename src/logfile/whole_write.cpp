#include "logfile/whole_write.h"

#include "trace.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/// Whether the stream is a regular file of the size `end`, so that nothing follows our last byte.
bool is_last(const Descriptor &stream, off_t end) {
    struct stat status {};
    return fstat(stream.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size == end;
}

/// Removes the last `written` bytes from the end of the file, unless other data follows them. False if an
/// incomplete record stays. Also resets the offset, because stdout may not be in append mode.
bool cut_back(const Descriptor &stream, ssize_t written) {
    if (written == 0) {
        return true;
    }
    const off_t end = lseek(stream.get(), 0, SEEK_CUR);
    if (end < written || !is_last(stream, end)) {
        return false;
    }
    if (ftruncate(stream.get(), end - written) != 0) {
        trace(TRACE_TRACE, "%s", std::strerror(errno));
        return false;
    }
    return lseek(stream.get(), end - written, SEEK_SET) >= 0;
}

} // namespace

bool logfile_has_room(const Descriptor &stream) {
    pollfd polled{.fd = stream.get(), .events = POLLOUT, .revents = 0};
    return poll(&polled, 1, 0) != 0; // the write reports any error
}

bool logfile_write_whole(const Descriptor &stream, std::span<const iovec> pieces, bool *torn) {
    std::array<iovec, MAX_PIECES + 1> all{piece("\n")};
    const auto *const end = std::copy(pieces.begin(), pieces.end(), all.begin() + 1);
    const iovec *const first = all.begin() + (*torn ? 0 : 1);
    std::size_t size = 0;
    for (const iovec *each = first; each != end; ++each) {
        size += each->iov_len;
    }
    ssize_t written = -1;
    do {
        written = writev(stream.get(), first, static_cast<int>(end - first));
    } while (written == -1 && errno == EINTR);
    if (written >= 0 && static_cast<std::size_t>(written) < size) {
        *torn = !cut_back(stream, written) || *torn;
        errno = ENOSPC;
        return false;
    }
    *torn = *torn && written < 0;
    return written >= 0;
}
