#include "dbus-srv/issues.h"

#include "captured_traces.h"
#include "chosen_time.h"
#include "dbus-srv.h"
#include "dbus-srv/methods.h"
#include "dbus-srv/signals.h"

#include <array>
#include <cstdarg>
#include <cstdint>
#include <ctime>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <string>
#include <vector>

namespace {

/// Each "LOCK" and "UNLOCK" of the registry, and whether the lock was held when it was traced.
std::vector<std::string> lock_traces;

} // namespace

// Linked in place of the real trace function.
extern "C" {
int __real_sd_journal_print_with_location(int priority, const char *file, const char *line, const char *function,
                                          const char *format, ...);
int __wrap_sd_journal_print_with_location(int priority, const char *file, const char *line, const char *function,
                                          const char *format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    const std::string text = va_arg(arguments, const char *); // the format takes a whole line
    va_end(arguments);
    const std::string word = text.substr(text.rfind(' ') + 1);
    if (word == "LOCK" || word == "UNLOCK") {
        const bool held = pthread_mutex_trylock(&registry_lock) != 0;
        if (!held) {
            pthread_mutex_unlock(&registry_lock);
        }
        lock_traces.push_back(word + (held ? " held" : " free"));
    }
    return __real_sd_journal_print_with_location(priority, file, line, function, "%s\n", text.c_str());
}

// The handler builds the listing without a bus.
dbus_bool_t __wrap_dbus_connection_send(DBusConnection * /*unused*/, DBusMessage * /*unused*/,
                                        dbus_uint32_t * /*unused*/) {
    return TRUE;
}
dbus_bool_t __wrap_dbus_connection_has_messages_to_send(DBusConnection * /*unused*/) { return FALSE; }
}

namespace {

using testing::ElementsAre;

constexpr std::int64_t START = 1000;
constexpr std::uint32_t END_ROW = 0xFFFFFFFF; // -1

class IssuesTest : public testing::Test {
  protected:
    void SetUp() override {
        for (Issue &issue : issue_registry) {
            issue.count = issue.id == -1 ? -1 : 0;
            issue.enabled = issue.id == -1 ? 0 : 1;
        }
        chosen_time = START;
        d_bus_srv_issue_init();
    }
};

TEST(IssueRegistryTest, IsStaticallyClearAndEnabled) {
    // The first test of the program: the others change the table.
    ASSERT_EQ(issue_registry.size(), 35U);
    for (int id = 0; id <= 32; ++id) {
        const Issue &issue = issue_registry[static_cast<std::size_t>(id)];
        EXPECT_EQ(issue.id, id);
        EXPECT_EQ(issue.label, (id < 10 ? "CB0" : "CB") + std::to_string(id));
        EXPECT_EQ(issue.changed, -1);
        EXPECT_EQ(issue.count, 0);
        EXPECT_EQ(issue.enabled, 1);
    }
    EXPECT_EQ(issue_registry[33].id, 99);
    EXPECT_STREQ(issue_registry[33].label, "CBnn");
    EXPECT_EQ(issue_registry[33].changed, -1);
    EXPECT_EQ(issue_registry[33].count, 0);
    EXPECT_EQ(issue_registry[33].enabled, 1);
    EXPECT_EQ(issue_registry[34].id, -1);
    EXPECT_EQ(issue_registry[34].label, nullptr);
    EXPECT_EQ(issue_registry[34].changed, -1);
    EXPECT_EQ(issue_registry[34].count, -1);
    EXPECT_EQ(issue_registry[34].enabled, 0);
}

std::string raised_labels() {
    std::array<char, 256> labels{"left over"};
    d_bus_srv_raised_labels(labels.data(), labels.size());
    return labels.data();
}

TEST_F(IssuesTest, NamesEachRaisedOneOnce) {
    EXPECT_EQ(raised_labels(), "");
    d_bus_srv_issue_update(99, -1);
    d_bus_srv_issue_update(5, 1);
    d_bus_srv_issue_update(5, 2);
    EXPECT_EQ(raised_labels(), "CB05, CBnn");
    d_bus_srv_issue_update(5, 0);
    EXPECT_EQ(raised_labels(), "CB05, CBnn");
    d_bus_srv_issue_update(99, 0);
    EXPECT_EQ(raised_labels(), "CB05");
    EXPECT_EQ(lock_traces.size(), 2U * 6U) << "of the reports and the start alone: it is asked in each pass";
}

TEST_F(IssuesTest, NamesAllWhenAllAreRaised) {
    for (std::uint32_t id = 0; id <= 32; ++id) {
        d_bus_srv_issue_update(id, 1);
    }
    d_bus_srv_issue_update(99, 1);
    EXPECT_EQ(raised_labels().size(), 34U * 6U - 2U); // each but the last with a comma and a blank
    EXPECT_EQ(raised_labels().substr(192), "CB32, CBnn");
}

TEST_F(IssuesTest, StartDatesAllRowsOneSecondBefore) {
    chosen_time = 5000;
    const CapturedTraces traces;
    d_bus_srv_issue_init();
    for (const Issue &issue : issue_registry) {
        EXPECT_EQ(issue.changed, 4999);
    }
    EXPECT_THAT(traces.texts_of("d_bus_srv_issue_init"), ElementsAre("LOCK", "UNLOCK"));
}

struct Report {
    std::int64_t when;
    std::int32_t state;
    std::int32_t count;   // expected after the step
    std::int64_t changed; // expected after the step
};

struct History {
    const char *name;
    std::vector<Report> reports;
};

class IssueHistoryTest : public IssuesTest, public testing::WithParamInterface<History> {};

TEST_P(IssueHistoryTest, CountsReportsAndDatesRaiseAndClearing) {
    for (const Report &report : GetParam().reports) {
        chosen_time = report.when;
        EXPECT_EQ(d_bus_srv_issue_update(5, report.state), 0);
        EXPECT_EQ(issue_registry[5].count, report.count) << "at " << report.when;
        EXPECT_EQ(issue_registry[5].changed, report.changed) << "at " << report.when;
    }
}

// Each row: time, state, expected count, expected date of change. A change from warning to failure is one more report,
// and a recovery removes only one: the issue stays raised. Kept.
INSTANTIATE_TEST_SUITE_P(
    Histories, IssueHistoryTest,
    testing::Values(History{"raised_and_cleared", {{1010, 2, 1, 1010}, {1020, 0, 0, 1020}}},
                    History{"two_tasks_one_recovery", {{1010, 1, 1, 1010}, {1020, 2, 2, 1010}, {1030, 0, 1, 1010}}},
                    History{"two_tasks_both_recover",
                            {{1010, 1, 1, 1010}, {1020, 2, 2, 1010}, {1030, 0, 1, 1010}, {1040, 0, 0, 1040}}},
                    History{"recovery_of_a_clear_issue", {{1010, 0, 0, 999}, {1020, 0, 0, 999}}},
                    History{"low_states_fail_too", {{1010, -1, 1, 1010}, {1020, -2, 2, 1010}}},
                    History{"warning_to_failure_and_ok_stays_raised",
                            {{1010, 1, 1, 1010}, {1020, 2, 2, 1010}, {1030, 0, 1, 1010}}},
                    History{"warning_failure_warning_ok_stays_raised",
                            {{1010, 1, 1, 1010}, {1020, 2, 2, 1010}, {1030, 1, 3, 1010}, {1040, 0, 2, 1010}}},
                    History{"raised_again", {{1010, 1, 1, 1010}, {1020, 0, 0, 1020}, {1030, 1, 1, 1030}}},
                    History{"past_2038", {{2147483648, 1, 1, 2147483648}, {4294967296, 0, 0, 4294967296}}}),
    [](const auto &row) { return row.param.name; });

TEST_F(IssuesTest, CountStopsAtTheLargestNumber) {
    issue_registry[5].count = std::numeric_limits<std::int32_t>::max();
    d_bus_srv_issue_update(5, 1);
    EXPECT_EQ(issue_registry[5].count, std::numeric_limits<std::int32_t>::max());
}

TEST_F(IssuesTest, EveryIdFindsItsOwnRowOrNone) {
    struct Case {
        std::uint32_t id;
        int row; // -1: not found
    };
    std::vector<Case> cases{{33, -1}, {34, -1}, {35, -1}, {68, -1}, {98, -1}, {100, -1}, {99, 33}, {END_ROW, 34}};
    for (int id = 0; id <= 32; ++id) {
        cases.push_back({static_cast<std::uint32_t>(id), id});
    }
    for (const Case &expected : cases) {
        SetUp();
        const IssueRegistry before = issue_registry;
        EXPECT_EQ(d_bus_srv_issue_update(expected.id, 1), 0);
        for (int row = 0; row < 35; ++row) {
            const auto index = static_cast<std::size_t>(row);
            EXPECT_EQ(issue_registry[index].count, before[index].count + (row == expected.row ? 1 : 0))
                << "id " << expected.id << " row " << row;
        }
    }
}

TEST_F(IssuesTest, LookupDoesNotWrapAround) {
    // 36 % 35 is 1: the search does not reach row 0, even with that id in it.
    issue_registry[0].id = 36;
    EXPECT_EQ(d_bus_srv_ID_is_enabled(36), -1);
    issue_registry[0].id = 0;
}

TEST_F(IssuesTest, EndRowCountsFromMinusOne) {
    d_bus_srv_issue_update(END_ROW, 1);
    EXPECT_EQ(issue_registry[34].count, 0);
    EXPECT_EQ(issue_registry[34].changed, START - 1);
    chosen_time = 1010;
    d_bus_srv_issue_update(END_ROW, 1);
    EXPECT_EQ(issue_registry[34].count, 1);
    EXPECT_EQ(issue_registry[34].changed, 1010);
}

TEST_F(IssuesTest, UpdateTracesTheNewCountBetweenTheLocks) {
    const CapturedTraces traces;
    d_bus_srv_issue_update(7, -2);
    d_bus_srv_issue_update(7, 0);
    d_bus_srv_issue_update(99, 1);
    EXPECT_THAT(traces.texts_of("d_bus_srv_issue_update"),
                ElementsAre("LOCK", "ID: CB07 -- state: -2(NOK) -- cnt: 1", "UNLOCK", //
                            "LOCK", "ID: CB07 -- state: 0(OK) -- cnt: 0", "UNLOCK",   //
                            "LOCK", "ID: CBnn -- state: 1(NOK) -- cnt: 1", "UNLOCK"));
    EXPECT_EQ(traces.all().front().code_file, "CODE_FILE=dbus-srv.c");
    EXPECT_TRUE(traces.all().front().line.starts_with("(3) "));
}

TEST_F(IssuesTest, RecoveryOfAClearIssueIsStillTraced) {
    const CapturedTraces traces;
    d_bus_srv_issue_update(7, 0);
    EXPECT_TRUE(traces.has("d_bus_srv_issue_update", "ID: CB07 -- state: 0(OK) -- cnt: 0"));
}

TEST_F(IssuesTest, UnknownIdTracesNothingButTheLocks) {
    const CapturedTraces traces;
    EXPECT_EQ(d_bus_srv_issue_update(33, 1), 0);
    EXPECT_EQ(d_bus_srv_issue_update(100, 0), 0);
    EXPECT_THAT(traces.texts_of("d_bus_srv_issue_update"), ElementsAre("LOCK", "UNLOCK", "LOCK", "UNLOCK"));
}

TEST_F(IssuesTest, EndRowIsTracedWithoutALabel) {
    const CapturedTraces traces;
    d_bus_srv_issue_update(END_ROW, 1);
    EXPECT_TRUE(traces.has("d_bus_srv_issue_update", "ID: (null) -- state: 1(NOK) -- cnt: 0"));
}

TEST_F(IssuesTest, OnlyOneEnables) {
    const CapturedTraces traces;
    for (const std::int32_t value : {2, 0, -1, 256, 257}) {
        EXPECT_EQ(d_bus_srv_ID_set_enabled(14, 1), 0);
        EXPECT_EQ(d_bus_srv_ID_is_enabled(14), 1);
        EXPECT_EQ(d_bus_srv_ID_set_enabled(14, value), 0);
        EXPECT_EQ(d_bus_srv_ID_is_enabled(14), 0) << value;
    }
    EXPECT_THAT(traces.texts_of("d_bus_srv_ID_is_enabled"), testing::SizeIs(2 * 10));
    EXPECT_TRUE(traces.has("d_bus_srv_ID_set_enabled", "LOCK"));
    EXPECT_TRUE(traces.has("d_bus_srv_ID_set_enabled", "UNLOCK"));
}

TEST_F(IssuesTest, EnabledMarkOfUnknownIdsIsMinusOne) {
    for (const std::uint32_t id : {33U, 34U, 100U}) {
        EXPECT_EQ(d_bus_srv_ID_is_enabled(id), -1);
        EXPECT_EQ(d_bus_srv_ID_set_enabled(id, 1), -1);
    }
    EXPECT_EQ(d_bus_srv_ID_is_enabled(99), 1);
    EXPECT_EQ(d_bus_srv_ID_is_enabled(END_ROW), 0);
}

TEST_F(IssuesTest, LockIsTracedBeforeItIsTakenAndUnlockBeforeItIsReleased) {
    lock_traces.clear();
    d_bus_srv_issue_init();
    d_bus_srv_issue_update(5, 1);
    d_bus_srv_issue_update(33, 1);
    d_bus_srv_ID_is_enabled(5);
    d_bus_srv_ID_set_enabled(5, 1);
    d_bus_srv_create_signal_messages(START + 1000);
    const BusMessage call(dbus_message_new_method_call("a.b", "/", "c.d", "E"));
    dbus_message_set_serial(call.get(), 1);
    d_bus_srv_GetListing(nullptr, call.get());
    std::vector<std::string> expected;
    for (int operation = 0; operation < 7; ++operation) {
        expected.insert(expected.end(), {"LOCK free", "UNLOCK held"});
    }
    EXPECT_EQ(lock_traces, expected);
}

TEST_F(IssuesTest, DisabledIssuesStillCount) {
    d_bus_srv_ID_set_enabled(5, 0);
    chosen_time = 1010;
    d_bus_srv_issue_update(5, 1);
    EXPECT_EQ(issue_registry[5].count, 1);
    EXPECT_EQ(issue_registry[5].changed, 1010);
}

} // namespace
