#include "rotation.h"
#include "common/compression.h"
#include "handle.h"
#include "trace.h"

#include <cstdio>
#include <cstring>
#include <malloc.h>
#include <strings.h>
#include <unistd.h>

namespace {

bool names_no_file(const char *file) {
    return strcasecmp(file, "/dev/null") == 0 || strcasecmp(file, "stderr") == 0 || strcasecmp(file, "stdout") == 0;
}

bool exists(const char *file) { return access(file, F_OK) == 0; }

/// Under this name the compressor would read the standard input, and perhaps wait for it.
const char *path_of(const char *file) { return std::strcmp(file, "stdin") == 0 ? "./stdin" : file; }

/// Spells the names of a file's generations, one at a time; false when memory was out.
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

} // namespace

void file_rotate(const char *file, std::int32_t count) {
    trace(TRACE_TRACE, "file: %s -- count: %d ", file, count);
    if (names_no_file(file) || !exists(file)) {
        return;
    }
    GenerationName newer(file);
    GenerationName older(file);
    if (count == 0 || !newer || !older) {
        std::remove(file);
        return;
    }
    std::int32_t gap = first_gap(older, count);
    if (gap == count) {
        const char *oldest = older.of(--gap);
        trace(TRACE_TRACE, "remove %s", oldest);
        std::remove(oldest);
    }
    for (std::int32_t number = gap; number > 0; --number) {
        std::rename(newer.of(number - 1), older.of(number));
    }
    const char *newest = newer.of(0);
    trace(TRACE_TRACE, "compress %s -> %s", file, newest);
    file_compress(path_of(file), newest);
    malloc_trim(0);    // or the compressor's megabyte would stay with the process until the next rotation
    std::remove(file); // deliberate also after a failure: the disk of the board must not fill up
}
