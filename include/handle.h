#pragma once

// RAII owners of the C library's resources.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <type_traits>
#include <unistd.h>
#include <utility>

/// Owns a file descriptor; -1 is none. Errors of close are ignored.
class Descriptor {
  public:
    constexpr Descriptor() = default;
    constexpr explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(other.release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        reset(other.release());
        return *this;
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    ~Descriptor() { reset(); }

    [[nodiscard]] int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) {
            close(fd_);
        }
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

/// Opens a file without waiting: a FIFO or a busy terminal under this name must not stop a heartbeat. A new file
/// has mode 0666 minus the umask.
inline Descriptor open_nonblocking(const char *name, int flags) {
    return Descriptor(open(name, flags | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, 0666));
}

/// Opens a file for appending in the same way; creates it if missing. Empty, with errno set, on failure. Follows a link
/// to an existing file, but does not create the target of a dangling link.
inline Descriptor open_for_append(const char *name) {
    Descriptor file = open_nonblocking(name, O_WRONLY | O_APPEND);
    if (!file && errno == ENOENT) {
        file = open_nonblocking(name, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW);
    }
    return file;
}

struct CloseFile {
    void operator()(std::FILE *file) const { std::fclose(file); } // NOLINT(cert-err33-c): no caller to report to
};

/// Owns a stdio stream.
using FileHandle = std::unique_ptr<std::FILE, CloseFile>;

/// A stdio stream that takes ownership of `descriptor`; empty without a descriptor or when out of memory.
inline FileHandle stream_on(Descriptor descriptor, const char *mode) {
    FileHandle stream(descriptor ? fdopen(descriptor.get(), mode) : nullptr);
    if (stream) {
        descriptor.release();
    }
    return stream;
}

struct FreeMemory {
    void operator()(void *memory) const { std::free(memory); } // NOLINT(cppcoreguidelines-no-malloc)
};

/// Owns a record from malloc.
template <typename Record> using RecordHandle = std::unique_ptr<Record, FreeMemory>;

/// Memory for one plain record, zeroed; null when out of memory.
template <typename Record> RecordHandle<Record> record_allocate() {
    static_assert(std::is_trivially_copyable_v<Record>);
    auto *record = static_cast<Record *>(std::malloc(sizeof(Record))); // NOLINT(cppcoreguidelines-no-malloc)
    if (record != nullptr) {
        *record = Record{};
    }
    return RecordHandle<Record>(record);
}

/// Owns a text from malloc.
using TextHandle = std::unique_ptr<char[], FreeMemory>;

/// A text buffer of `size` bytes, zeroed; null when out of memory.
inline TextHandle text_allocate(std::size_t size) {
    return TextHandle(static_cast<char *>(std::calloc(size, 1))); // NOLINT(cppcoreguidelines-no-malloc)
}
