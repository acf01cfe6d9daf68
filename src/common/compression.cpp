#include "common/compression.h"
#include "handle.h"
#include "trace.h"

#include <algorithm>
#include <array>
#include <bzlib.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr int COPY_SIZE = 65536;
constexpr int BLOCK_SIZE = 1; // the smallest: 1.1 MiB of memory on the board instead of 7
constexpr int WORK_FACTOR = 30;
constexpr int QUIET = 0;

bool is_stdin(const char *name) { return std::strcmp(name, "stdin") == 0; }
bool is_stdout(const char *name) { return std::strcmp(name, "stdout") == 0; }

/// A stream on a duplicate of a standard descriptor: we can close it, and data left in its buffer by a failed
/// write never reaches stdout.
FileHandle open_copy(int standard, const char *mode) {
    return stream_on(Descriptor(fcntl(standard, F_DUPFD_CLOEXEC, 0)), mode);
}

FileHandle open_source(const char *name) {
    return is_stdin(name) ? open_copy(STDIN_FILENO, "r") : stream_on(open_nonblocking(name, O_RDONLY), "r");
}

/// Removes the file again if out of memory for its stream.
FileHandle create_file(const char *name, int flags) {
    Descriptor file = open_nonblocking(name, O_WRONLY | O_CREAT | flags);
    const bool created = static_cast<bool>(file);
    FileHandle stream = stream_on(std::move(file), "w");
    if (created && !stream) {
        std::remove(name);
    }
    return stream;
}

FileHandle open_destination(const char *name) {
    if (!is_stdout(name)) {
        return create_file(name, O_TRUNC);
    }
    std::fflush(stdout); // earlier output must come first
    return open_copy(STDOUT_FILENO, "w");
}

/// Replaces a file of this name and never follows a link.
FileHandle create_new(const char *name) {
    std::remove(name);
    return create_file(name, O_EXCL | O_NOFOLLOW);
}

void remove_destination(const char *name) {
    if (!is_stdout(name)) {
        std::remove(name);
    }
}

bool close_checked(FileHandle &stream) { return std::fclose(stream.release()) == 0; }

/// Writes the flushed data to the disk; also true on a file system without synchronisation.
bool synchronise(std::FILE *stream) { return fdatasync(fileno(stream)) == 0 || errno == EINVAL || errno == ENOSYS; }

timeval time_of_day() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return now;
}

/// Kept: from the microseconds alone, so it never reports a second or more.
long elapsed_microseconds(const timeval &start, const timeval &end) {
    const auto elapsed = static_cast<long>(end.tv_usec - start.tv_usec);
    return elapsed > 0 ? elapsed : elapsed + 1000000;
}

/// The resources of a compression or decompression; `out` is null on failure.
struct Job {
    TextHandle buffer;
    FileHandle in;
    FileHandle out;
    timeval start;

    Job(const char *from, const char *to, FileHandle (*open_to)(const char *) = open_destination)
        : buffer(text_allocate(COPY_SIZE)), in(buffer ? open_source(from) : nullptr), out(in ? open_to(to) : nullptr),
          start(time_of_day()) {}
};

struct ByteCounts {
    std::uint64_t in;
    std::uint64_t out;

    /// The compressed size in percent of the plain one.
    [[nodiscard]] int factor() const { return in == 0 ? 0 : static_cast<int>(100 * out / in); }
};

constexpr std::uint64_t join(unsigned low, unsigned high) { return std::uint64_t{high} << 32U | low; }

/// A bzip2 stream into `out`, which must outlive it.
class BzipWriter {
  public:
    explicit BzipWriter(std::FILE *out)
        : out_(out), stream_(BZ2_bzWriteOpen(&error_, out, BLOCK_SIZE, QUIET, WORK_FACTOR)) {}
    BzipWriter(const BzipWriter &) = delete;
    BzipWriter(BzipWriter &&) = delete;
    BzipWriter &operator=(const BzipWriter &) = delete;
    BzipWriter &operator=(BzipWriter &&) = delete;
    ~BzipWriter() { abandon(); }

    explicit operator bool() const { return stream_ != nullptr; }

    bool write(char *bytes, std::size_t count) {
        BZ2_bzWrite(&error_, stream_, bytes, static_cast<int>(count));
        return error_ == BZ_OK;
    }

    bool finish(ByteCounts &counts) {
        unsigned in_low = 0;
        unsigned in_high = 0;
        unsigned out_low = 0;
        unsigned out_high = 0;
        BZ2_bzWriteClose64(&error_, stream_, 0, &in_low, &in_high, &out_low, &out_high);
        if (error_ != BZ_OK) {
            abandon();
            return false;
        }
        stream_ = nullptr;
        counts = {.in = join(in_low, in_high), .out = join(out_low, out_high)};
        return true;
    }

  private:
    void abandon() {
        if (stream_ != nullptr) {
            clearerr(out_); // with the error flag set, BZ2_bzWriteClose leaks a megabyte
            BZ2_bzWriteClose64(&error_, stream_, 1, nullptr, nullptr, nullptr, nullptr);
            stream_ = nullptr;
        }
    }

    int error_ = BZ_OK;
    std::FILE *out_;
    BZFILE *stream_;
};

enum class Outcome : std::uint8_t { done, write_failed, close_failed, interrupted };

/// What a rotation requires in addition.
struct PackOptions {
    bool synchronised = false; ///< write the destination to the disk before closing it
    Interrupt interrupt = nullptr;
};

/// A read error counts as the end of the input: the data read before it is kept. An input that fits the buffer is
/// never interrupted.
Outcome compress(FileHandle in, FileHandle out, char *buffer, ByteCounts &counts, const PackOptions &options) {
    BzipWriter writer(out.get());
    if (!writer) {
        return Outcome::write_failed;
    }
    while (const std::size_t count = std::fread(buffer, 1, COPY_SIZE, in.get())) {
        if (!writer.write(buffer, count)) {
            return Outcome::write_failed;
        }
        if (count == COPY_SIZE && options.interrupt != nullptr && options.interrupt()) {
            return Outcome::interrupted;
        }
    }
    in.reset();
    const bool finished = writer.finish(counts) && (!options.synchronised || synchronise(out.get()));
    return close_checked(out) && finished ? Outcome::done : Outcome::close_failed;
}

Outcome compress(Job &job, ByteCounts &counts, const PackOptions &options) {
    return compress(std::move(job.in), std::move(job.out), job.buffer.get(), counts, options);
}

// file_compress and file_pack both trace as file_compress.

void trace_begin(const char *from, const char *to) {
    trace_as("file_compress", TRACE_TRACE, "from: %s to: %s", from, to);
}

void trace_end(const char *from, const ByteCounts &counts, const timeval &start) {
    trace_as("file_compress", TRACE_TRACE, "file: %s: factor: %d%% time: %ld us", from, counts.factor(),
             elapsed_microseconds(start, time_of_day()));
}

} // namespace

int file_compress(const char *from, const char *to) {
    trace_begin(from, to);
    Job job(from, to);
    if (!job.out) {
        return -1;
    }
    ByteCounts counts{};
    const Outcome outcome = compress(job, counts, {});
    if (outcome != Outcome::done) {
        if (outcome == Outcome::write_failed || !is_stdin(from)) { // kept: the incomplete result of a piped text stays
            remove_destination(to);
        }
        return -1;
    }
    trace_end(from, counts, job.start);
    return 0;
}

Packing file_pack(const char *from, const char *to, const char *temporary, Interrupt interrupt) {
    trace_begin(from, to);
    Job job(from, temporary, create_new);
    if (!job.out) {
        return Packing::failed;
    }
    ByteCounts counts{};
    const Outcome outcome = compress(job, counts, {.synchronised = true, .interrupt = interrupt});
    if (outcome != Outcome::done) {
        std::remove(temporary);
        return outcome == Outcome::interrupted ? Packing::interrupted : Packing::failed;
    }
    trace_end(from, counts, job.start);
    return Packing::done;
}

namespace {

/// Reads the text of the bzip2 streams in `in`, which must outlive it. Like bunzip2, it concatenates successive
/// streams and ignores other data after them.
class BzipReader {
  public:
    explicit BzipReader(std::FILE *in) : in_(in) { open_next(); }
    BzipReader(const BzipReader &) = delete;
    BzipReader(BzipReader &&) = delete;
    BzipReader &operator=(const BzipReader &) = delete;
    BzipReader &operator=(BzipReader &&) = delete;
    ~BzipReader() { close(); }

    /// The number of bytes read, 0 at the end, -1 after an error.
    int read(char *buffer) {
        while (stream_ != nullptr) {
            const int count = BZ2_bzRead(&error_, stream_, buffer, COPY_SIZE);
            if (error_ == BZ_STREAM_END) {
                keep_unused();
                close();
                if (!at_end()) {
                    open_next();
                }
            } else if (error_ != BZ_OK) {
                return error_ == BZ_DATA_ERROR_MAGIC && streams_ > 1 ? 0 : -1;
            }
            if (count > 0) {
                return count;
            }
        }
        return error_ == BZ_STREAM_END && ferror(in_) == 0 ? 0 : -1;
    }

  private:
    void open_next() {
        stream_ = BZ2_bzReadOpen(&error_, in_, QUIET, 0, unused_.data(), unused_count_);
        ++streams_;
    }

    void close() {
        int ignored = BZ_OK;
        BZ2_bzReadClose(&ignored, stream_);
        stream_ = nullptr;
    }

    void keep_unused() {
        int ignored = BZ_OK;
        void *bytes = nullptr;
        BZ2_bzReadGetUnused(&ignored, stream_, &bytes, &unused_count_);
        std::copy_n(static_cast<const char *>(bytes), unused_count_, unused_.begin());
    }

    [[nodiscard]] bool at_end() const { return unused_count_ == 0 && std::ungetc(std::getc(in_), in_) == EOF; }

    int error_ = BZ_OK;
    std::FILE *in_;
    BZFILE *stream_ = nullptr;
    int streams_ = 0;
    int unused_count_ = 0; ///< bytes that the last stream has read past its end: the start of the next one
    std::array<char, BZ_MAX_UNUSED> unused_{};
};

bool decompress(FileHandle in, FileHandle out, char *buffer) {
    BzipReader reader(in.get());
    int count = 0;
    while ((count = reader.read(buffer)) > 0) {
        const auto bytes = static_cast<std::size_t>(count);
        if (std::fwrite(buffer, 1, bytes, out.get()) != bytes) {
            return false;
        }
    }
    return close_checked(out) && count == 0;
}

} // namespace

int file_decompress(const char *from, const char *to) {
    trace(TRACE_TRACE, "from: %s to: %s", from, to);
    Job job(from, to);
    if (!job.out) {
        return -1;
    }
    if (!decompress(std::move(job.in), std::move(job.out), job.buffer.get())) {
        remove_destination(to);
        return -1;
    }
    trace(TRACE_TRACE, "file: %s: time: %ld us", from, elapsed_microseconds(job.start, time_of_day()));
    return 0;
}
