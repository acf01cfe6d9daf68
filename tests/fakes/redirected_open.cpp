#include "redirected_open.h"

#include <cerrno>
#include <cstdio>
#include <gtest/gtest.h>

namespace {

constinit RedirectedOpen *current = nullptr;

} // namespace

extern "C" {
std::FILE *__real_fopen64(const char *path, const char *mode);

std::FILE *__wrap_fopen64(const char *path, const char *mode) {
    const char *chosen = current == nullptr ? path : current->path_for(path);
    return chosen == nullptr ? nullptr : __real_fopen64(chosen, mode);
}
}

RedirectedOpen::RedirectedOpen() {
    EXPECT_EQ(current, nullptr) << "one at a time";
    current = this;
}

RedirectedOpen::~RedirectedOpen() { current = nullptr; }

void RedirectedOpen::redirect(const std::string &from, const std::string &to) {
    from_ = from;
    to_ = to;
}

const char *RedirectedOpen::path_for(const char *path) {
    ++count_;
    if (failure_) {
        errno = *failure_;
        return nullptr;
    }
    return path == from_ ? to_.c_str() : path;
}
