#include "registry.h"

#include <array>
#include <cstdio>

namespace model {

namespace {

/// The time in the 32 bits used on the bus.
std::string wire_time(std::int64_t seconds) { return std::to_string(static_cast<std::uint32_t>(seconds)); }

std::vector<std::string> announcement(std::int64_t now, const std::string &member, const std::string &labels) {
    if (labels.empty()) {
        return {};
    }
    return {wire_time(now) + " " + member + labels};
}

} // namespace

Registry::Registry(std::int64_t now) {
    for (int id = 0; id <= 32; ++id) {
        std::array<char, 16> label{};
        std::snprintf(label.data(), label.size(), "CB%02d", id);
        rows_.push_back({.label = label.data(), .changed = now - 1, .count = 0});
    }
    rows_.push_back({.label = "CBnn", .changed = now - 1, .count = 0});
}

// A change from warning to failure is a second bad report; one good report only undoes one.
void Registry::report(int id, int state, std::int64_t now) {
    Row &row = rows_[static_cast<std::size_t>(id)];
    if (state != 0) {
        row.changed = row.count == 0 ? now : row.changed;
        row.count += 1;
    } else if (row.count > 0) {
        row.changed = row.count == 1 ? now : row.changed;
        row.count -= 1;
    }
}

std::vector<std::string> Registry::signals(std::int64_t now) const {
    std::string raised;
    std::string cleared;
    for (const Row &row : rows_) {
        if (row.changed >= now) {
            (row.count != 0 ? raised : cleared) += " " + row.label;
        }
    }
    std::vector<std::string> all = announcement(now, "NewIssues", raised);
    for (const std::string &each : announcement(now, "ClearedIssues", cleared)) {
        all.push_back(each);
    }
    return all;
}

std::vector<std::string> Registry::listing() const {
    std::vector<std::string> raised;
    for (const Row &row : rows_) {
        if (row.count >= 1) {
            raised.push_back(wire_time(row.changed) + " " + row.label);
        }
    }
    return raised;
}

} // namespace model
