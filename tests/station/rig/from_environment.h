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

/// Whether the daemon is built with the address sanitizer, which makes it slower and larger.
inline bool is_sanitized() { return std::getenv("STATION_SANITIZED") != nullptr; }

/// The path of the daemon to test: STATION_DAEMON, or the one that is built with the tests.
inline const char *daemon_or(const char *built) {
    const char *given = std::getenv("STATION_DAEMON");
    return given == nullptr ? built : given;
}

/// STATION_SEED, or a random seed; printed, so that a run can be repeated.
inline unsigned seed_of_the_day() {
    const unsigned seed = from_environment("STATION_SEED", std::random_device{}());
    std::cout << "STATION_SEED=" << seed << '\n';
    return seed;
}
