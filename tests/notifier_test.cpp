#include "notifier.h"

#include "captured_traces.h"
#include "dbus-srv.h"
#include "sample_task.h"
#include "trace.h"

#include <gtest/gtest.h>
#include <utility>
#include <vector>

namespace {

using Update = std::pair<std::uint32_t, std::int32_t>;

std::vector<Update> &updates() {
    static std::vector<Update> calls;
    return calls;
}

} // namespace

// Linked instead of the registry's. The notifier must not return its result.
int d_bus_srv_issue_update(std::uint32_t id, std::int32_t state) {
    trace_at(TRACE_TRACE, "notifier_test", __func__, 1, "update");
    updates().emplace_back(id, state);
    return -1;
}

namespace {

class NotifierTest : public testing::Test {
  protected:
    NotifierTest() {
        updates().clear();
        task.name = "wireless";
        task.id = 4;
        task.value = -71;
        task.state = -2;
        task.do_notify = 1;
        task.do_log = 1;
        task.notify = {common_notifier, "common"};
    }
    Task task = sample_task();
    CapturedTraces traces;
};

TEST_F(NotifierTest, PassesAMarkedChangeOnOnce) {
    EXPECT_EQ(common_notifier(&task), 0);
    EXPECT_EQ(common_notifier(&task), 0);
    EXPECT_EQ(updates(), (std::vector<Update>{{4U, -2}}));
    EXPECT_EQ(int{task.do_notify}, 0);
    EXPECT_EQ(int{task.do_log}, 1); // left for the logger
    EXPECT_EQ(traces.texts_of("common_notifier"),
              (std::vector<std::string>{" ", "NOTIFY wireless: value: -71 -- state -2", " "}));
}

TEST_F(NotifierTest, AnnouncesTheChangeBeforeItPassesItOn) {
    common_notifier(&task);
    std::vector<std::string> texts;
    for (const CapturedTrace &trace : traces.all()) {
        texts.push_back(trace.text);
    }
    EXPECT_EQ(texts, (std::vector<std::string>{" ", "NOTIFY wireless: value: -71 -- state -2", "update"}));
}

TEST_F(NotifierTest, PassesEveryStateOn) {
    for (const int state : {-2, -1, 0, 1, 2}) {
        task.state = static_cast<std::int8_t>(state);
        task.do_notify = 1;
        common_notifier(&task);
    }
    EXPECT_EQ(updates(), (std::vector<Update>{{4U, -2}, {4U, -1}, {4U, 0}, {4U, 1}, {4U, 2}}));
}

TEST_F(NotifierTest, PassesNothingOnWithoutAMark) {
    task.do_notify = 0;
    EXPECT_EQ(common_notifier(&task), 0);
    EXPECT_TRUE(updates().empty());
    EXPECT_EQ(traces.texts_of("common_notifier"), (std::vector<std::string>{" "}));
}

TEST_F(NotifierTest, ClearsAMarkThatIsNotOne) {
    task.do_notify = 2;
    EXPECT_EQ(common_notifier(&task), 0);
    EXPECT_TRUE(updates().empty());
    EXPECT_EQ(int{task.do_notify}, 0);
}

TEST_F(NotifierTest, PassesAnIdOnUnchanged) {
    task.id = TASK_ID_UNSET;
    common_notifier(&task);
    task.id = -1; // no row of the registry, signed or unsigned
    task.do_notify = 1;
    common_notifier(&task);
    EXPECT_EQ(updates(), (std::vector<Update>{{99U, -2}, {4294967295U, -2}}));
}

TEST_F(NotifierTest, SkipsWithTheNullNotifier) {
    for (const int mark : {1, 2}) {
        const CapturedTraces second;
        task.do_notify = static_cast<std::uint8_t>(mark);
        EXPECT_EQ(NULL_notifier(&task), 0);
        EXPECT_EQ(int{task.do_notify}, 0);
        EXPECT_EQ(second.texts_of("NULL_notifier"),
                  (std::vector<std::string>{" ", "skip notification wireless: value: -71 -- state -2"}));
    }
    EXPECT_EQ(NULL_notifier(&task), 0);
    EXPECT_EQ(traces.texts_of("NULL_notifier").back(), " "); // nothing left to skip
    EXPECT_TRUE(updates().empty());
}

TEST_F(NotifierTest, CallsTheTasksOwnOperation) {
    EXPECT_EQ(notifier(&task), 0);
    EXPECT_EQ(updates().size(), 1U);
    task.notify = {[](Task *given) { return given->id * 10; }, "own"};
    EXPECT_EQ(notifier(&task), 40);
    task.notify = {nullptr, nullptr};
    task.do_notify = 1;
    EXPECT_EQ(notifier(&task), -1);
    EXPECT_EQ(int{task.do_notify}, 1);
    EXPECT_EQ(updates().size(), 1U);
}

TEST_F(NotifierTest, TracesItsStart) {
    EXPECT_EQ(notifier_init(), 0);
    EXPECT_EQ(traces.texts_of("notifier_init"), (std::vector<std::string>{" ", "DONE"}));
    EXPECT_EQ(traces.all().front().code_file, "CODE_FILE=notifier.c");
}

} // namespace
