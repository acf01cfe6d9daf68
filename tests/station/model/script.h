#pragma once

// A random life of a station, the same for the same seed: its setup, the inputs between heartbeats, and the times
// of the heartbeats.

#include "checks.h"
#include "contents.h"
#include "rig.h"

#include <functional>

namespace model {

struct OptionForms {
    const char *letter;
    const char *name;
};

struct OptionValue {
    std::string text;
    std::int64_t taken_for;
};

class Script {
  public:
    Script(std::uint64_t seed, const std::string &load_logger);

    [[nodiscard]] const RigSetup &setup() const { return setup_; }
    [[nodiscard]] const Settings &settings() const { return settings_; }
    /// The time of the heartbeat after the one at `now`: mostly the next ten seconds, sometimes sooner, later or
    /// in the past.
    std::int64_t next_beat(std::int64_t now);
    /// The inputs before the heartbeat at `now`.
    std::vector<Input> inputs(std::int64_t now);
    /// Sets the average number of heartbeats from one loss of the bus to the next.
    void lose_bus_every(std::int64_t beats) { beats_with_bus_ = beats; }
    /// The questions after it.
    std::vector<Input> questions();

  private:
    /// An input that stays constant for a number of a check's samples.
    struct Source {
        std::int64_t period;
        int delay;
        std::function<std::vector<Input>()> draw;
        std::int64_t until = 0;
    };

    void choose_options();
    std::int64_t choose(const OptionForms &option, const std::vector<OptionValue> &values);
    void give(const OptionForms &option, const std::string &value);
    void choose_board();
    void add_sources();
    void add(std::int64_t period, int delay, std::function<Input()> draw);
    std::int64_t samples(int delay);
    std::vector<Input> board_inputs(std::int64_t now);
    std::vector<Input> rare_inputs();
    [[nodiscard]] Input traffic() const { return traffic_file(lan_traffic_, wifi_traffic_); }

    Random random_;
    RigSetup setup_;
    Settings settings_;
    std::vector<Source> sources_;
    std::string lan_traffic_;
    std::string wifi_traffic_;
    std::string quality_ = "70.";
    std::string strength_ = "-20.";
    std::int64_t pace_ = 10; ///< seconds from one heartbeat to the next, mostly
    std::int64_t beats_with_bus_ = 1000;
    std::int64_t load_ = 20;
    std::int64_t counters_[3] = {1000, 1000, 8000};
    std::int64_t networkd_time_ = 1000;
};

} // namespace model
