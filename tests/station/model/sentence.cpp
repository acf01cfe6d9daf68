#include "sentence.h"

namespace model {

namespace {

struct StateRow {
    int state;
    int priority;
    const char *label;
    const char *description;
};

constexpr StateRow STATES[] = {
    {-2, 3, "failed", "minimum failure"},  //
    {-1, 4, "warning", "minimum warning"}, //
    {0, 5, "notice", "OK"},                //
    {1, 4, "warning", "maximum warning"},  //
    {2, 3, "failed", "maximum failure"},   //
    {3, 4, "warning", "warning"},          //
    {4, 3, "fail", "fail"},
};

/// The two forms of a check's own sentence; "%s" marks the difference.
struct TruthRow {
    int id;
    const char *sentence;
    const char *good;
    const char *bad;
};

constexpr TruthRow TRUTHS[] = {
    {5, "Bluetooth hardware %s available.", "is", "is not"},
    {11, "Ethernet hardware %s.", "available and usable", "not available or not usable"},
    {12, "Ethernet connection %s established.", "is", "could not be"},
};

const StateRow &row_of(int state) { return STATES[state + 2]; }

std::string filtered(int state, const std::string &text, int severity) {
    const StateRow &row = row_of(state);
    if (severity < row.priority) {
        return "";
    }
    return std::to_string(row.priority) + " [" + row.label + "] " + text;
}

std::string direction(int state) { return state < 0 ? "below" : state == 0 ? "at" : "above"; }

int threshold(const Check &check, int state) {
    switch (state) {
    case -2:
        return check.min_fail.value_or(0);
    case -1:
        return check.min_warn.value_or(0);
    case 1:
        return check.max_warn.value_or(0);
    default:
        return check.max_fail.value_or(0);
    }
}

std::string replacement(char letter, const Check &check, int state) {
    switch (letter) {
    case 'P':
        return check.parameter.value_or("");
    case 'D':
        return direction(state);
    case 'T':
        return state == 0 ? "normal" : std::to_string(threshold(check, state));
    default:
        return letter == '%' ? "%" : "";
    }
}

std::string expanded(const Check &check, int state) {
    std::string text;
    for (std::size_t i = 0; i < check.format.size(); ++i) {
        if (check.format[i] == '%') {
            text += replacement(check.format[++i], check, state);
        } else {
            text += check.format[i];
        }
    }
    return text;
}

std::string threshold_text(const Check &check, int state) {
    if (!check.format.empty()) {
        return expanded(check, state);
    }
    if (state == 0) {
        return "is OK";
    }
    return "is " + direction(state) + " " + row_of(state).description + " threshold " +
           std::to_string(threshold(check, state));
}

std::string truth_text(int id, int state) {
    for (const TruthRow &row : TRUTHS) {
        if (row.id == id) {
            std::string text = row.sentence;
            return text.replace(text.find("%s"), 2, state == 0 ? row.good : row.bad);
        }
    }
    return "no sentence";
}

std::string service_text(int state, const std::vector<std::string> &down) {
    if (state == 0) {
        return "all services are up and running";
    }
    std::string text = down.size() == 1 ? "Service:" : "Services:";
    for (std::size_t i = 0; i < down.size(); ++i) {
        text += (i == 0 ? " " : ", ") + down[i];
    }
    return text + (down.size() == 1 ? " is" : " are") + " not running";
}

/// The checks with their own logger only distinguish good and bad.
int told_state(const Check &check, int state) {
    switch (check.probe) {
    case Probe::bluetooth:
    case Probe::ethernet:
    case Probe::wireless:
    case Probe::service:
        return state == 0 ? 0 : 2;
    default:
        return state;
    }
}

std::string told_text(const Check &check, int state, const std::vector<std::string> &units_down) {
    switch (check.probe) {
    case Probe::bluetooth:
    case Probe::ethernet:
        return truth_text(check.id, state);
    case Probe::wireless: // its format takes the place of the sentence
        return check.format + ": ";
    case Probe::service:
        return service_text(state, units_down);
    default:
        return threshold_text(check, state);
    }
}

} // namespace

std::string sentence_of(const Check &check, int state, std::int32_t value, const std::vector<std::string> &units_down,
                        int severity) {
    const std::string head = "ID: " + issue_of(check) + ": value: " + std::to_string(value) + " ";
    return filtered(told_state(check, state), head + told_text(check, state, units_down), severity);
}

std::string sentence_of_missing_unit(const std::string &unit, int severity) {
    return filtered(3, "service \"" + unit + "\" not loaded/installed", severity);
}

} // namespace model
