#include "rotation.h"

#include "common/compression.h"
#include "handle.h"
#include "trace.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <libgen.h>
#include <malloc.h>
#include <strings.h>
#include <unistd.h>

namespace {

bool names_no_file(const char *file) {
    return strcasecmp(file, "/dev/null") == 0 || strcasecmp(file, "stderr") == 0 || strcasecmp(file, "stdout") == 0;
}

bool exists(const char *file) { return access(file, F_OK) == 0; }

/// A path that file_compress does not take for standard input.
const char *path_of(const char *file) { return std::strcmp(file, "stdin") == 0 ? "./stdin" : file; }

/// The names of a file's generations, one at a time; false when out of memory.
class GenerationName {
  public:
    explicit GenerationName(const char *file)
        : file_(file), size_(std::strlen(file) + sizeof(".0000000.bz2")), text_(text_allocate(size_)) {}

    explicit operator bool() const { return text_ != nullptr; }

    const char *of(std::int32_t number) {
        std::snprintf(text_.get(), size_, "%s.%03d%s", file_, number, ".bz2");
        return text_.get();
    }

  private:
    const char *file_;
    std::size_t size_;
    TextHandle text_;
};

/// The first number without a generation, at most `count`. With a negative count it is 0: nothing is shifted, and
/// generation 000 is replaced.
std::int32_t first_gap(GenerationName &name, std::int32_t count) {
    std::int32_t number = 0;
    while (number < count && exists(name.of(number))) {
        ++number;
    }
    return number;
}

/// Shifts the generations up by one to free number 000; errors are ignored.
void shift(GenerationName &newer, GenerationName &older, std::int32_t count) {
    std::int32_t gap = first_gap(older, count);
    if (gap == count) {
        const char *oldest = older.of(--gap);
        trace_as("file_rotate", TRACE_TRACE, "remove %s", oldest);
        std::remove(oldest);
    }
    for (std::int32_t number = gap; number > 0; --number) {
        std::rename(newer.of(number - 1), older.of(number));
    }
}

/// The temporary name of a new generation. It is no longer than a generation's name, so that it fits where they do.
TextHandle packing_name(const char *file) {
    const std::size_t size = std::strlen(file) + sizeof ".packing";
    TextHandle name = text_allocate(size);
    if (name) {
        std::snprintf(name.get(), size, "%s.packing", file);
    }
    return name;
}

/// Synchronises the directory of `path` to the disk; modifies `path`.
void synchronise_folder(char *path) {
    const Descriptor folder = open_nonblocking(dirname(path), O_RDONLY | O_DIRECTORY);
    if (folder) {
        fsync(folder.get());
    }
}

/// Compresses `file` into `temporary`, renames that to `generation` when it is on the disk, and synchronises the
/// folder. The caller then removes `file`.
Packing pack(const char *file, const char *generation, char *temporary, Interrupt interrupt) {
    const Packing result = file_pack(path_of(file), generation, temporary, interrupt);
    if (result == Packing::done) {
        if (std::rename(temporary, generation) == 0) {
            synchronise_folder(temporary);
        } else {
            std::remove(temporary);
        }
    }
    return result;
}

} // namespace

void file_rotate(const char *file, std::int32_t count, Interrupt interrupt) {
    trace(TRACE_TRACE, "file: %s -- count: %d ", file, count);
    if (names_no_file(file) || !exists(file)) {
        return;
    }
    GenerationName newer(file);
    GenerationName older(file);
    const TextHandle temporary = packing_name(file);
    if (count == 0 || !newer || !older || !temporary) {
        std::remove(file);
        return;
    }
    shift(newer, older, count);
    const char *newest = newer.of(0);
    trace(TRACE_TRACE, "compress %s -> %s", file, newest);
    if (pack(file, newest, temporary.get(), interrupt) == Packing::interrupted) {
        return;
    }
    malloc_trim(0);    // return the compressor's megabyte to the system
    std::remove(file); // kept: also after a failure, so that the disk does not fill up
}

void file_rotate_leftover(const char *file) {
    if (const TextHandle leftover = packing_name(file)) {
        std::remove(leftover.get());
    }
}
