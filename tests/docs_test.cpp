// Checks what the documents say about the program.

#include "bus_daemon.h"
#include "dbus-srv/issues.h"
#include "gdata.h"
#include "private_bus.h"
#include "scratch_folder.h"
#include "tasks.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using testing::HasSubstr;
using testing::SizeIs;

namespace {

using Cells = std::vector<std::string>;

std::string integrators() { return read_file(DOCS_FOLDER "/integrators.md"); }

std::string trimmed(const std::string &text) {
    const std::size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

/// The cells of a line "| a | b |".
Cells cells_of(const std::string &line) {
    Cells cells;
    std::istringstream text(line.substr(1));
    for (std::string cell; std::getline(text, cell, '|');) {
        cells.push_back(trimmed(cell));
    }
    return cells;
}

/// The rows of the catalogue by label.
std::map<std::string, std::vector<Cells>> catalogue() {
    std::map<std::string, std::vector<Cells>> rows;
    std::istringstream text(integrators());
    for (std::string line; std::getline(text, line);) {
        if (line.starts_with("| CB")) {
            const Cells cells = cells_of(line);
            rows[cells.front()].push_back(cells);
        }
    }
    return rows;
}

std::string label_of(const Task *task) {
    const auto *const row = std::find_if(issue_registry.begin(), issue_registry.end(),
                                         [task](const Issue &issue) { return issue.id == task->id; });
    return row == issue_registry.end() ? "" : row->label;
}

std::string limits(const Task *task, const char *above, std::int32_t high, std::uint32_t has_high, const char *below,
                   std::int32_t low, std::uint32_t has_low) {
    const std::string high_text = above + std::to_string(high);
    const std::string low_text = below + std::to_string(low);
    if (task_has(task, has_high) && task_has(task, has_low)) {
        return high_text + ", " + low_text;
    }
    return task_has(task, has_high) ? high_text : task_has(task, has_low) ? low_text : "";
}

std::string warning_of(const Task *task) {
    return limits(task, ">= ", task->maxwarn, TASK_HAS_MAXWARN, "<= ", task->minwarn, TASK_HAS_MINWARN);
}

bool is_bool(const Task *task) { return std::string(task->analyze.name) == "bool"; }

std::string failure_of(const Task *task) {
    return is_bool(task) ? "1"
                         : limits(task, ">= ", task->maxfail, TASK_HAS_MAXFAIL, "<= ", task->minfail, TASK_HAS_MINFAIL);
}

/// Where both states end: the limit nearer to the good values, moved by the hysteresis.
std::string good_of(const Task *task) {
    const bool warns = task_has(task, TASK_HAS_MAXWARN);
    return is_bool(task) ? "0"
                         : limits(task, "< ", (warns ? task->maxwarn : task->maxfail) - task->hysteresis,
                                  warns ? TASK_HAS_MAXWARN : TASK_HAS_MAXFAIL, "> ", task->minwarn + task->hysteresis,
                                  TASK_HAS_MINWARN);
}

/// The change may happen just before or just after a sample.
std::string delay_of(const Task *task) {
    const std::int32_t shortest = (task->delay - 1) * task->interval;
    const std::int32_t longest = task->delay * task->interval;
    const bool in_seconds = longest <= 100;
    const std::int32_t unit = in_seconds ? 1 : 60;
    return std::to_string(shortest / unit) + " to " + std::to_string(longest / unit) + (in_seconds ? " s" : " min");
}

Cells figures_of(const Task *task) {
    return {"`" + std::string(task->name) + "`",
            warning_of(task),
            failure_of(task),
            good_of(task),
            std::to_string(task->interval) + " s x " + std::to_string(task->delay),
            delay_of(task)};
}

std::vector<std::string> examples_with(const std::string &start) {
    std::vector<std::string> found;
    std::istringstream text(integrators());
    for (std::string line; std::getline(text, line);) {
        if (line.starts_with("    " + start)) {
            found.push_back(trimmed(line));
        }
    }
    return found;
}

std::vector<std::string> watch_issues_command() {
    std::vector<std::string> command;
    std::istringstream words(WATCH_ISSUES);
    for (std::string word; std::getline(words, word, '|');) {
        command.push_back(word);
    }
    std::erase(command, "");
    return command;
}

} // namespace

TEST(Catalogue, HasARowForEachIssueWithACheckAndNamesTheOthers) {
    std::set<std::string> checked;
    for (const Task *task = builtin_tasks().first; task != nullptr; task = task->next) {
        checked.insert(label_of(task));
    }
    std::set<std::string> rows;
    for (const auto &[label, cells] : catalogue()) {
        EXPECT_THAT(cells, SizeIs(1)) << label;
        rows.insert(label);
    }
    EXPECT_EQ(rows, checked);

    std::string others;
    for (const Issue &issue : issue_registry) {
        if (issue.label != nullptr && !checked.contains(issue.label)) {
            others += (others.empty() ? "`" : ", `") + std::string(issue.label) + "`";
        }
    }
    std::string text = integrators();
    std::replace(text.begin(), text.end(), '\n', ' ');
    EXPECT_THAT(text, HasSubstr("No check has: " + others + ". "));
}

TEST(Catalogue, HasTheFiguresOfTheTasks) {
    const auto rows = catalogue();
    for (const Task *task = builtin_tasks().first; task != nullptr; task = task->next) {
        const auto row = rows.find(label_of(task));
        ASSERT_NE(row, rows.end()) << task->id;
        const Cells &cells = row->second.front();
        ASSERT_THAT(cells, SizeIs(8)) << row->first;
        EXPECT_EQ(Cells(cells.begin() + 2, cells.end()), figures_of(task)) << row->first;
    }
}

TEST(Version, IsTheBuildsInBothChangelogs) {
    const std::string version = PROJECT_VERSION;
    EXPECT_THAT(read_file(DOCS_FOLDER "/../CHANGELOG.md"),
                testing::ContainsRegex("^# Changelog\n\n(## Unreleased\n[^#]*)?## " + version + "\n"));
    EXPECT_THAT(read_file(DOCS_FOLDER "/../debian/changelog"), testing::StartsWith("vigmond (" + version + ") "));
}

TEST(License, IsThatOfThePackage) {
    EXPECT_THAT(read_file(DOCS_FOLDER "/../LICENSE"), HasSubstr("License: "));
    EXPECT_EQ(read_file(DOCS_FOLDER "/../LICENSE"), read_file(DOCS_FOLDER "/../debian/copyright"));
}

TEST(Example, IsTheProgramInTheDocument) {
    const std::string program = read_file(DOCS_FOLDER "/examples/watch_issues.cpp");
    ASSERT_NE(program, "");
    EXPECT_THAT(integrators(), HasSubstr("```cpp\n" + program + "```\n"));
}

TEST(Example, WatchesTheIssues) {
    const PrivateBus bus;
    BusDaemon daemon(bus);
    BusClient(bus).wait_for_owner("com.corvana.vigmond");
    daemon.obey("update 7 2");
    ChildProcess example(watch_issues_command(), {bus.variable()});
    EXPECT_TRUE(example.output().wait_for(" raised CB07"));
    daemon.obey("update 20 1");
    daemon.obey("update 7 0");
    daemon.obey("send 1");
    EXPECT_TRUE(example.output().wait_for("1 NewIssues CB20"));
    EXPECT_TRUE(example.output().wait_for("1 ClearedIssues CB07"));
}

TEST(Example, StartsOverWithTheDaemon) {
    const PrivateBus bus;
    std::optional<BusDaemon> daemon(bus);
    BusClient(bus).wait_for_owner("com.corvana.vigmond");
    daemon->obey("update 7 2");
    ChildProcess example(watch_issues_command(), {bus.variable()});
    ASSERT_TRUE(example.output().wait_for(" raised CB07"));
    daemon.reset();
    daemon.emplace(bus);
    ASSERT_TRUE(example.output().wait_for("vigmond has started"));
    daemon->obey("update 20 1");
    daemon->obey("send 1");
    EXPECT_TRUE(example.output().wait_for("1 NewIssues CB20"));
}

TEST(Example, CallsAreAnswered) {
    const PrivateBus bus;
    BusDaemon daemon(bus);
    BusClient(bus).wait_for_owner("com.corvana.vigmond");
    const std::vector<std::string> calls = examples_with("busctl call");
    EXPECT_THAT(calls, SizeIs(3));
    for (const std::string &call : calls) {
        EXPECT_EQ(run_command({"bash", "-c", "export " + bus.variable() + "; " + call}).status, 0) << call;
    }
}
