#pragma once

// Redirects the fopen of the probe under test, whose path may be fixed, or makes it fail.

#include <optional>
#include <string>

/// The settings hold while the object exists; one object at a time.
class RedirectedOpen {
  public:
    RedirectedOpen();
    ~RedirectedOpen();
    RedirectedOpen(const RedirectedOpen &) = delete;
    RedirectedOpen &operator=(const RedirectedOpen &) = delete;

    /// fopen opens `to` in place of `from`.
    void redirect(const std::string &from, const std::string &to);
    /// Every fopen fails from now on with errno `error`, which may be 0.
    void fail(int error) { failure_ = error; }
    /// The number of files that the probe tried to open.
    [[nodiscard]] int count() const { return count_; }

    /// For the wrapped call: the path to open, or null with errno set if it must fail.
    const char *path_for(const char *path);

  private:
    std::string from_;
    std::string to_;
    std::optional<int> failure_;
    int count_ = 0;
};
