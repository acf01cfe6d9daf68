#pragma once

/// A static object that is never destroyed: exit must not take it from the threads still running.
template <typename T> class Immortal {
  public:
    constexpr Immortal() : object_() {}
    Immortal(const Immortal &) = delete;
    Immortal(Immortal &&) = delete;
    Immortal &operator=(const Immortal &) = delete;
    Immortal &operator=(Immortal &&) = delete;
    constexpr ~Immortal() {} // NOLINT(modernize-use-equals-default): a union member must not end by itself

    T &get() { return object_; }

  private:
    union {
        T object_;
    };
};
