#pragma once

// Random numbers that are the same for the same seed with every compiler and library.

#include <cstdint>
#include <initializer_list>
#include <random>
#include <string>
#include <vector>

namespace model {

class Random {
  public:
    explicit Random(std::uint64_t seed) : engine_(seed) {}

    /// 0 to count - 1.
    std::int64_t below(std::int64_t count) {
        return static_cast<std::int64_t>(engine_() % static_cast<std::uint64_t>(count));
    }
    /// first to last.
    std::int64_t between(std::int64_t first, std::int64_t last) { return first + below(last - first + 1); }
    /// True once in `times` calls on average.
    bool once_in(std::int64_t times) { return below(times) == 0; }
    template <class T> T of(const std::vector<T> &choices) {
        return choices[static_cast<std::size_t>(below(static_cast<std::int64_t>(choices.size())))];
    }
    template <class T> T of(std::initializer_list<T> choices) { return of(std::vector<T>(choices)); }
    std::string text_of(std::initializer_list<const char *> choices) { return of(std::vector<const char *>(choices)); }

  private:
    std::mt19937_64 engine_;
};

} // namespace model
