#pragma once

// A station's life told in advance: what each check finds for how long, and what the text of a record and
// of a sentence then has to be. Nothing in it is computed as the daemon computes it; the values, the states
// that they end in and the sentences are written down, only the delays and periods are counted out.

#include "station.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// A stretch of one check's samples that all find the same.
struct Plateau {
    int samples;
    std::string input;        ///< what is put there for the probe
    std::string value;        ///< as recorded: "72", "NaN"
    std::string label = "OK"; ///< the state in which the stretch ends: "OK", "WARN" or "FAIL"
    std::string sentence{};   ///< priority and text at the change of state; empty when there is none
};

/// One check; its plateaus follow each other round and round.
struct Check {
    std::string issue; ///< id and index as recorded: "CB20\t0"
    std::int64_t period;
    int delay; ///< the sample of a plateau with which the state changes
    std::function<void(Station &, const std::string &)> put;
    std::vector<Plateau> plateaus;
};

/// A board without WiFi on which every check finds the same at each sample.
Board even_board();
/// The checks that are recorded on it, in the order of their records.
std::vector<Check> even_checks();
/// Puts `check` in the place of the one with its issue.
void replace(std::vector<Check> *checks, Check check);

/// "2024-03-01 12:00:07" in UTC.
std::string stamp_of(std::int64_t seconds);

class StationLife {
  public:
    explicit StationLife(std::vector<Check> checks);

    /// Starts the daemon, whose first pass runs all checks.
    void start(Station *station, const std::vector<std::string> &arguments);
    /// Goes on to the next multiple of ten seconds.
    void step(Station *station);
    void steps(Station *station, int count);
    /// Predicts the records of a pass and leaves out the station itself.
    void skip(std::int64_t now);

    /// The records of all passes so far, a line each.
    [[nodiscard]] const std::vector<std::string> &records() const { return records_; }
    /// The records of the last pass.
    [[nodiscard]] std::vector<std::string> last_records() const;
    /// Priority and text of all sentences so far.
    [[nodiscard]] const std::vector<std::string> &sentences() const { return sentences_; }

  private:
    struct Course {
        Check check;
        std::size_t plateau = 0;
        int sample = 0;           ///< of the plateau
        std::string label = "OK"; ///< the state so far
    };

    [[nodiscard]] bool is_due(const Course &course, std::int64_t now) const;
    void put_inputs(Station *station, std::int64_t now);
    void take_sample(Course *course, std::int64_t now);

    std::vector<Course> courses_;
    std::vector<std::string> records_;
    std::size_t last_ = 0; ///< the first record of the last pass
    std::vector<std::string> sentences_;
    bool started_ = false;
};

/// Priority and text of what has come over the syslog socket.
std::vector<std::string> sentences_of(const Station &station);
