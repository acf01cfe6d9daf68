#pragma once

// Which issues are raised, and what the bus is told of them.

#include <cstdint>
#include <string>
#include <vector>

namespace model {

class Registry {
  public:
    /// All issues clear, and so since a second ago.
    explicit Registry(std::int64_t now);

    /// A check's new state; `id` is one of a row.
    void report(int id, int state, std::int64_t now);
    /// What is announced at the end of the pass that started at `now`: "1709294410 NewIssues CB05 CB20".
    [[nodiscard]] std::vector<std::string> signals(std::int64_t now) const;
    /// The raised issues and since when: "1709294410 CB05".
    [[nodiscard]] std::vector<std::string> listing() const;

  private:
    struct Row {
        std::string label;
        std::int64_t changed;
        int count; ///< of bad reports without a good one; from 1 on the issue is raised
    };

    std::vector<Row> rows_; ///< CB00 to CB32 and CBnn
};

} // namespace model
