#pragma once

// The parts of plot that do not use files.

#include "spool.h"
#include "zone.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>

namespace vlog {

/// Packs the records of a check for the page. A record is one or two numbers: the change of the time step, combined
/// with the state and whether there is a value; then the change of the value, if there is one. Numbers have seven bits
/// per byte; the bytes are in base64.
class RecordPacker {
  public:
    /// Appends the complete bytes to `text`.
    void add(const SpooledRecord &record, std::string *text);
    /// Appends the remaining bits.
    void finish(std::string *text);
    [[nodiscard]] Moment begin() const { return begin_; }
    [[nodiscard]] std::uint64_t count() const { return count_; }

  private:
    void put(std::uint64_t number, std::string *text);
    void put_byte(unsigned byte, std::string *text);

    Moment begin_ = 0;
    Moment time_ = 0;
    std::int64_t step_ = 0;
    std::int64_t value_ = 0;
    std::uint64_t count_ = 0;
    unsigned bits_ = 0;  ///< not yet written
    unsigned width_ = 0; ///< number of bits
};

/// Keeps at most three of 3 * `group` records: those with the least and greatest value and the worst state, so that
/// outliers remain. A group of 1 keeps all.
class Thinner {
  public:
    explicit Thinner(std::uint64_t group) : group_(group) {}
    /// Calls `keep` for the records kept, in order of time.
    template <typename Keep> void add(const SpooledRecord &record, const Keep &keep) {
        if (group_ <= 1) {
            keep(record);
            return;
        }
        const bool has_value = record.readable != 0;
        const auto replace = [this, &record](SpooledRecord *kept, bool is_better) {
            *kept = count_ == 0 || is_better ? record : *kept;
        };
        replace(&least_, has_value && (least_.readable == 0 || record.value < least_.value));
        replace(&greatest_, has_value && (greatest_.readable == 0 || record.value > greatest_.value));
        replace(&worst_, record.state > worst_.state);
        if (++count_ == 3 * group_) {
            finish(keep);
        }
    }
    /// The last group may be smaller.
    template <typename Keep> void finish(const Keep &keep) {
        std::array<SpooledRecord, 3> kept{least_, greatest_, worst_};
        std::sort(kept.begin(), kept.end(), [](const auto &a, const auto &b) { return a.time < b.time; });
        for (std::size_t at = 0; count_ > 0 && at < kept.size(); ++at) {
            if (at == 0 || kept[at].time != kept[at - 1].time) {
                keep(kept[at]);
            }
        }
        count_ = 0;
    }

  private:
    std::uint64_t group_;
    std::uint64_t count_ = 0;
    SpooledRecord least_{};
    SpooledRecord greatest_{};
    SpooledRecord worst_{};
};

/// The text escaped for HTML.
std::string html_text(std::string_view text);

} // namespace vlog
