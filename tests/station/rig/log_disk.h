#pragma once

#include "handle.h"
#include "scratch_folder.h"

#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <unistd.h>

/// A small disk in memory for the status log. It is mounted for this process and its children alone, so a
/// daemon that starts again finds it, and it is gone with the process.
class LogDisk {
  public:
    LogDisk() {
        EXPECT_EQ(unshare(CLONE_NEWNS), 0);
        EXPECT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        EXPECT_EQ(mount("tmpfs", path().c_str(), "tmpfs", 0, "size=256k"), 0);
    }
    ~LogDisk() { umount2(path().c_str(), MNT_DETACH); }
    LogDisk(const LogDisk &) = delete;
    LogDisk &operator=(const LogDisk &) = delete;

    [[nodiscard]] std::string path() const { return folder_.path(); }
    void fill() const {
        const Descriptor file(open((path() + "/filler").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
        const std::string page(4096, 'x');
        while (write(file.get(), page.data(), page.size()) > 0) {
        }
    }
    void free() const { std::filesystem::remove(path() + "/filler"); }

  private:
    ScratchFolder folder_;
};
