#pragma once

/// A static object whose destructor never runs, because other threads still use it during exit.
template <typename T> class NoDestructor {
  public:
    constexpr NoDestructor() : object() {}
    NoDestructor(const NoDestructor &) = delete;
    NoDestructor(NoDestructor &&) = delete;
    NoDestructor &operator=(const NoDestructor &) = delete;
    NoDestructor &operator=(NoDestructor &&) = delete;
    constexpr ~NoDestructor() {} // NOLINT(modernize-use-equals-default): a defaulted one would be deleted

    T &get() { return object; }

  private:
    union {
        T object;
    };
};
