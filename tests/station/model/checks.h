#pragma once

// The model's own table of the checks, and the settings of its daemon. The model shares no code with the
// daemon: it is an independent implementation of the same behaviour.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace model {

enum class Probe {
    temperature,
    bluetooth,
    internet,
    ethernet,
    memoryusage,
    wearout,
    wireless,
    diskusage,
    service,
    load,
};

enum class Analyzer { truth, threshold };

struct Check {
    Probe probe;
    std::string name;
    int id;
    int index;
    Analyzer analyzer;
    std::int64_t interval;
    std::optional<int> min_fail;
    std::optional<int> min_warn;
    std::optional<int> max_warn;
    std::optional<int> max_fail;
    int hysteresis;
    int delay;
    std::optional<std::string> parameter;
    std::string format; ///< empty: none
};

/// The table built into the daemon, in its order.
std::vector<Check> built_in_checks();

/// "CB20"
std::string label_of(const Check &check);
/// "CB20[0]"
std::string issue_of(const Check &check);

struct Settings {
    std::vector<std::string> arguments; ///< of the command line
    std::int64_t log_size = 8388608;
    int log_count = 20;
    int record_level = 3;
    int severity = 5;
};

/// "vigmond "-S" "10"", as in the status log.
std::string command_line_of(const Settings &settings);

} // namespace model
