#pragma once

/// A static object that is never destroyed: exit must not take it from the threads still running.
template <typename T> class NoDestructor {
  public:
    constexpr NoDestructor() : object_() {}
    NoDestructor(const NoDestructor &) = delete;
    NoDestructor(NoDestructor &&) = delete;
    NoDestructor &operator=(const NoDestructor &) = delete;
    NoDestructor &operator=(NoDestructor &&) = delete;
    constexpr ~NoDestructor() {} // NOLINT(modernize-use-equals-default): a union member must not end by itself

    T &get() { return object_; }

  private:
    union {
        T object_;
    };
};
