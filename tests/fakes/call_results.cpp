#include "call_results.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

namespace {

constinit CallResults *current = nullptr;

bool fails(Call call) { return current != nullptr && current->fails(call); }

void watch(int fd) {
    if (current != nullptr && fd >= 0) {
        current->watch(fd);
    }
}

int answer_stat(const char *path, struct stat *status) {
    return fails(Call::stat) ? -1 : fstatat(AT_FDCWD, path, status, 0);
}

int answer_ioctl(int fd, unsigned long request, void *argument) {
    if (fails(Call::ioctl)) {
        return -1;
    }
    if (current != nullptr && current->answer()) {
        return current->answer()(fd, request, argument);
    }
    return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}

} // namespace

extern "C" {
std::FILE *__real_fopen64(const char *path, const char *mode);
int __real_statvfs64(const char *path, struct statvfs *counts);

std::FILE *__wrap_fopen64(const char *path, const char *mode) {
    if (fails(Call::fopen)) {
        return nullptr;
    }
    std::FILE *file = __real_fopen64(current == nullptr ? path : current->redirected(path), mode);
    watch(file == nullptr ? -1 : fileno(file));
    return file;
}

int __wrap_open64(const char *path, int flags, ...) {
    if (fails(Call::open)) {
        return -1;
    }
    const int fd = openat(AT_FDCWD, path, flags); // no probe creates a file
    watch(fd);
    return fd;
}

int __wrap_stat(const char *path, struct stat *status) { return answer_stat(path, status); }
int __wrap_stat64(const char *path, struct stat *status) { return answer_stat(path, status); }
int __wrap___stat64_time64(const char *path, struct stat *status) { return answer_stat(path, status); }

int __wrap_statvfs64(const char *path, struct statvfs *counts) {
    if (fails(Call::statvfs)) {
        return -1;
    }
    if (current != nullptr && current->counts()) {
        *counts = *current->counts();
        return 0;
    }
    return __real_statvfs64(path, counts);
}

int __wrap_ioctl(int fd, unsigned long request, ...) {
    std::va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    return answer_ioctl(fd, request, argument);
}

int __wrap___ioctl_time64(int fd, unsigned long request, ...) {
    std::va_list arguments;
    va_start(arguments, request);
    void *argument = va_arg(arguments, void *);
    va_end(arguments);
    return answer_ioctl(fd, request, argument);
}
}

CallResults::CallResults() {
    EXPECT_EQ(current, nullptr) << "one at a time";
    current = this;
}

CallResults::~CallResults() { current = nullptr; }

void CallResults::fail(Call call, int error) { failure_[static_cast<std::size_t>(call)] = error; }

void CallResults::redirect(const std::string &from, const std::string &to) {
    from_ = from;
    to_ = to;
}

void CallResults::command(Command answer) { command_ = std::move(answer); }

bool CallResults::fails(Call call) {
    const auto row = static_cast<std::size_t>(call);
    ++count_[row];
    if (failure_[row]) {
        errno = *failure_[row];
    }
    return failure_[row].has_value();
}

void CallResults::watch(int fd) {
    ++opened_;
    if ((fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0) {
        ++opened_close_on_exec_;
    }
}

const char *CallResults::redirected(const char *path) const { return path == from_ ? to_.c_str() : path; }
