#pragma once

// Parses the lines of a status log. Uses no files and no time zones.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace vlog {

/// The label of a record.
enum class State : std::uint8_t { ok, warn, fail, invalid };
inline constexpr std::size_t STATE_COUNT = 4;

/// "OK", "WARN", "FAIL" or "INV".
const char *state_label(State state);
/// The state of a label; none for any other text.
std::optional<State> state_of(std::string_view label);

/// The number of an unset issue, written as CBnn.
inline constexpr std::int16_t UNSET_ISSUE = -1;

/// Identifies a check.
struct CheckId {
    std::int16_t issue = UNSET_ISSUE;
    std::uint16_t index = 0;
    friend bool operator==(CheckId, CheckId) = default;
};

/// "CB20", or "CBnn".
std::string issue_text(std::int16_t issue);
/// The number in "CB20" or UNSET_ISSUE for "CBnn"; none for any other text.
std::optional<std::int16_t> issue_of(std::string_view text);

/// Local time of a record or marker as seconds since 1970 as if it were UTC.
using LocalTime = std::int64_t;
/// The daemon writes zeros when it has no time.
inline constexpr LocalTime NO_TIME = -(1LL << 46);

struct Record {
    LocalTime local = 0;
    std::int32_t value = 0; ///< 0 when not readable
    CheckId check;
    State state = State::ok;
    bool readable = false;
};

/// One row of the table of checks in a header block.
struct Definition {
    CheckId check;
    std::string name;
    std::string parameter;
    std::optional<std::int32_t> interval; ///< seconds
    std::optional<std::int32_t> minfail;
    std::optional<std::int32_t> minwarn;
    std::optional<std::int32_t> maxwarn;
    std::optional<std::int32_t> maxfail;
    friend bool operator==(const Definition &, const Definition &) = default;
};

enum class Occasion : std::uint8_t { start, rotate, finished };

struct Marker {
    LocalTime local = 0;
    Occasion occasion = Occasion::start;
    std::string command_line;
};

/// Parses records. Caches the previous line's time stamp, because most lines repeat it.
class RecordReader {
  public:
    /// The fast path for most records: parses the first line of a text. Returns its length with the line feed, or 0 if
    /// read() must parse it; `record` is then undefined.
    [[gnu::always_inline]] std::size_t read_usual(std::string_view text, Record *record);
    /// Parses a line without its line feed. False if it is no record; `record` is then undefined.
    bool read(std::string_view line, Record *record);

  private:
    static constexpr std::size_t STAMP_LENGTH = 19;
    static constexpr std::size_t MINUTE_LENGTH = 16;
    static constexpr std::size_t LONGEST_USUAL = 64; ///< much longer than any line that read_usual() reads
    bool read_stamp(const char *text);

    std::array<char, STAMP_LENGTH + 1> stamp_text_{}; ///< with the tab after it
    LocalTime stamp_ = 0;
    LocalTime minute_ = 0; ///< of the stamp; only if has_minute_
    bool has_minute_ = false;
};

inline std::size_t RecordReader::read_usual(std::string_view text, Record *record) {
    const char *at = text.data();
    if (text.size() < LONGEST_USUAL ||
        (std::memcmp(at, stamp_text_.data(), STAMP_LENGTH + 1) != 0 && !read_stamp(at))) {
        return 0;
    }
    const auto digit = [&at](std::ptrdiff_t place) { return static_cast<unsigned>(at[place] - '0'); };
    at += STAMP_LENGTH + 1;
    const bool is_ok = std::memcmp(at, "OK\tCB", 5) == 0;
    const bool is_warn = !is_ok && std::memcmp(at, "WARN\tCB", 7) == 0;
    if (!is_ok && !is_warn && std::memcmp(at, "FAIL\tCB", 7) != 0) {
        return 0;
    }
    at += is_ok ? 5 : 7;
    if (digit(0) > 9 || digit(1) > 9 || at[2] != '\t' || digit(3) > 9 || at[4] != '\t') {
        return 0;
    }
    record->local = stamp_;
    record->state = is_ok ? State::ok : is_warn ? State::warn : State::fail;
    record->check = {.issue = static_cast<std::int16_t>(digit(0) * 10 + digit(1)),
                     .index = static_cast<std::uint16_t>(digit(3))};
    record->readable = true;
    at += 5;
    const bool is_negative = *at == '-';
    at += is_negative ? 1 : 0;
    const char *const digits = at;
    std::int32_t value = 0;
    for (; digit(0) <= 9; ++at) {
        if (at - digits == 9) { // more may be too large
            return 0;
        }
        value = value * 10 + static_cast<std::int32_t>(digit(0));
    }
    record->value = is_negative ? -value : value;
    return at == digits || *at != '\n' ? 0 : static_cast<std::size_t>(at + 1 - text.data());
}

/// The time of exactly "2024-05-01 10:00:00"; none for any other form.
std::optional<LocalTime> read_stamp(std::string_view text);

/// Reads the lines that begin with "##". The columns of the table of checks are found by their headings, so that a
/// table with other columns is read too.
class CommentReader {
  public:
    enum class Found : std::uint8_t { nothing, definition, marker };
    /// Takes the lines in order. The result is in `definition()` or `marker()` until the next call.
    Found read(std::string_view line);
    [[nodiscard]] const Definition &definition() const { return definition_; }
    [[nodiscard]] const Marker &marker() const { return marker_; }

  private:
    enum Column : std::uint8_t {
        COLUMN_NAME,
        COLUMN_ISSUE,
        COLUMN_INDEX,
        COLUMN_INTERVAL,
        COLUMN_MINFAIL,
        COLUMN_MINWARN,
        COLUMN_MAXWARN,
        COLUMN_MAXFAIL,
        COLUMN_PARAMETER,
        COLUMN_COUNT,
    };
    static constexpr std::size_t MOST_FIELDS = 24;
    struct Fields {
        std::array<std::string_view, MOST_FIELDS> texts;
        std::size_t count = 0;
    };
    static Fields split(std::string_view line);
    static std::string_view trimmed(std::string_view text);

    bool read_marker(std::string_view line, const Fields &fields);
    void read_headings(const Fields &upper, const Fields &lower);
    bool read_definition(std::string_view line, const Fields &fields);
    [[nodiscard]] std::string_view field(const Fields &fields, Column column) const;

    std::array<std::size_t, COLUMN_COUNT> position_{0, 1, 2, 3, 4, 5, 6, 7, 8};
    std::string upper_headings_; ///< the previous line, if it was the upper one of the two
    Definition definition_;
    Marker marker_;
};

/// Which records the daemon writes.
enum class Level : std::uint8_t { all, warnings, failures };
/// The level set by a command line of a marker.
Level level_of(std::string_view command_line);

} // namespace vlog
