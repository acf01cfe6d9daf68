#pragma once

// A scripted life of a station: the inputs of each check, their duration, and the expected records and sentences.
// Values, states and sentences are written by hand, not computed; only delays and periods are counted.

#include "station.h"

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// A sequence of equal samples of one check.
struct Plateau {
    int samples;
    std::string input;        ///< the probe's input
    std::string value;        ///< as recorded: "72", "NaN"
    std::string label = "OK"; ///< the state in which the stretch ends: "OK", "WARN" or "FAIL"
    std::string sentence{};   ///< priority and text at the change of state; empty without a change
};

/// One check, which repeats its plateaus.
struct Check {
    std::string issue; ///< id and index as in the record: "CB20\t0"
    std::int64_t period;
    int delay; ///< the sample of a plateau that changes the state
    std::function<void(Station &, const std::string &)> put;
    std::vector<Plateau> plateaus;
};

/// A board without WiFi and with constant inputs.
Board even_board();
/// The checks recorded on it, in the order of their records.
std::vector<Check> even_checks();
/// The number of their records when there is a pass at `start` and one at each multiple of `step` until `end`.
std::size_t records_between(std::int64_t start, std::int64_t end, std::int64_t step);
/// Replaces the check with the same issue.
void replace(std::vector<Check> *checks, Check check);

/// "2024-03-01 12:00:07" in UTC.
std::string stamp_of(std::int64_t seconds);

class StationLife {
  public:
    explicit StationLife(std::vector<Check> checks);

    /// Starts the daemon, whose first pass runs all checks.
    void start(Station *station, const std::vector<std::string> &arguments);
    /// Runs a heartbeat at the next multiple of ten seconds.
    void step(Station *station);
    void steps(Station *station, int count);

    /// The records of all passes so far, one line each.
    [[nodiscard]] const std::vector<std::string> &records() const { return records_; }
    /// The records of the last pass.
    [[nodiscard]] std::vector<std::string> last_records() const;
    /// Priority and text of all sentences so far.
    [[nodiscard]] const std::vector<std::string> &sentences() const { return sentences_; }

  private:
    struct Course {
        Check check;
        std::size_t plateau = 0;
        int sample = 0;           ///< number in the plateau
        std::string label = "OK"; ///< the current state
    };

    [[nodiscard]] bool is_due(const Course &course, std::int64_t now) const;
    void put_inputs(Station *station, std::int64_t now);
    void predict_pass(std::int64_t now);
    void take_sample(Course *course, std::int64_t now);

    std::vector<Course> courses_;
    std::vector<std::string> records_;
    std::size_t last_ = 0; ///< the first record of the last pass
    std::vector<std::string> sentences_;
    bool started_ = false;
};

/// Priority and text of the records on the syslog socket.
std::vector<std::string> sentences_of(const Station &station);
