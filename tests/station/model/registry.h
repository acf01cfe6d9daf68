#pragma once

// The raised issues and their signals on the bus.

#include <cstdint>
#include <string>
#include <vector>

namespace model {

class Registry {
  public:
    /// All issues clear since a second ago.
    explicit Registry(std::int64_t now);

    /// Takes a check's new state; `id` is the number of the issue.
    void report(int id, int state, std::int64_t now);
    /// The signals at the end of the pass that started at `now`: "1709294410 NewIssues CB05 CB20".
    [[nodiscard]] std::vector<std::string> signals(std::int64_t now) const;
    /// The raised issues with their dates: "1709294410 CB05".
    [[nodiscard]] std::vector<std::string> listing() const;

  private:
    struct Row {
        std::string label;
        std::int64_t changed;
        int count; ///< bad reports less good ones; raised from 1 on
    };

    std::vector<Row> rows_; ///< CB00 to CB32 and CBnn
};

} // namespace model
