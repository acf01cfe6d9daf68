#pragma once

// The services that are watched, and how they are.

#include "readings.h"

namespace model {

class Units {
  public:
    /// Watches those of the named units that are installed; the others, in their order, are returned.
    std::vector<std::string> watch(const std::string &names, BoardState *board);
    Reading read(BoardState *board);
    /// Those known to be down at the last reading, the last named first.
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
