#include "logfile/header.h"

#include "gdata.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>

namespace {

/// Text of any length. It is built twice: the first time without a buffer, to measure its length.
class Text {
  public:
    constexpr Text() = default;
    constexpr Text(char *buffer, std::size_t size) : buffer_(buffer), size_(size) {}

    [[gnu::format(printf, 2, 3)]] void add(const char *format, ...) {
        std::va_list arguments;
        va_start(arguments, format);
        const std::size_t used = std::min(length_, size_);
        char *const end = buffer_ == nullptr ? nullptr : buffer_ + used;
        const int added = std::vsnprintf(end, size_ - used, format, arguments);
        va_end(arguments);
        length_ += static_cast<std::size_t>(std::max(added, 0));
    }
    [[nodiscard]] std::size_t length() const { return length_; }

  private:
    char *buffer_ = nullptr;
    std::size_t size_ = 0;
    std::size_t length_ = 0;
};

struct Header {
    const char *stamp;
    const char *occasion;
    const char *commandline;
    const Task *first;
};

const char *or_empty(const char *text) { return text == nullptr ? "" : text; }

void add_heading(Text &out, const std::array<const char *, 9> &words) {
    out.add("##\t%-12s\t%6s\t%6s\t%6s\t%6s\t%6s\t%6s\t%6s\t%s\n", words[0], words[1], words[2], words[3], words[4],
            words[5], words[6], words[7], words[8]);
}

void add_number(Text &out, const Task *task, std::uint32_t flag, std::int32_t number) {
    if (task_has(task, flag)) {
        out.add("\t%6d", number);
    } else {
        out.add("\t%6s", "NaN");
    }
}

void add_parameter(Text &out, const Task *task) {
    if (task->id == TASK_ID_NUMERIC_PARAMETER) { // regardless of the flags
        out.add("\t%d", task->minfail);
    } else if (task_has(task, TASK_HAS_PARAMETER)) {
        out.add("\t%s", or_empty(task->parameter));
    }
}

void add_task(Text &out, const Task *task) {
    out.add("##\t%-12s\t", or_empty(task->name));
    if (task->id == TASK_ID_UNSET) {
        out.add("  CBnn\t%6d", task->index);
    } else {
        out.add("  CB%02d\t%6d", task->id, task->index);
    }
    add_number(out, task, TASK_HAS_INTERVAL, task->interval);
    add_number(out, task, TASK_HAS_MINFAIL, task->minfail);
    add_number(out, task, TASK_HAS_MINWARN, task->minwarn);
    add_number(out, task, TASK_HAS_MAXWARN, task->maxwarn);
    add_number(out, task, TASK_HAS_MAXFAIL, task->maxfail);
    add_parameter(out, task);
    out.add("\n");
}

void add_header(Text &out, const Header &header) {
    out.add("##\n##\t%s\t%s\t%s\n##\n", header.stamp, header.occasion, header.commandline);
    // Each heading takes two lines: "inter-" above "val", "min" above "fail", and so on.
    add_heading(out, {"name", "ID", "ID", "inter-", "min", "min", "max", "max", "param"});
    add_heading(out, {"", "", "index", "val", "fail", "warn", "warn", "fail", ""});
    for (const Task *task = header.first; task != nullptr; task = task->next) {
        add_task(out, task);
    }
    out.add("%-10s %-8s\t%s\t%s\t%s\t%s\n", "## date", "time", "state", "ID", "index", "value");
}

} // namespace

TextHandle logfile_header_text(const char *stamp, const char *occasion) {
    const Header header{.stamp = stamp,
                        .occasion = occasion,
                        .commandline = or_empty(gdata_get_commandline()),
                        .first = gdata_get_task_head()};
    Text measure;
    add_header(measure, header);
    const std::size_t size = measure.length() + 1;
    TextHandle block = text_allocate(size);
    if (block) {
        Text text(block.get(), size);
        add_header(text, header);
    }
    return block;
}
