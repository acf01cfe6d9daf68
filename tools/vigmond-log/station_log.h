#pragma once

// The log of one station: its records and events in order, with moments instead of local times. Memory use does not
// depend on the length of the log.

#include "unpacker.h"
#include "zone.h"

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vlog {

/// Limit of checks per station. Records of further checks count as foreign lines.
inline constexpr std::size_t MOST_CHECKS = 256;

enum class EventKind : std::uint8_t { record, start, rotate, finished };

struct Event {
    EventKind kind = EventKind::record;
    Moment time = 0;
    bool is_set_back = false; ///< the clock was set back by `set_back` before this event
    Moment set_back = 0;

    // of a record
    std::size_t check = 0; ///< index in StationLog::checks()
    State state = State::ok;
    bool readable = false;
    std::int32_t value = 0;

    bool is_unclean = false; ///< of a start: the previous daemon was killed or lost power
};

/// The files of a station, oldest first.
struct StationFiles {
    std::string name;
    std::vector<std::string> paths;
    bool is_named = false; ///< by an argument like STATION=FOLDER
};

/// Counters of a log that was read.
struct LogCounts {
    std::uint64_t records = 0;
    std::uint64_t foreign_lines = 0;
    std::uint64_t repeated = 0; ///< duplicate records, which are skipped
    std::uint64_t starts = 0;
    std::uint64_t unclean_ends = 0;
};

class StationLog {
  public:
    /// Called for each file that could not be read completely, with its path and the problem.
    using Complaint = std::function<void(const std::string &path, const std::string &problem)>;

    StationLog(const StationFiles &files, unsigned threads, std::atomic<std::uint64_t> *read_so_far,
               Complaint complain);

    /// Stores the next event; false at the end. A changed definition is in `checks()` from the next event on.
    bool next(Event *event);

    /// The checks seen so far, in order of their first appearance.
    [[nodiscard]] const std::vector<Definition> &checks() const { return checks_; }
    [[nodiscard]] const LogCounts &counts() const { return counts_; }
    /// Which records the daemon writes.
    [[nodiscard]] Level level() const { return level_; }
    /// The command line of the daemon.
    [[nodiscard]] const std::string &command_line() const { return command_line_; }

  private:
    static constexpr std::size_t SLOTS = 1024; ///< of the hash table of checks
    static constexpr std::size_t NO_PLACE = MOST_CHECKS;

    struct Slot {
        CheckId check;
        std::int16_t place = -1; ///< of the check; -1 in an unused slot
    };

    [[gnu::cold]] bool next_chunk();
    inline bool take(const Item &item, Event *event);
    inline bool take_record(const Item &item, Event *event);
    [[gnu::cold]] bool take_marker(const Item &item, Event *event);
    [[gnu::cold]] void define(const Definition &definition);
    inline bool set_time(LocalTime local, Event *event);
    inline std::size_t find(CheckId check);
    [[gnu::cold]] std::size_t add(CheckId check, Slot *slot);

    /// The previous record of a check.
    struct Last {
        Moment time = 0;
        std::int32_t value = 0;
        State state = State::ok;
        bool readable = false;
        bool is_set = false;
        friend bool operator==(const Last &, const Last &) = default;
    };

    std::vector<std::string> paths_;
    Complaint complain_;
    std::unique_ptr<Unpacker> unpacker_;
    const Chunk *chunk_ = nullptr;
    const Item *item_ = nullptr; ///< the next of the chunk
    const Item *items_end_ = nullptr;
    LocalClock clock_;
    std::optional<Moment> before_;
    LocalTime local_before_ = NO_TIME; ///< of the previous event, if it had one
    std::vector<Definition> checks_;
    std::array<Slot, SLOTS> slots_{};
    std::array<Last, MOST_CHECKS> last_{};
    LogCounts counts_;
    Level level_ = Level::all;
    std::string command_line_;
    bool is_running_ = false; ///< there were events since the last FINISHED
};

} // namespace vlog
