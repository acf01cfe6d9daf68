#pragma once

// A script's life, lived by a duet.

#include "duet.h"
#include "script.h"

namespace model {

/// Settings with the smallest logs, so that there are many.
inline Settings small_logs() { return {.arguments = {"-S", "10", "-C", "3"}, .log_size = 10240, .log_count = 3}; }

/// What the script has before the heartbeat at `now`, the heartbeat, and what is asked after it.
inline void live_until(std::int64_t now, Script *script, Duet *duet) {
    for (const Input &input : script->inputs(now)) {
        duet->put(input);
    }
    duet->beat(now);
    for (const Input &question : script->questions()) {
        duet->put(question);
    }
}

} // namespace model
