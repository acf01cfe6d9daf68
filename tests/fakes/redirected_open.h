#pragma once

// Lets a test choose what opening a file by fopen gives the probe under test, whose path may be fixed.

#include <optional>
#include <string>

/// The choices hold while it lives; one at a time.
class RedirectedOpen {
  public:
    RedirectedOpen();
    ~RedirectedOpen();
    RedirectedOpen(const RedirectedOpen &) = delete;
    RedirectedOpen &operator=(const RedirectedOpen &) = delete;

    /// `to` is opened in place of `from`.
    void redirect(const std::string &from, const std::string &to);
    /// Nothing can be opened from now on; errno is then `error`, which may be 0.
    void fail(int error) { failure_ = error; }
    /// How many files the probe has tried to open.
    [[nodiscard]] int count() const { return count_; }

    /// For the call that passes by: the path to open, null, with errno set, when it is to fail.
    const char *path_for(const char *path);

  private:
    std::string from_;
    std::string to_;
    std::optional<int> failure_;
    int count_ = 0;
};
