#pragma once

// Test parameters from the environment: amounts and random seeds.

#include <cstdlib>
#include <iostream>
#include <random>

/// A number from the environment, or `usual`.
inline unsigned from_environment(const char *name, unsigned usual) {
    const char *given = std::getenv(name);
    return given == nullptr ? usual : static_cast<unsigned>(std::strtoul(given, nullptr, 10));
}

/// The path of a daemon built with the address sanitizer, to be tested instead of the one built with the tests:
/// STATION_SANITIZED_DAEMON, or null.
inline const char *sanitized_daemon() { return std::getenv("STATION_SANITIZED_DAEMON"); }

/// STATION_SEED, or a random seed; printed, so that a run can be repeated.
inline unsigned seed_of_the_day() {
    const unsigned seed = from_environment("STATION_SEED", std::random_device{}());
    std::cout << "STATION_SEED=" << seed << '\n';
    return seed;
}
