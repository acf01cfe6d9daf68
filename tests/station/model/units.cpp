#include "units.h"

#include <algorithm>

namespace model {

namespace {
constexpr const char *NOT_INSTALLED[] = {"masked", "stub", "not-found", "merged"};
}

// Asks until there is an answer or "invalid".
bool Units::is_installed(Property *load_state) {
    std::string value;
    std::string error;
    while (!ask(load_state, &value, &error)) {
        if (error == INVALID) {
            return false;
        }
    }
    return std::none_of(std::begin(NOT_INSTALLED), std::end(NOT_INSTALLED),
                        [&value](const char *state) { return value.starts_with(state); });
}

Units::Health Units::health_of(Property *active_state) {
    std::string value;
    std::string error;
    while (!ask(active_state, &value, &error)) {
        if (error != INTERRUPTED) {
            return Health::unknown;
        }
    }
    return value.starts_with("activating") || value.starts_with("active") ? Health::running : Health::down;
}

std::vector<std::string> Units::watch(const std::string &names, BoardState *board) {
    std::vector<std::string> missing;
    if (!board->has_bus()) {
        return missing;
    }
    for (const std::string &name : words_of(names)) {
        if (is_installed(&board->units[name].load_state)) {
            watched_.insert(watched_.begin(), {.name = name, .health = Health::unknown});
        } else {
            missing.push_back(name);
        }
    }
    return missing;
}

Reading Units::read(BoardState *board) {
    bool all_run = true;
    for (Watched &each : watched_) {
        each.health = board->has_bus() ? health_of(&board->units[each.name].active_state) : Health::unknown;
        all_run = all_run && each.health == Health::running;
    }
    return all_run ? 0 : 1;
}

std::vector<std::string> Units::down() const {
    std::vector<std::string> names;
    for (const Watched &each : watched_) {
        if (each.health == Health::down) {
            names.push_back(each.name);
        }
    }
    return names;
}

} // namespace model
