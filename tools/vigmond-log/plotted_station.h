#pragma once

// One station on the page of plot.

#include "plot.h"
#include "session.h"
#include "timeline.h"

#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vlog {

/// Reads a station into temporary files and writes its parts of the page.
class PlottedStation {
  public:
    PlottedStation(Session *session, const StationFiles &station);
    [[nodiscard]] const std::string &name() const { return name_; }
    [[nodiscard]] std::uint64_t records() const { return records_; }
    /// The range of the time axis; none without records. Times before the clock was set are left out if there are
    /// later ones.
    [[nodiscard]] std::optional<Moment> first() const { return has_set_clock() ? first_set_ : first_; }
    [[nodiscard]] std::optional<Moment> last() const { return newest_; }
    /// Records that are left out because the clock was set back before them.
    [[nodiscard]] std::uint64_t late() const { return late_; }
    /// Writes the heading, the list of changes and the places of the strips of station `number`.
    void write_body(std::size_t number, Output *output) const;
    /// Writes the records as JSON, about one in `group` of them.
    void write_data(std::uint64_t group, Output *output);

  private:
    /// One line of the list of changes.
    struct Note {
        Moment time = 0;
        std::optional<std::size_t> check;
        std::string text;
    };

    [[nodiscard]] bool has_set_clock() const;
    [[nodiscard]] std::string title(std::size_t check) const;
    [[nodiscard]] std::vector<std::size_t> shown() const;
    void take(const Event &event, const StationLog &log);
    void note(Moment time, std::optional<std::size_t> check, const std::string &text);
    void record(const Event &event);
    void write_notes(std::size_t number, Output *output) const;
    void write_check(std::size_t check, std::uint64_t group, Output *output);

    Session *session_;
    std::string name_;
    std::optional<Timeline> timeline_;
    std::vector<Definition> checks_;
    std::vector<Spool> spools_;
    std::vector<std::optional<Moment>> last_;     ///< the latest record of each check
    std::vector<std::pair<Moment, bool>> starts_; ///< the time, and whether the previous daemon was killed
    std::deque<Note> notes_;
    std::size_t notes_left_out_ = 0;
    std::uint64_t records_ = 0;
    std::uint64_t late_ = 0;
    std::optional<Moment> first_;
    std::optional<Moment> first_set_; ///< the first since the clock was set
    std::optional<Moment> newest_;
};

} // namespace vlog
