#pragma once

// Random instants that can be had again.

#include <cstdlib>
#include <iostream>
#include <random>

/// The seed that STATION_SEED gives, or a new one; printed.
inline unsigned seed_of_the_day() {
    const char *given = std::getenv("STATION_SEED");
    const unsigned seed =
        given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device{}();
    std::cout << "STATION_SEED=" << seed << '\n';
    return seed;
}
