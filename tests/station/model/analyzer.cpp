#include "analyzer.h"

namespace model {

namespace {

struct Limits {
    std::int64_t min_fail;
    std::int64_t min_warn;
    std::int64_t max_warn;
    std::int64_t max_fail;
};

/// The limits with hysteresis applied to those that hold the current state.
Limits limits_in(int state, const Check &check) {
    const int h = check.hysteresis;
    Limits limits{check.min_fail.value_or(0), check.min_warn.value_or(0), check.max_warn.value_or(0),
                  check.max_fail.value_or(0)};
    switch (state) {
    case -2:
        limits.min_fail += h;
        limits.min_warn += h;
        break;
    case -1:
        limits.min_warn += h;
        break;
    case 1:
        limits.max_warn -= h;
        break;
    case 2:
        limits.max_fail -= h;
        limits.max_warn -= h;
        break;
    default:
        break;
    }
    return limits;
}

int class_of(std::int64_t value, const Limits &limits, const Check &check) {
    if (check.min_fail && value <= limits.min_fail) {
        return -2;
    }
    if (check.min_warn && value <= limits.min_warn) {
        return -1;
    }
    if (check.max_fail && value >= limits.max_fail) {
        return 2;
    }
    if (check.max_warn && value >= limits.max_warn) {
        return 1;
    }
    return 0;
}

/// A failure also confirms the warning on its side; all other counts restart.
Counts confirm(Counts old, int value_class) {
    Counts counts;
    switch (value_class) {
    case -2:
        counts.min_fail = static_cast<std::uint8_t>(old.min_fail + 1);
        counts.min_warn = static_cast<std::uint8_t>(old.min_warn + 1);
        break;
    case -1:
        counts.min_warn = static_cast<std::uint8_t>(old.min_warn + 1);
        break;
    case 2:
        counts.max_fail = static_cast<std::uint8_t>(old.max_fail + 1);
        counts.max_warn = static_cast<std::uint8_t>(old.max_warn + 1);
        break;
    case 1:
        counts.max_warn = static_cast<std::uint8_t>(old.max_warn + 1);
        break;
    default:
        counts.ok = static_cast<std::uint8_t>(old.ok + 1);
        break;
    }
    return counts;
}

/// The count that confirms a class.
int deciding(const Counts &counts, int value_class) {
    switch (value_class) {
    case -2:
        return counts.min_fail;
    case -1:
        return counts.min_warn;
    case 1:
        return counts.max_warn;
    case 2:
        return counts.max_fail;
    default:
        return counts.ok;
    }
}

bool enter(int state, Judgement *judgement) {
    const bool changed = judgement->state != state;
    judgement->state = state;
    return changed;
}

bool judge_threshold(const Check &check, std::int32_t value, Judgement *judgement) {
    const int value_class = class_of(value, limits_in(judgement->state, check), check);
    judgement->counts = confirm(judgement->counts, value_class);
    if (deciding(judgement->counts, value_class) < check.delay) {
        return false;
    }
    judgement->counts = {}; // resets the deciding count; the others are 0 already
    return enter(value_class, judgement);
}

bool judge_truth(const Check &check, std::int32_t value, Judgement *judgement) {
    if (value != 0 && value != 1) {
        return false;
    }
    Counts counts;
    if (value == 1) {
        counts.max_fail = static_cast<std::uint8_t>(judgement->counts.max_fail + 1);
    } else {
        counts.ok = static_cast<std::uint8_t>(judgement->counts.ok + 1);
    }
    judgement->counts = counts;
    const int state = value == 1 ? 2 : 0;
    return deciding(counts, state) >= check.delay && enter(state, judgement);
}

} // namespace

bool judge(const Check &check, std::int32_t value, Judgement *judgement) {
    return check.analyzer == Analyzer::truth ? judge_truth(check, value, judgement)
                                             : judge_threshold(check, value, judgement);
}

} // namespace model
