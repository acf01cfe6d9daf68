#pragma once

// Counts the values of a check, for exact medians and percentiles. Most checks have few different values. The
// values of the others go to a temporary file and are counted in a few passes, so that memory is bounded.

#include "handle.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vlog {

struct ValueCount {
    std::int32_t value = 0;
    std::uint32_t check = 0;
    std::uint64_t count = 0; ///< 0 in an unused place
};

/// The values of all checks of a station that did not fit, in an unnamed file in $TMPDIR.
class Spill {
  public:
    /// False, with errno set, if the file cannot be created or written.
    bool write(const std::vector<ValueCount> &counts);

    /// The value with the given rank, from 1, among all values of a check.
    struct Request {
        std::uint32_t check = 0;
        std::uint64_t rank = 0;
        std::uint32_t found = 0; ///< the upper bits of the value found so far, in the order of unsigned numbers
    };
    /// Finds the values of all requests. False if the file cannot be read.
    bool find(std::vector<Request> *requests);
    static std::int32_t value_of(const Request &request);

  private:
    static constexpr unsigned PASSES = 4;
    bool pass(unsigned number, std::vector<Request> *requests);

    FileHandle file_;
};

/// The values of one check.
class ValueCounts {
  public:
    /// Limit of different values in memory.
    static constexpr std::size_t MOST_VALUES = 1024;

    /// Counts a value. False if there is no room: the caller must drain() first.
    bool add(std::int32_t value) {
        if (!places_.empty()) {
            ValueCount &place = places_[place_of(value)];
            if (place.count > 0) {
                ++place.count;
                ++total_;
                return true;
            }
        }
        return add_new(value);
    }
    /// Moves all values to the spill. False if it cannot be written.
    bool drain(std::uint32_t check, Spill *spill);

    [[nodiscard]] std::uint64_t total() const { return total_; }
    [[nodiscard]] bool is_spilled() const { return is_spilled_; }
    [[nodiscard]] std::optional<std::int32_t> least() const {
        return total_ > 0 ? std::optional(least_) : std::nullopt;
    }
    [[nodiscard]] std::optional<std::int32_t> greatest() const {
        return total_ > 0 ? std::optional(greatest_) : std::nullopt;
    }
    /// The nearest rank, from 1, of a percentile; 0 without values.
    [[nodiscard]] std::uint64_t rank(unsigned percent) const { return (total_ * percent + 99) / 100; }
    /// The value of that rank among those in memory.
    [[nodiscard]] std::optional<std::int32_t> at_rank(std::uint64_t rank) const;

  private:
    [[gnu::cold]] bool add_new(std::int32_t value);
    void grow();
    /// Where the value is, or belongs.
    [[nodiscard]] std::size_t place_of(std::int32_t value) const {
        const std::size_t mask = places_.size() - 1;
        const auto number = static_cast<std::uint32_t>(value);
        std::size_t place = (number + (number >> 10) * 0x9E3779B1U) & mask; // neighbours share cache lines
        while (places_[place].count > 0 && places_[place].value != value) {
            place = (place + 1) & mask;
        }
        return place;
    }
    [[nodiscard]] std::vector<ValueCount> used() const;

    std::vector<ValueCount> places_; ///< a hash table, half full at most
    std::size_t used_ = 0;
    std::uint64_t total_ = 0;
    std::int32_t least_ = 0;
    std::int32_t greatest_ = 0;
    bool is_spilled_ = false;
};

} // namespace vlog
