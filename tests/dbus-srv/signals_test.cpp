#include "dbus-srv/signals.h"

#include "captured_traces.h"
#include "dbus-srv.h"
#include "dbus-srv/issues.h"
#include "dbus-srv/queue.h"
#include "dbus-srv/sender.h"
#include "gdata.h"
#include "memory_fault.h"
#include "message_bytes.h"
#include "scratch_folder.h"

#include <array>
#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <future>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

int wakeups_sent = 0;
int failing_append = 0; ///< number of the append that fails, from 1

bool fails_now(int &countdown) { return countdown > 0 && --countdown == 0; }

} // namespace

extern "C" {
int __real_pthread_cond_signal(pthread_cond_t *condition);

int __wrap_pthread_cond_signal(pthread_cond_t *condition) {
    ++wakeups_sent;
    return __real_pthread_cond_signal(condition);
}
dbus_bool_t __wrap_dbus_message_append_args(DBusMessage *message, int first, ...) {
    if (fails_now(failing_append)) {
        return FALSE;
    }
    std::va_list arguments;
    va_start(arguments, first);
    const dbus_bool_t result = dbus_message_append_args_valist(message, first, arguments);
    va_end(arguments);
    return result;
}
}

namespace {

using testing::ElementsAre;

constexpr std::int64_t NOW = 1700000000;
constexpr const char *CREATE = "d_bus_srv_create_signal_messages";

/// The number and the labels on the wire: the array's length in bytes, then each text aligned to four.
std::string signal_bytes(std::uint32_t now, const std::vector<std::string> &labels) {
    std::string array;
    for (const std::string &label : labels) {
        array.append((4 - array.size() % 4) % 4, '\0');
        array += wire(label);
    }
    return wire(now) + wire(static_cast<std::uint32_t>(array.size())) + array;
}

std::string member_of(const BusMessage &message) {
    return message == nullptr ? "none" : dbus_message_get_member(message.get());
}

class SignalsTest : public testing::Test {
  protected:
    void SetUp() override {
        for (Issue &issue : issue_registry) {
            issue.count = issue.id == -1 ? -1 : 0;
            issue.changed = NOW - 1;
        }
    }
    void TearDown() override {
        failing_append = 0;
        wakeups_sent = 0;
        gdata_record() = settings_;
        while (d_bus_srv_msg_queue_remove()) {
        }
    }

    static void set_row(std::size_t row, std::int32_t count, std::int64_t changed = NOW) {
        issue_registry[row].count = count;
        issue_registry[row].changed = changed;
    }

  private:
    GlobalData settings_ = gdata_record();
};

TEST_F(SignalsTest, NothingIsQueuedWhenNothingChanged) {
    const CapturedTraces traces;
    EXPECT_EQ(d_bus_srv_create_signal_messages(NOW), 0);
    EXPECT_EQ(d_bus_srv_msg_queue_remove(), nullptr);
    EXPECT_THAT(traces.texts_of(CREATE), ElementsAre(" ", "LOCK", "UNLOCK"));
}

TEST_F(SignalsTest, NewComesBeforeClearedWhateverTheOrderOfRows) {
    set_row(2, 0);
    set_row(5, 1);
    const CapturedTraces traces;
    EXPECT_EQ(d_bus_srv_create_signal_messages(NOW), 2);
    const BusMessage first = d_bus_srv_msg_queue_remove();
    const BusMessage second = d_bus_srv_msg_queue_remove();
    ASSERT_EQ(member_of(first), "NewIssues");
    ASSERT_EQ(member_of(second), "ClearedIssues");
    EXPECT_EQ(body_bytes(first.get()), signal_bytes(NOW, {"CB05"}));
    EXPECT_EQ(body_bytes(second.get()), signal_bytes(NOW, {"CB02"}));
    EXPECT_EQ(d_bus_srv_msg_queue_remove(), nullptr);
    EXPECT_THAT(traces.texts_of(CREATE),
                ElementsAre(" ", "LOCK", "CB02: time: 1700000000 ClearedIssue", "CB05: time: 1700000000 NewIssue",
                            "UNLOCK", "cleared|new", "new", "cleared", "DONE"));
}

TEST_F(SignalsTest, TheFrameOfAPassIsTracedAtLevelTwo) {
    set_row(2, 0);
    const CapturedTraces traces;
    EXPECT_EQ(d_bus_srv_create_signal_messages(NOW), 1);
    std::vector<std::string> framing;
    for (const CapturedTrace &trace : traces.all()) {
        if (trace.line.starts_with("(2) ")) {
            framing.push_back(trace.function + ": " + trace.text);
        }
    }
    EXPECT_THAT(traces.texts_of(CREATE), ElementsAre(" ", "LOCK", "CB02: time: 1700000000 ClearedIssue", "UNLOCK",
                                                     "cleared|new", "cleared", "DONE"));
    EXPECT_THAT(framing, ElementsAre("d_bus_srv_create_signal_messages:  ", "d_bus_create_signals:  ",
                                     "d_bus_srv_create_signal_messages: DONE"));
}

TEST_F(SignalsTest, BytesOfOneSignal) {
    // 1700000000 is 0x6553F100; 13 bytes of two texts, the first padded to 12: 4+5+3 + 4+5 = 21.
    const std::array<const char *, 2> labels{"CB02", "CBnn"};
    const BusMessage message = d_bus_create_signals(NOW, "NewIssues", labels.data(), 2);
    ASSERT_NE(message, nullptr);
    const std::string expected("\x00\xf1\x53\x65"
                               "\x15\x00\x00\x00"
                               "\x04\x00\x00\x00"
                               "CB02\x00\x00\x00\x00"
                               "\x04\x00\x00\x00"
                               "CBnn\x00",
                               29);
    EXPECT_EQ(body_bytes(message.get()), expected);
    EXPECT_STREQ(dbus_message_get_signature(message.get()), "uas");
    EXPECT_STREQ(dbus_message_get_path(message.get()), "/com/corvana/Monitoring1");
    EXPECT_STREQ(dbus_message_get_interface(message.get()), "com.corvana.State2.Issues");
    EXPECT_EQ(dbus_message_get_type(message.get()), DBUS_MESSAGE_TYPE_SIGNAL);
}

TEST_F(SignalsTest, ConfiguredPathAndInterfaceAreUsed) {
    gdata_record().dbus_path = "/some/where";
    gdata_record().dbus_if = "some.thing.Else";
    const std::array<const char *, 1> labels{"CB02"};
    const CapturedTraces traces;
    const BusMessage message = d_bus_create_signals(NOW, "ClearedIssues", labels.data(), 1);
    ASSERT_NE(message, nullptr);
    EXPECT_STREQ(dbus_message_get_path(message.get()), "/some/where");
    EXPECT_STREQ(dbus_message_get_interface(message.get()), "some.thing.Else");
    EXPECT_THAT(traces.texts_of("d_bus_create_signals"), ElementsAre(" ", "DONE"));
}

struct Moment {
    const char *name;
    std::int64_t changed;
    std::int64_t now;
    bool announced;
    std::uint32_t on_the_wire;
};

class SignalMomentTest : public SignalsTest, public testing::WithParamInterface<Moment> {};

TEST_P(SignalMomentTest, ChangesFromTheStartOfThePassOnAreAnnouncedWithThatStart) {
    const Moment &moment = GetParam();
    for (Issue &issue : issue_registry) {
        issue.changed = moment.now - 1;
    }
    set_row(4, 1, moment.changed);
    EXPECT_EQ(d_bus_srv_create_signal_messages(moment.now), moment.announced ? 1 : 0);
    const BusMessage message = d_bus_srv_msg_queue_remove();
    ASSERT_EQ(message != nullptr, moment.announced);
    if (message) {
        EXPECT_EQ(body_bytes(message.get()), signal_bytes(moment.on_the_wire, {"CB04"}));
    }
}

// 2^31 + 5 is past January 2038; 2^32 + 5 is past February 2106 and wraps on the wire.
INSTANTIATE_TEST_SUITE_P(Moments, SignalMomentTest,
                         testing::Values(Moment{"before", NOW - 1, NOW, false, 0}, //
                                         Moment{"same_second", NOW, NOW, true, 1700000000},
                                         Moment{"later", NOW + 7, NOW, true, 1700000000},
                                         Moment{"past_2038", 2147483655, 2147483653, true, 2147483653},
                                         Moment{"before_2038_seen_after", 2147483647, 2147483648, false, 0},
                                         Moment{"past_2106", 4294967301, 4294967301, true, 5},
                                         Moment{"before_2106_seen_after", 4294967295, 4294967296, false, 0}),
                         [](const auto &row) { return row.param.name; });

TEST_F(SignalsTest, AChangeIsAnnouncedAgainByAPassInTheSameSecond) {
    set_row(4, 1);
    EXPECT_EQ(d_bus_srv_create_signal_messages(NOW), 1);
    EXPECT_EQ(d_bus_srv_create_signal_messages(NOW), 1);
    EXPECT_EQ(d_bus_srv_create_signal_messages(NOW + 1), 0);
}

TEST_F(SignalsTest, RaisedAndClearedInOnePassIsOnlyCleared) {
    const std::int64_t start = std::time(nullptr);
    d_bus_srv_issue_update(9, 1);
    d_bus_srv_issue_update(9, 0);
    EXPECT_EQ(d_bus_srv_create_signal_messages(start), 1);
    EXPECT_EQ(member_of(d_bus_srv_msg_queue_remove()), "ClearedIssues");
    EXPECT_EQ(d_bus_srv_msg_queue_remove(), nullptr);
}

TEST_F(SignalsTest, TwoTasksOfOneIdGiveOneLabel) {
    const std::int64_t start = std::time(nullptr);
    d_bus_srv_issue_update(4, 1);
    d_bus_srv_issue_update(4, 2);
    EXPECT_EQ(d_bus_srv_create_signal_messages(start), 1);
    const BusMessage message = d_bus_srv_msg_queue_remove();
    ASSERT_EQ(member_of(message), "NewIssues");
    EXPECT_EQ(body_bytes(message.get()), signal_bytes(static_cast<std::uint32_t>(start), {"CB04"}));
}

TEST_F(SignalsTest, AllRowsAreWalkedEnabledOrNot) {
    std::vector<std::string> labels;
    for (std::size_t row = 0; row < 34; ++row) {
        set_row(row, 1);
        issue_registry[row].enabled = 0;
        labels.emplace_back(issue_registry[row].label);
    }
    EXPECT_EQ(d_bus_srv_create_signal_messages(NOW), 34);
    const BusMessage message = d_bus_srv_msg_queue_remove();
    ASSERT_EQ(member_of(message), "NewIssues");
    EXPECT_EQ(body_bytes(message.get()), signal_bytes(NOW, labels));
    EXPECT_EQ(labels.back(), "CBnn");
}

TEST_F(SignalsTest, TheRowWithoutALabelNeverEntersAList) {
    // As if the clock had been set back before the start of the daemon.
    for (Issue &issue : issue_registry) {
        issue.changed = NOW + 100;
    }
    issue_registry[34].count = 1;
    EXPECT_EQ(d_bus_srv_create_signal_messages(NOW), 34);
    EXPECT_EQ(member_of(d_bus_srv_msg_queue_remove()), "ClearedIssues");
    EXPECT_EQ(d_bus_srv_msg_queue_remove(), nullptr);
}

TEST_F(SignalsTest, QueueKeepsTheOrderAfterItWasEmptied) {
    const std::array<const char *, 1> labels{"CB00"};
    for (int round = 0; round < 2; ++round) {
        const CapturedTraces traces;
        for (const char *member : {"First", "Second", "Third"}) {
            EXPECT_EQ(d_bus_srv_msg_queue_add(d_bus_create_signals(NOW, member, labels.data(), 1)), 0);
        }
        EXPECT_EQ(member_of(d_bus_srv_msg_queue_remove()), "First");
        EXPECT_EQ(member_of(d_bus_srv_msg_queue_remove()), "Second");
        EXPECT_EQ(member_of(d_bus_srv_msg_queue_remove()), "Third");
        EXPECT_EQ(d_bus_srv_msg_queue_remove(), nullptr);
        EXPECT_THAT(traces.texts_of("d_bus_srv_msg_queue_add"),
                    ElementsAre("ADD", "DONE", "ADD", "DONE", "ADD", "DONE"));
    }
}

TEST_F(SignalsTest, QueueHasNoLimit) {
    set_row(1, 1);
    for (int pass = 0; pass < 10000; ++pass) {
        ASSERT_EQ(d_bus_srv_create_signal_messages(NOW), 1);
    }
    int queued = 0;
    while (d_bus_srv_msg_queue_remove()) {
        ++queued;
    }
    EXPECT_EQ(queued, 10000);
}

TEST_F(SignalsTest, ANodeThatCannotBeAllocatedIsAFailure) {
    const std::array<const char *, 1> labels{"CB00"};
    const CapturedTraces traces;
    BusMessage message = d_bus_create_signals(NOW, "NewIssues", labels.data(), 1);
    const MemoryFault node(1);
    EXPECT_EQ(d_bus_srv_msg_queue_add(std::move(message)), -1);
    EXPECT_THAT(traces.texts_of("d_bus_srv_msg_queue_add"), ElementsAre("FAIL"));
    EXPECT_EQ(d_bus_srv_msg_queue_remove(), nullptr);
}

TEST_F(SignalsTest, ASignalThatCannotBeCreatedIsNone) {
    const std::array<const char *, 1> labels{"CB00"};
    for (const char *path : {"no path", ""}) {
        const CapturedTraces traces;
        gdata_record().dbus_path = path;
        EXPECT_EQ(d_bus_create_signals(NOW, "NewIssues", labels.data(), 1), nullptr);
        EXPECT_THAT(traces.texts_of("d_bus_create_signals"), ElementsAre(" ", "dbus_message_new_signal() failed"));
    }
}

TEST_F(SignalsTest, ASignalThatCannotBeFilledIsNone) {
    const std::array<const char *, 1> labels{"CB00"};
    const CapturedTraces traces;
    failing_append = 1;
    EXPECT_EQ(d_bus_create_signals(NOW, "NewIssues", labels.data(), 1), nullptr);
    EXPECT_THAT(traces.texts_of("d_bus_create_signals"), ElementsAre(" ", "dbus_message_append_args() failed"));
}

TEST_F(SignalsTest, AFailedNewDropsTheClearedOfThatPass) {
    set_row(2, 1);
    set_row(5, 0);
    const CapturedTraces traces;
    failing_append = 1;
    EXPECT_EQ(d_bus_srv_create_signal_messages(NOW), -1);
    const MemoryFault node(1);
    EXPECT_EQ(d_bus_srv_create_signal_messages(NOW), -1);
    EXPECT_EQ(d_bus_srv_msg_queue_remove(), nullptr);
    for (const auto &each : traces.all()) {
        const bool important = each.line.ends_with(" failed") && each.line.find(CREATE) != std::string::npos;
        EXPECT_TRUE(!important || each.line.starts_with("(2) ")) << each.line;
    }
    EXPECT_TRUE(traces.has(CREATE, "d_bus_create_signals(\"NewIssues\") failed"));
    EXPECT_TRUE(traces.has(CREATE, "d_bus_srv_msg_queue_add(\"NewIssues\") failed"));
    EXPECT_FALSE(traces.has(CREATE, "cleared"));
    EXPECT_FALSE(traces.has(CREATE, "DONE"));
}

TEST_F(SignalsTest, AFailureIsNotRolledBackAndNotAnnouncedLater) {
    set_row(2, 1);
    failing_append = 1;
    EXPECT_EQ(d_bus_srv_create_signal_messages(NOW), -1);
    EXPECT_EQ(issue_registry[2].changed, NOW);
    EXPECT_EQ(issue_registry[2].count, 1);
    EXPECT_EQ(d_bus_srv_create_signal_messages(NOW + 10), 0);
}

TEST_F(SignalsTest, AWakeUpIsKeptForASenderThatIsNotWaiting) {
    set_row(2, 1);
    EXPECT_EQ(d_bus_srv_send_issues(NOW), 0);
    EXPECT_EQ(wakeups_sent, 1);
    d_bus_srv_msg_queue_wait(); // would never return if the wake-up were lost
    EXPECT_EQ(member_of(d_bus_srv_msg_queue_remove()), "NewIssues");
}

TEST_F(SignalsTest, APassWithoutChangesDoesNotWakeTheSender) {
    EXPECT_EQ(d_bus_srv_send_issues(NOW), 0);
    EXPECT_EQ(wakeups_sent, 0);
}

TEST_F(SignalsTest, AFailedClearedLeavesTheNewQueuedWithoutAWakeUp) {
    for (const bool node_fails : {true, false}) {
        set_row(2, 1);
        set_row(5, 0);
        const CapturedTraces traces;
        std::optional<MemoryFault> node;
        if (node_fails) {
            node.emplace(2);
        } else {
            failing_append = 2;
        }
        EXPECT_EQ(d_bus_srv_send_issues(NOW), 0);
        EXPECT_EQ(wakeups_sent, 0);
        EXPECT_EQ(member_of(d_bus_srv_msg_queue_remove()), "NewIssues");
        EXPECT_EQ(d_bus_srv_msg_queue_remove(), nullptr);
        EXPECT_TRUE(traces.has(CREATE, node_fails ? "d_bus_srv_msg_queue_add(\"ClearedIssues\") failed"
                                                  : "d_bus_create_signals(\"ClearedIssues\") failed"));
    }
}

TEST_F(SignalsTest, AFailedClearedIsAFailureOfThePass) {
    set_row(2, 1);
    set_row(5, 0);
    failing_append = 2;
    EXPECT_EQ(d_bus_srv_create_signal_messages(NOW), -1);
    const MemoryFault node(2);
    EXPECT_EQ(d_bus_srv_create_signal_messages(NOW), -1);
}

TEST_F(SignalsTest, AWaitingSenderIsWokenByEachPass) {
    std::promise<void> done;
    std::thread sender([&done] {
        d_bus_srv_msg_queue_wait();
        done.set_value();
    });
    d_bus_srv_msg_queue_signal();
    EXPECT_EQ(done.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready);
    sender.join();
}

TEST_F(SignalsTest, AWakeUpIsConsumedOnce) {
    d_bus_srv_msg_queue_signal();
    d_bus_srv_msg_queue_wait();
    std::promise<pid_t> number;
    std::promise<void> woken;
    std::thread sender([&] {
        number.set_value(gettid());
        d_bus_srv_msg_queue_wait();
        woken.set_value();
    });
    const std::future<void> done = woken.get_future();
    const std::string state = "/proc/self/task/" + std::to_string(number.get_future().get()) + "/stat";
    const auto is_woken = [&done] { return done.wait_for(std::chrono::seconds(0)) == std::future_status::ready; };
    while (!is_woken() && read_file(state).find(") S ") == std::string::npos) {
        std::this_thread::yield();
    }
    EXPECT_FALSE(is_woken());
    d_bus_srv_msg_queue_signal();
    sender.join();
}

TEST_F(SignalsTest, TerminationSignalsAreBlockedForTheThread) {
    sigset_t mask;
    std::thread([&mask] {
        const sigset_t none{};
        pthread_sigmask(SIG_SETMASK, &none, nullptr);
        d_bus_srv_init_signals();
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    }).join();
    for (int signo = 1; signo < 32; ++signo) {
        const bool termination = signo == SIGQUIT || signo == SIGHUP || signo == SIGINT || signo == SIGTERM;
        EXPECT_EQ(sigismember(&mask, signo) == 1, termination) << signo;
    }
}

} // namespace
