#pragma once

// A script's life, lived by a run.

#include "differential_run.h"
#include "script.h"

namespace model {

/// Settings with the smallest logs, for many rotations.
inline Settings small_logs() { return {.arguments = {"-S", "10", "-C", "3"}, .log_size = 10240, .log_count = 3}; }

/// Applies the script's inputs before the heartbeat at `now`, the heartbeat, and the questions after it.
inline void live_until(std::int64_t now, Script *script, DifferentialRun *run) {
    for (const Input &input : script->inputs(now)) {
        run->put(input);
    }
    run->beat(now);
    for (const Input &question : script->questions()) {
        run->put(question);
    }
}

} // namespace model
