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

/// file_compress would read standard input under this name.
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

/// The first number without a generation; `count` when there are that many. A negative count has no
/// gap to look for: generation 000 is replaced and nothing shifted.
std::int32_t first_gap(GenerationName &name, std::int32_t count) {
    std::int32_t number = 0;
    while (number < count && exists(name.of(number))) {
        ++number;
    }
    return number;
}

/// Frees the name of generation 000 as far as that can be done.
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

/// The name under which a generation is written: no generation's, and no longer than one.
TextHandle packing_name(const char *file) {
    const std::size_t size = std::strlen(file) + sizeof ".packing";
    TextHandle name = text_allocate(size);
    if (name) {
        std::snprintf(name.get(), size, "%s.packing", file);
    }
    return name;
}

/// Puts the names in the folder of `path`, which it cuts, on the disk.
void synchronise_folder(char *path) {
    const Descriptor folder = open_nonblocking(dirname(path), O_RDONLY | O_DIRECTORY);
    if (folder) {
        fsync(folder.get());
    }
}

/// The generation gets its name when it is on the disk, and the name is there before the original goes.
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
    std::remove(file); // kept: removed after a failure too, or the disk would fill up
}

void file_rotate_leftover(const char *file) {
    if (const TextHandle leftover = packing_name(file)) {
        std::remove(leftover.get());
    }
}
