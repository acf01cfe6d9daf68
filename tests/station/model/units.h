#pragma once

// The watched services and their states.

#include "readings.h"

namespace model {

class Units {
  public:
    /// Watches the installed units among `names`; returns the others in their order.
    std::vector<std::string> watch(const std::string &names, BoardState *board);
    Reading read(BoardState *board);
    /// The units that were down at the last reading, last named first.
    [[nodiscard]] std::vector<std::string> down() const;

  private:
    enum class Health { running, down, unknown };
    struct Watched {
        std::string name;
        Health health;
    };
    static bool is_installed(Property *load_state);
    static Health health_of(Property *active_state);

    std::vector<Watched> watched_;
};

} // namespace model
