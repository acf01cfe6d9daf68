#undef _FORTIFY_SOURCE // it defines inline functions with the same names as below
#include "call_tape.h"

#include "handle.h"
#include "line_tap.h"
#include "system_bus.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/mmc/ioctl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/uio.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

namespace {

constinit CallTape *noting = nullptr;

void note(CallKind kind, const char *path, const char *property = "") {
    if (noting != nullptr) {
        noting->push_back({.kind = kind, .path = path, .property = property});
    }
}

void note_line_read() {
    if (noting != nullptr) {
        const auto file = std::find_if(noting->rbegin(), noting->rend(),
                                       [](const Call &call) { return call.kind == CallKind::read_file; });
        file->lines += file == noting->rend() ? 0 : 1;
    }
}

bool note_line(int priority, const char *file, const char *line, const char *function, const char * /*format*/,
               std::va_list arguments) {
    noting->push_back({.kind = CallKind::trace,
                       .path = va_arg(arguments, const char *),
                       .property = function,
                       .priority = priority,
                       .code_file = file,
                       .code_line = line});
    return true;
}

template <typename Function> Function *next_in_line(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

// Replace the libraries' functions; on 64-bit targets the headers redirect these calls to the 64-bit names.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the headers' are reserved
extern "C" {

std::FILE *fopen(const char *path, const char *mode) {
    note(CallKind::read_file, path);
    static auto *const next = next_in_line<std::FILE *(const char *, const char *)>("fopen64");
    return next(path, mode);
}

char *fgets(char *line, int size, std::FILE *file) {
    note_line_read();
    static auto *const next = next_in_line<char *(char *, int, std::FILE *)>("fgets");
    return next(line, size, file);
}

int open(const char *path, int flags, ...) {
    static auto *const next = next_in_line<int(const char *, int, ...)>("open64");
    std::va_list arguments;
    va_start(arguments, flags);
    const int mode = (flags & O_CREAT) != 0 ? va_arg(arguments, int) : 0;
    va_end(arguments);
    if ((flags & O_CREAT) == 0) {
        note(CallKind::open_file, path);
    }
    return next(path, flags, mode);
}

int stat(const char *path, struct stat *status) noexcept {
    note(CallKind::stat, path);
    static auto *const next = next_in_line<int(const char *, struct stat *)>("stat64");
    return next(path, status);
}

int statvfs(const char *path, struct statvfs *system) noexcept {
    note(CallKind::statvfs, path);
    static auto *const next = next_in_line<int(const char *, struct statvfs *)>("statvfs64");
    return next(path, system);
}

int access(const char *path, int mode) noexcept {
    note(CallKind::access, path);
    static auto *const next = next_in_line<int(const char *, int)>("access");
    return next(path, mode);
}

ssize_t writev(int fd, const iovec *pieces, int count) {
    if (noting != nullptr) {
        std::string record;
        for (int i = 0; i < count; ++i) {
            record.append(static_cast<const char *>(pieces[i].iov_base), pieces[i].iov_len);
        }
        note(CallKind::record, record.c_str());
    }
    static auto *const next = next_in_line<ssize_t(int, const iovec *, int)>("writev");
    return next(fd, pieces, count);
}

int sd_bus_get_property_string(sd_bus *bus, const char *destination, const char *path, const char *interface,
                               const char *property, sd_bus_error *error, char **text) {
    note(CallKind::bus_text, path, property);
    static auto *const next = next_in_line<decltype(sd_bus_get_property_string)>("sd_bus_get_property_string");
    return next(bus, destination, path, interface, property, error, text);
}

int sd_bus_get_property_trivial(sd_bus *bus, const char *destination, const char *path, const char *interface,
                                const char *property, sd_bus_error *error, char type, void *number) {
    note(CallKind::bus_number, path, property);
    static auto *const next = next_in_line<decltype(sd_bus_get_property_trivial)>("sd_bus_get_property_trivial");
    return next(bus, destination, path, interface, property, error, type, number);
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

namespace {

void read_lines(const Call &call) {
    const FileHandle file(std::fopen(call.path.c_str(), "re"));
    std::array<char, 1024> line; // NOLINT(cppcoreguidelines-pro-type-member-init): filled below
    for (int i = 0; file && i < call.lines; ++i) {
        if (std::fgets(line.data(), static_cast<int>(line.size()), file.get()) == nullptr) {
            return;
        }
    }
}

/// Sends the ioctl if the file is the eMMC, else reads it.
void open_file(const Call &call) {
    const Descriptor file(open(call.path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 2048> text; // NOLINT(cppcoreguidelines-pro-type-member-init): filled below
    mmc_ioc_cmd command{};
    if (!call.path.ends_with("mmcblk1")) {
        static_cast<void>(read(file.get(), text.data(), text.size()) == 0);
    } else if (ioctl(file.get(), MMC_IOC_CMD, &command) == 0) {
        std::abort(); // does not exist here
    }
}

void write_record(const Call &call, int log) {
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): writev only reads
    const iovec piece{.iov_base = const_cast<char *>(call.path.data()), .iov_len = call.path.size()};
    if (writev(log, &piece, 1) < 0 || lseek(log, 0, SEEK_END) < 0) { // the daemon checks its size
        std::abort();
    }
}

constexpr const char *SYSTEMD = "org.freedesktop.systemd1";
constexpr const char *UNIT = "org.freedesktop.systemd1.Unit";

sd_bus *system_bus() {
    static sd_bus *bus = nullptr;
    if (bus == nullptr && sd_bus_default_system(&bus) < 0) {
        std::abort();
    }
    return bus;
}

void ask_text(const Call &call) {
    UnitError error;
    char *text = nullptr;
    sd_bus_get_property_string(system_bus(), SYSTEMD, call.path.c_str(), UNIT, call.property.c_str(), error.get(),
                               &text);
    const TextHandle owned(text);
}

void ask_number(const Call &call) {
    UnitError error;
    std::uint64_t number = 0;
    sd_bus_get_property_trivial(system_bus(), SYSTEMD, call.path.c_str(), UNIT, call.property.c_str(), error.get(), 't',
                                &number);
}

void play(const Call &call, int log) {
    struct stat status {};
    struct statvfs system {};
    switch (call.kind) {
    case CallKind::trace:
        sd_journal_print_with_location(call.priority, call.code_file.c_str(), call.code_line.c_str(),
                                       call.property.c_str(), "%s\n", call.path.c_str());
        break;
    case CallKind::read_file:
        read_lines(call);
        break;
    case CallKind::open_file:
        open_file(call);
        break;
    case CallKind::stat:
        static_cast<void>(stat(call.path.c_str(), &status));
        break;
    case CallKind::statvfs:
        static_cast<void>(statvfs(call.path.c_str(), &system));
        break;
    case CallKind::access:
        static_cast<void>(access(call.path.c_str(), F_OK));
        break;
    case CallKind::record:
        write_record(call, log);
        break;
    case CallKind::bus_text:
        ask_text(call);
        break;
    case CallKind::bus_number:
        ask_number(call);
        break;
    }
}

} // namespace

CallTape note_calls(const std::function<void()> &run) {
    CallTape tape;
    noting = &tape;
    line_tap = note_line;
    run();
    line_tap = nullptr;
    noting = nullptr;
    return tape;
}

std::size_t count(const CallTape &tape, CallKind kind) {
    return static_cast<std::size_t>(
        std::count_if(tape.begin(), tape.end(), [kind](const Call &call) { return call.kind == kind; }));
}

void play(const CallTape &tape, int log) {
    for (const Call &call : tape) {
        play(call, log);
    }
}
