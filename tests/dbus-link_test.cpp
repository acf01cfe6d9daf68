// The bus goes away and comes back.

#include "dbus-link.h"

#include "bus_daemon.h"
#include "dbus-srv.h"
#include "message_bytes.h"
#include "other_process.h"
#include "private_bus.h"

#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

namespace {

constinit bool messages_are_out = false;

} // namespace

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming): the linker's names
extern "C" {
DBusMessage *__real_dbus_message_new_method_call(const char *destination, const char *path, const char *interface,
                                                 const char *method);

DBusMessage *__wrap_dbus_message_new_method_call(const char *destination, const char *path, const char *interface,
                                                 const char *method) {
    return messages_are_out ? nullptr : __real_dbus_message_new_method_call(destination, path, interface, method);
}
}
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)

namespace {

constexpr const char *PATH = "/com/corvana/Monitoring1";
constexpr const char *ISSUES = "com.corvana.State2.Issues";

TEST(BusPauseTest, DoublesFromOneSecondToSixty) {
    std::vector<unsigned> pauses;
    for (unsigned attempt = 0; attempt < 9; ++attempt) {
        pauses.push_back(bus_pause_seconds(attempt));
    }
    EXPECT_THAT(pauses, testing::ElementsAre(1, 2, 4, 8, 16, 32, 60, 60, 60));
    EXPECT_EQ(bus_pause_seconds(4294967295), 60U);
}

TEST(BusLinkTest, IsOffTheBusWhenItWasLostOrNeverThere) {
    EXPECT_FALSE(d_bus_srv_is_off_bus()) << "it has not been tried yet";
    bus_link_set(BusLink::serving, nullptr);
    EXPECT_FALSE(d_bus_srv_is_off_bus());
    bus_link_set(BusLink::lost, nullptr);
    EXPECT_TRUE(d_bus_srv_is_off_bus());
    bus_link_set(BusLink::ended, nullptr);
    EXPECT_TRUE(d_bus_srv_is_off_bus());
    bus_link_set(BusLink::starting, nullptr);
}

/// Gets all that is announced on the bus.
struct IssueWatcher : BusClient {
    explicit IssueWatcher(const PrivateBus &bus) : BusClient(bus) {
        watch("type='signal',interface='com.corvana.State2.Issues'");
    }
};

TEST(BusNameTest, IsNotOursWhenItCannotBeAskedFor) {
    BusError error;
    messages_are_out = true;
    EXPECT_FALSE(bus_own_name(BusConnection(), error));
    messages_are_out = false;
    EXPECT_FALSE(error.is_set());
}

bool is_listed(BusClient &client) {
    const BusMessage reply = client.call(method_call(PATH, ISSUES, "GetListing"));
    return reply && dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_METHOD_RETURN;
}

/// The passes announced by the next `count` signals NewIssues. Each pass announces the other issues as
/// cleared: once that has come, the sender is done with the first, which it would send again if the
/// bus went away while it is about it.
std::vector<std::uint32_t> announced(BusClient &client, int count) {
    std::vector<std::uint32_t> passes;
    for (int i = 0; i < count; ++i) {
        const BusMessage raised = client.wait_for_signal("NewIssues");
        passes.push_back(raised ? number_of(raised) : 0);
        EXPECT_NE(client.wait_for([&](DBusMessage *message) {
            return dbus_message_is_signal(message, ISSUES, "ClearedIssues") != 0 &&
                   number_of(BusMessage(dbus_message_ref(message))) == passes.back();
        }),
                  nullptr);
    }
    return passes;
}

class BusLossTest : public testing::Test {
  protected:
    /// Both threads are at work: what is lost then is an established bus.
    BusLossTest() {
        IssueWatcher client(bus_);
        client.wait_for_owner(SERVICE_NAME);
        pass(1);
        EXPECT_EQ(announced(client, 1), std::vector<std::uint32_t>{1});
        EXPECT_TRUE(daemon_.traced("wait for request"));
    }

    /// One pass, known by its number, that announces CB05.
    void pass(int number) {
        daemon_.obey("update 5 1");
        daemon_.obey("send " + std::to_string(number));
    }

    void lose_the_bus() {
        bus_.stop();
        EXPECT_TRUE(daemon_.traced("the bus is gone"));
    }

    PrivateBus bus_;
    BusDaemon daemon_{bus_, Traces::to_stderr};
};

TEST_F(BusLossTest, NameCallsAndWaitingSignalsComeBackInOrder) {
    lose_the_bus();
    for (int number = 2; number <= 6; ++number) {
        pass(number);
    }
    bus_.start();
    BusClient client(bus_);
    client.watch(std::string("type='signal',sender='") + SERVICE_NAME + "',interface='com.corvana.State2.Issues'");
    EXPECT_NE(client.wait_for_owner(SERVICE_NAME), "");
    EXPECT_EQ(announced(client, 5), (std::vector<std::uint32_t>{2, 3, 4, 5, 6}));
    EXPECT_TRUE(is_listed(client));
    pass(7);
    EXPECT_EQ(announced(client, 1), std::vector<std::uint32_t>{7});
}

TEST_F(BusLossTest, ASignalThatIsBeingSentIsSentAgain) {
    daemon_.obey("lose-bus " + std::to_string(bus_.pid()));
    pass(2);
    EXPECT_TRUE(daemon_.traced("the bus is gone"));
    pass(3);
    bus_.stop();
    bus_.start();
    IssueWatcher client(bus_);
    EXPECT_EQ(announced(client, 2), (std::vector<std::uint32_t>{2, 3}));
}

TEST_F(BusLossTest, IsSaidOnceAndDoesNotSpin) {
    lose_the_bus();
    const std::size_t waits = daemon_.count_traces("wait for request");
    pass(1);
    bus_.start();
    ASSERT_TRUE(daemon_.traced("the bus is back"));
    EXPECT_EQ(daemon_.count_traces("the bus is gone"), 1U);
    EXPECT_LE(daemon_.count_traces("wait for request"), waits + 20); // a spin has thousands
    EXPECT_LE(daemon_.count_traces("check request"), 20U);
}

TEST_F(BusLossTest, HappensAgainAndAgain) {
    const std::size_t descriptors = descriptors_of(daemon_.process().pid());
    for (std::uint32_t round = 1; round <= 3; ++round) {
        bus_.stop();
        pass(static_cast<int>(round)); // the sender may notice the loss before the listener does
        bus_.start();
        IssueWatcher client(bus_);
        EXPECT_EQ(announced(client, 1), std::vector<std::uint32_t>{round});
        client.wait_for_owner(SERVICE_NAME);
        EXPECT_TRUE(is_listed(client));
    }
    EXPECT_EQ(descriptors_of(daemon_.process().pid()), descriptors);
}

TEST_F(BusLossTest, WhileAClientFloods) {
    {
        BusClient client(bus_);
        for (int i = 0; i < 5000; ++i) {
            client.send(method_call(PATH, ISSUES, "GetListing"));
        }
        dbus_connection_flush(client.connection());
        bus_.stop();
    }
    bus_.start();
    BusClient client(bus_);
    EXPECT_NE(client.wait_for_owner(SERVICE_NAME), "");
    EXPECT_TRUE(is_listed(client));
}

TEST_F(BusLossTest, ABusThatStandsStillHoldsNobodyUp) {
    IssueWatcher client(bus_);
    kill(bus_.pid(), SIGSTOP);
    std::vector<std::uint32_t> passes;
    for (std::uint32_t number = 2; number <= 1000; ++number) { // more than the socket takes
        pass(static_cast<int>(number));
        passes.push_back(number);
    }
    kill(bus_.pid(), SIGCONT);
    EXPECT_EQ(announced(client, static_cast<int>(passes.size())), passes);
    EXPECT_TRUE(is_listed(client));
    EXPECT_EQ(daemon_.count_traces("the bus is gone"), 0U);
}

TEST_F(BusLossTest, ANameTakenMeanwhileIsAskedForAgain) {
    lose_the_bus();
    bus_.start();
    BusClient monitor(bus_);
    BusClient other(bus_);
    monitor.become_monitor();
    ASSERT_EQ(number_of(other.ask_bus("RequestName", SERVICE_NAME, 0)), 1U);
    pass(1);
    // Having found the name taken, the daemon takes its request back, and asks again later.
    ASSERT_NE(monitor.wait_for([](DBusMessage *message) {
        return dbus_message_is_method_call(message, DBUS_INTERFACE_DBUS, "ReleaseName") != 0;
    }),
              nullptr);
    other.watch(std::string("type='signal',sender='") + SERVICE_NAME + "',interface='com.corvana.State2.Issues'");
    ASSERT_EQ(number_of(other.ask_bus("ReleaseName", SERVICE_NAME)), 1U);
    EXPECT_NE(other.wait_for_owner(SERVICE_NAME), "");
    EXPECT_EQ(announced(other, 1), std::vector<std::uint32_t>{1}); // held back until the name was there
    EXPECT_TRUE(is_listed(other));
}

TEST_F(BusLossTest, ANameThatIsGrantedTooLateIsAskedForAgain) {
    lose_the_bus();
    daemon_.obey("miss-answer");
    bus_.start();
    ASSERT_TRUE(daemon_.traced("the bus is back"));
    IssueWatcher client(bus_);
    EXPECT_NE(client.wait_for_owner(SERVICE_NAME), "");
    EXPECT_TRUE(is_listed(client));
    pass(2);
    EXPECT_EQ(announced(client, 1), std::vector<std::uint32_t>{2});
}

TEST_F(BusLossTest, ExitDoesNotWaitForTheBus) {
    lose_the_bus();
    daemon_.tell("exit");
    EXPECT_EQ(daemon_.process().wait(), 1);
}

/// The daemon's next pause, from line `line` of its stderr on; 0 when none comes.
unsigned next_pause(BusDaemon &daemon, std::size_t &line) {
    const std::string word = "pause ";
    const auto found = daemon.process().errors().wait_for(word, line);
    line = found.value_or(line) + 1;
    return found ? static_cast<unsigned>(std::stoul(daemon.process().errors().line(*found).substr(word.size()))) : 0;
}

TEST(BusLossLongTest, AfterMinutesAllComesBackInOrder) {
    PrivateBus bus;
    BusDaemon daemon(bus, Traces::to_stderr, "held-pauses");
    ASSERT_TRUE(daemon.traced("wait for request"));
    bus.stop();
    std::vector<std::uint32_t> passes;
    std::size_t line = 0;
    for (const unsigned seconds : {1U, 2U, 4U, 8U, 16U, 32U, 60U, 60U, 60U}) {
        if (!passes.empty()) {
            daemon.obey("go"); // the pause before is over, and still there is no bus
        }
        ASSERT_EQ(next_pause(daemon, line), seconds);
        passes.push_back(static_cast<std::uint32_t>(passes.size() + 1));
        daemon.obey("update 5 1");
        daemon.obey("send " + std::to_string(passes.back()));
    }
    bus.start();
    IssueWatcher client(bus);
    daemon.obey("go");
    EXPECT_EQ(announced(client, 9), passes);
    EXPECT_NE(client.wait_for_owner(SERVICE_NAME), "");
    EXPECT_TRUE(is_listed(client));
    EXPECT_TRUE(daemon.traced("the bus is back"));
    EXPECT_EQ(daemon.count_traces("the bus is gone"), 1U);
    EXPECT_EQ(daemon.count_traces("the bus is back"), 1U);
}

// One of the threads looks for the bus much later than the other.

TEST(LateThreadTest, ASenderThatFindsTheBusLostGoesOnWithTheListener) {
    PrivateBus bus;
    BusDaemon daemon(bus, Traces::to_stderr, "hold=sender");
    ASSERT_TRUE(daemon.traced("wait for request"));
    bus.stop();
    ASSERT_TRUE(daemon.traced("the bus is gone"));
    daemon.obey("go");
    ASSERT_TRUE(daemon.find_trace("d_bus_srv_msg_sender", " dbus_bus_get() failed"));
    daemon.obey("update 5 1");
    daemon.obey("send 2");
    bus.start();
    IssueWatcher client(bus);
    EXPECT_EQ(announced(client, 1), std::vector<std::uint32_t>{2});
}

TEST(LateThreadTest, ASenderThatWasTooEarlyGoesOnWithTheListener) {
    PrivateBus bus;
    bus.stop();
    BusDaemon daemon(bus, Traces::to_stderr, "hold=listener");
    ASSERT_TRUE(daemon.find_trace("d_bus_srv_msg_sender", " dbus_bus_get() failed"));
    daemon.obey("update 5 1");
    daemon.obey("send 2");
    bus.start();
    IssueWatcher client(bus);
    daemon.obey("go");
    EXPECT_EQ(announced(client, 1), std::vector<std::uint32_t>{2}); // queued before anybody served
}

TEST(LateThreadTest, ASenderThatWasTooEarlyEndsWithAListenerThatFails) {
    PrivateBus bus;
    bus.stop();
    BusDaemon daemon(bus, Traces::to_stderr, "hold=listener");
    ASSERT_TRUE(daemon.find_trace("d_bus_srv_msg_sender", " dbus_bus_get() failed"));
    EXPECT_EQ(daemon.count_traces("the sender has ended"), 0U);
    daemon.obey("go");
    ASSERT_TRUE(daemon.find_trace("d_bus_srv_main", " dbus_bus_get() failed"));
    EXPECT_TRUE(daemon.traced("the sender has ended with -1"));
}

TEST(BusLossAloneTest, ASenderWhoseListenerHasEndedComesBackByItself) {
    PrivateBus bus;
    std::optional<BusClient> owner(std::in_place, bus);
    ASSERT_EQ(number_of(owner->ask_bus("RequestName", SERVICE_NAME, 0)), 1U);
    BusDaemon daemon(bus, Traces::to_stderr);
    ASSERT_TRUE(daemon.traced("dbus_bus_request_name() failed"));
    owner->watch("type='signal',interface='com.corvana.State2.Issues'");
    daemon.obey("update 5 1");
    daemon.obey("send 1");
    ASSERT_EQ(announced(*owner, 1), std::vector<std::uint32_t>{1});
    owner.reset();
    bus.stop();
    daemon.obey("send 2");
    ASSERT_TRUE(daemon.traced("the bus is gone"));
    bus.start();
    IssueWatcher client(bus);
    EXPECT_EQ(announced(client, 1), std::vector<std::uint32_t>{2});
    EXPECT_EQ(dbus_message_get_type(client.ask_bus("GetNameOwner", SERVICE_NAME).get()), DBUS_MESSAGE_TYPE_ERROR)
        << "and without the name";
}

} // namespace
