#include "dbus-srv/issues.h"

#include "dbus-srv.h"
#include "dbus-srv/mutex_lock.h"
#include "text_buffer.h"
#include "trace.h"

#include <algorithm>
#include <ctime>
#include <limits>

namespace {

constexpr std::size_t NUMBERED_ISSUES = 33;

using Label = std::array<char, 5>;

constexpr std::array<Label, NUMBERED_ISSUES> numbered_labels() {
    std::array<Label, NUMBERED_ISSUES> labels{};
    for (std::size_t id = 0; id < labels.size(); ++id) {
        labels[id] = {'C', 'B', static_cast<char>('0' + id / 10), static_cast<char>('0' + id % 10), '\0'};
    }
    return labels;
}

constexpr std::array<Label, NUMBERED_ISSUES> LABELS = numbered_labels();

/// No issue raised, all enabled; `changed` is set at the start. The end row is not enabled and never raised.
constexpr IssueRegistry all_clear() {
    IssueRegistry registry{};
    for (std::size_t id = 0; id < NUMBERED_ISSUES; ++id) {
        registry[id] = {static_cast<std::int32_t>(id), LABELS[id].data(), -1, 0, 1};
    }
    registry[NUMBERED_ISSUES] = {99, "CBnn", -1, 0, 1};
    registry[NUMBERED_ISSUES + 1] = {-1, nullptr, -1, -1, 0};
    return registry;
}

/// Linear search from row `id % ISSUE_ROWS`, without wrap-around; null if absent.
Issue *find_issue(std::uint32_t id) {
    for (std::size_t row = id % ISSUE_ROWS; row < ISSUE_ROWS; ++row) {
        if (static_cast<std::uint32_t>(issue_registry[row].id) == id) {
            return &issue_registry[row];
        }
    }
    return nullptr;
}

/// Each transition of a check to WARN or FAIL increments its issue's count, also WARN to FAIL; each transition to OK
/// decrements it. Kept: WARN, FAIL, OK leaves a count of one.
void count_report(Issue &issue, std::int32_t state) {
    const bool changes = state != 0 ? issue.count == 0 : issue.count == 1;
    if (changes) {
        issue.changed = std::time(nullptr);
    }
    if (state != 0 && issue.count < std::numeric_limits<std::int32_t>::max()) {
        ++issue.count;
    } else if (state == 0 && issue.count > 0) {
        --issue.count;
    }
}

} // namespace

constinit IssueRegistry issue_registry = all_clear();
constinit pthread_mutex_t registry_lock = PTHREAD_MUTEX_INITIALIZER;

void d_bus_srv_issue_init() {
    const std::int64_t now = std::time(nullptr);
    trace(TRACE_TRACE, "LOCK");
    const MutexLock lock(registry_lock);
    for (Issue &issue : issue_registry) {
        issue.changed = now - 1;
    }
    trace(TRACE_TRACE, "UNLOCK");
}

int d_bus_srv_issue_update(std::uint32_t id, std::int32_t state) {
    trace(TRACE_TRACE, "LOCK");
    const MutexLock lock(registry_lock);
    if (Issue *const issue = find_issue(id); issue != nullptr) {
        count_report(*issue, state);
        trace(TRACE_TRACE, "ID: %s -- state: %d(%s) -- cnt: %d", issue->label == nullptr ? "(null)" : issue->label,
              state, state != 0 ? "NOK" : "OK", issue->count);
    }
    trace(TRACE_TRACE, "UNLOCK");
    return 0;
}

void d_bus_srv_raised_labels(char *text, std::size_t size) {
    TextBuffer labels(text, size);
    const MutexLock lock(registry_lock);
    for (const Issue &issue : issue_registry) {
        if (issue.count > 0) {
            labels.append(*labels.c_str() == '\0' ? "" : ", ");
            labels.append(issue.label);
        }
    }
}

int d_bus_srv_ID_is_enabled(std::uint32_t id) {
    trace(TRACE_TRACE, "LOCK");
    const MutexLock lock(registry_lock);
    const Issue *const issue = find_issue(id);
    const int enabled = issue == nullptr ? -1 : issue->enabled;
    trace(TRACE_TRACE, "UNLOCK");
    return enabled;
}

int d_bus_srv_ID_set_enabled(std::uint32_t id, std::int32_t enable) {
    trace(TRACE_TRACE, "LOCK");
    const MutexLock lock(registry_lock);
    Issue *const issue = find_issue(id);
    if (issue != nullptr) {
        issue->enabled = enable == 1 ? 1 : 0;
    }
    trace(TRACE_TRACE, "UNLOCK");
    return issue == nullptr ? -1 : 0;
}
