#pragma once

// Changes to the state of the whole process that last as long as an object.

#include <csignal>
#include <cstddef>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

/// Replaces descriptor `fd` with the file `path`.
class RedirectedDescriptor {
  public:
    RedirectedDescriptor(int fd, const std::string &path, int flags) : fd_(fd), saved_(fcntl(fd, F_DUPFD_CLOEXEC, 0)) {
        const int file = open(path.c_str(), flags | O_CLOEXEC, 0666);
        EXPECT_GE(file, 0) << path;
        EXPECT_EQ(dup2(file, fd_), fd_);
        close(file);
    }
    ~RedirectedDescriptor() {
        EXPECT_EQ(dup2(saved_, fd_), fd_);
        close(saved_);
    }
    RedirectedDescriptor(const RedirectedDescriptor &) = delete;
    RedirectedDescriptor(RedirectedDescriptor &&) = delete;
    RedirectedDescriptor &operator=(const RedirectedDescriptor &) = delete;
    RedirectedDescriptor &operator=(RedirectedDescriptor &&) = delete;

  private:
    int fd_;
    int saved_;
};

/// Makes `folder` the current one.
class WorkingFolder {
  public:
    explicit WorkingFolder(const std::filesystem::path &folder) : saved_(std::filesystem::current_path()) {
        std::filesystem::current_path(folder);
    }
    ~WorkingFolder() {
        std::error_code ignored;
        std::filesystem::current_path(saved_, ignored);
    }
    WorkingFolder(const WorkingFolder &) = delete;
    WorkingFolder(WorkingFolder &&) = delete;
    WorkingFolder &operator=(const WorkingFolder &) = delete;
    WorkingFolder &operator=(WorkingFolder &&) = delete;

  private:
    std::filesystem::path saved_;
};

/// No file grows beyond `bytes`: a write past it fails.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &saved_);
        const rlimit limit{bytes, saved_.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    }
    ~FileSizeLimit() {
        EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &saved_), 0);
        std::signal(SIGXFSZ, handler_);
    }
    FileSizeLimit(const FileSizeLimit &) = delete;
    FileSizeLimit(FileSizeLimit &&) = delete;
    FileSizeLimit &operator=(const FileSizeLimit &) = delete;
    FileSizeLimit &operator=(FileSizeLimit &&) = delete;

  private:
    sighandler_t handler_;
    rlimit saved_{};
};

inline std::ptrdiff_t open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

/// The descriptors that a program started now would inherit.
inline std::vector<int> descriptors_open_over_exec() {
    std::vector<int> found;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::stoi(entry.path().filename());
        const int flags = fcntl(fd, F_GETFD);
        if (flags != -1 && (flags & FD_CLOEXEC) == 0) {
            found.push_back(fd);
        }
    }
    return found;
}
