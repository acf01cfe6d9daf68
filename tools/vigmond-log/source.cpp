#include "source.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace vlog {

namespace {

constexpr std::size_t INPUT_SIZE = 65536;
constexpr std::size_t SIGNATURE_SIZE = 3; // "BZh", then the size of the blocks

} // namespace

Source::Source(const std::string &path, std::atomic<std::uint64_t> *read_so_far)
    : file_(path == "-" ? fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3)
                        : open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY)),
      read_so_far_(read_so_far), must_be_packed_(path.ends_with(".bz2")) {
    if (!file_) {
        fail(std::strerror(errno));
    } else {
        posix_fadvise(file_.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    }
}

std::size_t Source::fail(const char *text) {
    problem_ = text;
    at_end_ = true;
    taken_ = input_.size();
    return 0;
}

bool Source::refill() {
    if (at_end_) {
        return false;
    }
    input_.erase(input_.begin(), input_.begin() + static_cast<std::ptrdiff_t>(taken_));
    taken_ = 0;
    const std::size_t before = input_.size();
    input_.resize(before + INPUT_SIZE);
    ssize_t count = -1;
    do {
        count = ::read(file_.get(), input_.data() + before, INPUT_SIZE);
    } while (count < 0 && errno == EINTR);
    input_.resize(before + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    if (count < 0) {
        fail(std::strerror(errno));
        return false;
    }
    if (read_so_far_ != nullptr) {
        *read_so_far_ += static_cast<std::uint64_t>(count);
    }
    at_end_ = count == 0;
    return count > 0;
}

void Source::find_kind() {
    while (left() < SIGNATURE_SIZE && refill()) {
    }
    const bool is_packed = left() >= SIGNATURE_SIZE && std::memcmp(input_.data() + taken_, "BZh", SIGNATURE_SIZE) == 0;
    kind_ = is_packed ? Kind::packed : Kind::plain;
    if (!is_packed && must_be_packed_ && problem_.empty()) {
        fail(left() == 0 ? "is empty" : "is not packed with bzip2");
    }
}

std::size_t Source::read(std::span<char> buffer) {
    if (kind_ == Kind::unknown && problem_.empty()) {
        find_kind();
    }
    if (!problem_.empty() || buffer.empty()) {
        return 0;
    }
    return kind_ == Kind::packed ? read_packed(buffer) : read_plain(buffer);
}

std::size_t Source::read_plain(std::span<char> buffer) {
    if (left() == 0 && !refill()) {
        return 0;
    }
    const std::size_t count = std::min(left(), buffer.size());
    std::memcpy(buffer.data(), input_.data() + taken_, count);
    taken_ += count;
    return count;
}

/// Several streams may follow each other in one file.
bool Source::begin_stream() {
    if (left() == 0 && !refill()) {
        if (streams_ == 0) {
            fail("is truncated");
        }
        return false;
    }
    stream_ = {};
    if (BZ2_bzDecompressInit(&stream_, 0, 0) != BZ_OK) {
        fail("out of memory");
        return false;
    }
    in_stream_ = true;
    return true;
}

void Source::end_stream() {
    if (in_stream_) {
        BZ2_bzDecompressEnd(&stream_);
        in_stream_ = false;
    }
}

std::size_t Source::read_packed(std::span<char> buffer) {
    std::size_t count = 0;
    while (count == 0 && problem_.empty()) {
        if (!in_stream_ && !begin_stream()) {
            return 0;
        }
        if (left() == 0 && !refill()) {
            return problem_.empty() ? fail("is truncated") : 0;
        }
        stream_.next_in = reinterpret_cast<char *>(input_.data() + taken_);
        stream_.avail_in = static_cast<unsigned>(left());
        stream_.next_out = buffer.data();
        stream_.avail_out = static_cast<unsigned>(buffer.size());
        const int result = BZ2_bzDecompress(&stream_);
        taken_ = input_.size() - stream_.avail_in;
        count = buffer.size() - stream_.avail_out;
        if (result == BZ_STREAM_END) {
            ++streams_;
            end_stream();
        } else if (result != BZ_OK) {
            const bool is_tail = result == BZ_DATA_ERROR_MAGIC && streams_ > 0;
            end_stream();
            fail(is_tail ? "has something after its end" : result == BZ_MEM_ERROR ? "out of memory" : "is damaged");
        }
    }
    return count;
}

} // namespace vlog
