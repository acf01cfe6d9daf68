#pragma once

// Sets the results of the system calls of the code under test, and checks what they open. The test programs are linked
// with --wrap for these calls; those that are not set are passed through.

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <sys/statvfs.h>

enum class Call { fopen, open, stat, statvfs, ioctl };

/// The settings hold while the object exists; one object at a time.
class CallResults {
  public:
    /// Replaces ioctl.
    using Command = std::function<int(int fd, unsigned long request, void *argument)>;

    CallResults();
    ~CallResults();
    CallResults(const CallResults &) = delete;
    CallResults &operator=(const CallResults &) = delete;

    /// The call fails from now on with errno set to `error`, which may be 0.
    void fail(Call call, int error);
    /// fopen opens `to` in place of `from`.
    void redirect(const std::string &from, const std::string &to);
    /// What statvfs reports.
    void file_system(const struct statvfs &counts) { counts_ = counts; }
    /// What ioctl does.
    void command(Command answer);

    /// The number of calls.
    [[nodiscard]] int count(Call call) const { return count_[static_cast<std::size_t>(call)]; }
    /// Whether everything that fopen and open opened is close-on-exec; false if nothing was opened.
    [[nodiscard]] bool opened_close_on_exec() const { return opened_ > 0 && opened_ == opened_close_on_exec_; }

    // For the wrapped calls.

    /// Counts the call; sets errno and returns true if it must fail.
    bool fails(Call call);
    void watch(int fd);
    [[nodiscard]] const char *redirected(const char *path) const;
    [[nodiscard]] const std::optional<struct statvfs> &counts() const { return counts_; }
    [[nodiscard]] const Command &answer() const { return command_; }

  private:
    static constexpr std::size_t CALLS = 5;

    std::array<std::optional<int>, CALLS> failure_;
    std::array<int, CALLS> count_{};
    std::string from_;
    std::string to_;
    std::optional<struct statvfs> counts_;
    Command command_;
    int opened_ = 0;
    int opened_close_on_exec_ = 0;
};
