// The bus is lost and returns.

#include "dbus-srv/link.h"

#include "bus_daemon.h"
#include "dbus-srv.h"
#include "heap.h"
#include "message_bytes.h"
#include "other_process.h"
#include "private_bus.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

namespace {

constinit bool out_of_messages = false;

/// What libdbus would read while a call is sent.
constinit long bytes_while_sending = 0;
constinit long descriptors_while_sending = 0;

} // namespace

extern "C" {
DBusMessage *__real_dbus_message_new_method_call(const char *destination, const char *path, const char *interface,
                                                 const char *method);

DBusMessage *__wrap_dbus_message_new_method_call(const char *destination, const char *path, const char *interface,
                                                 const char *method) {
    return out_of_messages ? nullptr : __real_dbus_message_new_method_call(destination, path, interface, method);
}

dbus_bool_t __real_dbus_connection_send(DBusConnection *connection, DBusMessage *message, dbus_uint32_t *serial);

dbus_bool_t __wrap_dbus_connection_send(DBusConnection *connection, DBusMessage *message, dbus_uint32_t *serial) {
    bytes_while_sending = dbus_connection_get_max_received_size(connection);
    descriptors_while_sending = dbus_connection_get_max_received_unix_fds(connection);
    return out_of_messages ? FALSE : __real_dbus_connection_send(connection, message, serial);
}
}

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

/// Receives everything announced on the bus.
struct IssueWatcher : BusClient {
    explicit IssueWatcher(const PrivateBus &bus) : BusClient(bus) {
        watch("type='signal',interface='com.corvana.State2.Issues'");
    }
};

/// The test's own connection, made by the code under test. The library reads the bus's address from the environment
/// once.
class OwnConnectionTest : public testing::Test {
  public:
    OwnConnectionTest() {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
        connection = bus_connect(error);
    }
    /// Otherwise the library keeps the connection for the next test.
    ~OwnConnectionTest() override {
        bus.stop();
        while (dbus_connection_read_write(connection.get(), -1) != 0) {
        }
        bus_drop_messages(connection);
    }

  protected:
    void read_all_accepted() {
        for (int i = 0; i < 5000; ++i) {
            dbus_connection_read_write(connection.get(), 0);
        }
    }
    /// Reads all that the connection accepts, handling nothing; returns the number of signals queued.
    std::size_t queued_signals() {
        read_all_accepted();
        std::size_t signals = 0;
        while (const BusMessage message{dbus_connection_pop_message(connection.get())}) {
            signals += dbus_message_is_signal(message.get(), "a.b", "C") != 0 ? 1 : 0;
        }
        return signals;
    }
    /// Everything that was sent arrives, never more than `most` at once.
    void expect_read_in_parts(std::size_t count, std::size_t most) {
        ASSERT_NE(client.ask_bus("GetNameOwner", DBUS_SERVICE_DBUS), nullptr) << "the bus has it all";
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        std::size_t taken = 0;
        while (taken < count && std::chrono::steady_clock::now() < deadline) {
            const std::size_t at_once = queued_signals();
            EXPECT_LE(at_once, most);
            taken += at_once;
        }
        EXPECT_EQ(taken, count);
    }
    /// A signal addressed to the connection.
    [[nodiscard]] BusMessage signal() const {
        BusMessage signal(dbus_message_new_signal("/", "a.b", "C"));
        dbus_message_set_destination(signal.get(), dbus_bus_get_unique_name(connection.get()));
        return signal;
    }
    /// The same with a text of `size` bytes.
    [[nodiscard]] BusMessage text_signal(std::size_t size) const {
        const std::string text(size, 'x');
        const char *const first = text.c_str();
        BusMessage message = signal();
        dbus_message_append_args(message.get(), DBUS_TYPE_STRING, static_cast<const void *>(&first), DBUS_TYPE_INVALID);
        return message;
    }
    void send_text(std::size_t size) { client.send(text_signal(size)); }
    static const std::string &folder() {
        static const ScratchFolder scratch;
        static const std::string path = scratch.path();
        return path;
    }

    PrivateBus bus{folder()};
    BusClient client{bus};
    BusConnection connection;
    BusError error;
    EarlyMessages early;
};

TEST_F(OwnConnectionTest, OutOfMemoryIsNoRefusal) {
    out_of_messages = true;
    EXPECT_EQ(bus_own_name(connection, early, error), NameAnswer::none);
    out_of_messages = false;
    EXPECT_TRUE(error.has_name(DBUS_ERROR_NO_MEMORY));
    EXPECT_EQ(bus_own_name(connection, early, error), NameAnswer::owner);
}

TEST_F(OwnConnectionTest, NoReplyInTimeIsNoRefusal) {
    EXPECT_EQ(NAME_TIMEOUT, std::chrono::seconds(25)) << "the library's default";
    kill(bus.pid(), SIGSTOP);
    EXPECT_EQ(bus_own_name(connection, early, error, std::chrono::milliseconds(10)), NameAnswer::none);
    kill(bus.pid(), SIGCONT);
    EXPECT_TRUE(error.has_name(DBUS_ERROR_NO_REPLY));
    EXPECT_EQ(bus_own_name(connection, early, error), NameAnswer::owner) << "the late name was released";
}

TEST_F(OwnConnectionTest, ALostConnectionIsNoRefusal) {
    bus.stop();
    EXPECT_EQ(bus_own_name(connection, early, error), NameAnswer::none);
    EXPECT_TRUE(error.has_name(DBUS_ERROR_DISCONNECTED));
}

TEST_F(OwnConnectionTest, TheBusMayRefuseTheName) {
    ASSERT_EQ(number_of(client.ask_bus("RequestName", SERVICE_NAME, 0)), 1U);
    EXPECT_EQ(bus_own_name(connection, early, error), NameAnswer::refused);
    EXPECT_FALSE(error.is_set());
}

// The listener traces them.
TEST_F(OwnConnectionTest, MessagesOfTheBusBeforeTheReplyAreKept) {
    EXPECT_EQ(bus_own_name(connection, early, error), NameAnswer::owner);
    EXPECT_EQ(text_of(early.take()), dbus_bus_get_unique_name(connection.get()));
    EXPECT_EQ(text_of(early.take()), SERVICE_NAME);
    EXPECT_EQ(early.take(), nullptr);
}

TEST_F(OwnConnectionTest, AFloodBeforeTheReplyIsDroppedAndNotQueued) {
    for (int i = 0; i < 8; ++i) {
        send_text(1024UL * 1024); // more than is read at once
    }
    ASSERT_NE(client.ask_bus("GetNameOwner", DBUS_SERVICE_DBUS), nullptr) << "the bus has it all";
    EXPECT_EQ(bus_own_name(connection, early, error), NameAnswer::owner);
    EXPECT_EQ(bytes_while_sending, 64L * 1024);
    EXPECT_EQ(descriptors_while_sending, 16);
    EXPECT_EQ(queued_signals(), 0U);
}

TEST_F(OwnConnectionTest, NoMoreIsReadThanIsHandledAndNothingIsLost) {
    constexpr std::size_t count = 3000;
    for (std::size_t i = 0; i < count; ++i) {
        send_text(1000);
    }
    expect_read_in_parts(count, 64 * 1024 / 1000);
}

TEST_F(OwnConnectionTest, AFlushDoesNotRaiseTheBoundOfWhatIsRead) {
    constexpr std::size_t count = 300;
    for (std::size_t i = 0; i < count; ++i) {
        send_text(1000);
    }
    ASSERT_NE(client.ask_bus("GetNameOwner", DBUS_SERVICE_DBUS), nullptr) << "the bus has it all";
    kill(bus.pid(), SIGSTOP);
    const BusMessage large = text_signal(1024UL * 1024); // more than the socket takes
    dbus_connection_send(connection.get(), large.get(), nullptr);
    EXPECT_NE(dbus_connection_has_messages_to_send(connection.get()), 0);
    kill(bus.pid(), SIGCONT);
    bus_flush(connection.get());
    EXPECT_EQ(dbus_connection_has_messages_to_send(connection.get()), 0);
    EXPECT_LE(queued_signals(), 64 * 1024 / 1000);
}

// In libdbus they take four times their size.
TEST_F(OwnConnectionTest, SmallMessagesTakeLittleMemory) {
    constexpr std::size_t count = 10000;
    for (std::size_t i = 0; i < count; ++i) {
        client.send(signal());
    }
    ASSERT_NE(client.ask_bus("GetNameOwner", DBUS_SERVICE_DBUS), nullptr) << "the bus has it all";
    const std::size_t before = heap_in_use();
    read_all_accepted();
    EXPECT_LT(heap_in_use() - before, 512U * 1024);
    expect_read_in_parts(count, count);
}

TEST_F(OwnConnectionTest, AMessageAboveTheBoundIsReadAlone) {
    send_text(3000000);
    send_text(3000000);
    expect_read_in_parts(2, 1);
}

TEST_F(OwnConnectionTest, DescriptorsAreReadOneMessageAtATime) {
    constexpr int count = 16; // the most that a bus accepts with one message
    for (int i = 0; i < 3; ++i) {
        const BusMessage message = signal();
        for (int passed = 0; passed < count; ++passed) {
            const int descriptor = STDIN_FILENO;
            dbus_message_append_args(message.get(), DBUS_TYPE_UNIX_FD, &descriptor, DBUS_TYPE_INVALID);
        }
        client.send(message);
    }
    expect_read_in_parts(3, 1);
}

bool is_listed(BusClient &client) {
    const BusMessage reply = client.call(method_call(PATH, ISSUES, "GetListing"));
    return reply && dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_METHOD_RETURN;
}

/// The passes announced by the next `count` NewIssues signals. Each pass also announces the other issues as cleared:
/// once that signal arrives, the sender is done with the first, which it would resend if the bus were lost during the
/// send.
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
    /// Both threads are running: the tests lose an established bus.
    BusLossTest() {
        IssueWatcher client(bus);
        client.wait_for_owner(SERVICE_NAME);
        pass(1);
        EXPECT_EQ(announced(client, 1), std::vector<std::uint32_t>{1});
        EXPECT_TRUE(daemon.traced("wait for request"));
    }

    /// One pass with this number, which announces CB05.
    void pass(int number) {
        daemon.obey("update 5 1");
        daemon.obey("send " + std::to_string(number));
    }

    void lose_the_bus() {
        bus.stop();
        EXPECT_TRUE(daemon.traced("the bus is gone"));
    }

    PrivateBus bus;
    BusDaemon daemon{bus, Traces::to_stderr};
};

TEST_F(BusLossTest, RestoresNameCallsAndQueuedSignalsInOrder) {
    lose_the_bus();
    for (int number = 2; number <= 6; ++number) {
        pass(number);
    }
    bus.start();
    BusClient client(bus);
    client.watch(std::string("type='signal',sender='") + SERVICE_NAME + "',interface='com.corvana.State2.Issues'");
    EXPECT_NE(client.wait_for_owner(SERVICE_NAME), "");
    EXPECT_EQ(announced(client, 5), (std::vector<std::uint32_t>{2, 3, 4, 5, 6}));
    EXPECT_TRUE(is_listed(client));
    pass(7);
    EXPECT_EQ(announced(client, 1), std::vector<std::uint32_t>{7});
}

TEST_F(BusLossTest, ASignalInFlightIsSentAgain) {
    daemon.obey("lose-bus " + std::to_string(bus.pid()));
    pass(2);
    EXPECT_TRUE(daemon.traced("the bus is gone"));
    pass(3);
    bus.stop();
    bus.start();
    IssueWatcher client(bus);
    EXPECT_EQ(announced(client, 2), (std::vector<std::uint32_t>{2, 3}));
}

TEST_F(BusLossTest, IsReportedOnceAndDoesNotSpin) {
    lose_the_bus();
    const std::size_t waits = daemon.count_traces("wait for request");
    pass(1);
    bus.start();
    ASSERT_TRUE(daemon.traced("the bus is back"));
    EXPECT_EQ(daemon.count_traces("the bus is gone"), 1U);
    EXPECT_LE(daemon.count_traces("wait for request"), waits + 20); // a spin makes thousands
    EXPECT_LE(daemon.count_traces("check request"), 20U);
}

TEST_F(BusLossTest, MayHappenRepeatedly) {
    const std::size_t descriptors = descriptors_but_pipes_of(daemon.process().pid());
    for (std::uint32_t round = 1; round <= 3; ++round) {
        bus.stop();
        pass(static_cast<int>(round)); // the sender may notice the loss before the listener
        bus.start();
        IssueWatcher client(bus);
        EXPECT_EQ(announced(client, 1), std::vector<std::uint32_t>{round});
        client.wait_for_owner(SERVICE_NAME);
        EXPECT_TRUE(is_listed(client));
    }
    EXPECT_EQ(descriptors_but_pipes_of(daemon.process().pid()), descriptors);
}

TEST_F(BusLossTest, WhileAClientFloods) {
    {
        BusClient client(bus);
        for (int i = 0; i < 5000; ++i) {
            client.send(method_call(PATH, ISSUES, "GetListing"));
        }
        dbus_connection_flush(client.connection());
        bus.stop();
    }
    bus.start();
    BusClient client(bus);
    EXPECT_NE(client.wait_for_owner(SERVICE_NAME), "");
    EXPECT_TRUE(is_listed(client));
}

// The library reads no more than its limit. Then it does not see that the bus has closed the connection.
TEST_F(BusLossTest, BeforeTheReplyToTheFirstOfManyLargeCalls) {
    daemon.obey("lose-bus " + std::to_string(bus.pid()));
    kill(daemon.process().pid(), SIGSTOP);
    {
        BusClient client(bus);
        const std::string text(8192, 'x');
        const char *const argument = text.c_str();
        for (int i = 0; i < 100; ++i) {
            const BusMessage call = method_call(PATH, ISSUES, "GetListing");
            dbus_message_append_args(call.get(), DBUS_TYPE_STRING, static_cast<const void *>(&argument),
                                     DBUS_TYPE_INVALID);
            client.send(call);
        }
        client.call(
            BusMessage(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, "GetId")));
        kill(daemon.process().pid(), SIGCONT);
        EXPECT_TRUE(daemon.traced("the bus is gone"));
        bus.stop();
    }
    bus.start();
    BusClient client(bus);
    EXPECT_NE(client.wait_for_owner(SERVICE_NAME), "");
    EXPECT_TRUE(is_listed(client));
}

TEST_F(BusLossTest, AStoppedBusBlocksNobody) {
    IssueWatcher client(bus);
    kill(bus.pid(), SIGSTOP);
    std::vector<std::uint32_t> passes;
    for (std::uint32_t number = 2; number <= 1000; ++number) { // more than the socket holds
        pass(static_cast<int>(number));
        passes.push_back(number);
    }
    kill(bus.pid(), SIGCONT);
    EXPECT_EQ(announced(client, static_cast<int>(passes.size())), passes);
    EXPECT_TRUE(is_listed(client));
    EXPECT_EQ(daemon.count_traces("the bus is gone"), 0U);
}

TEST_F(BusLossTest, ANameThatIsGrantedTooLateIsRequestedAgain) {
    lose_the_bus();
    daemon.obey("miss-answer");
    bus.start();
    ASSERT_TRUE(daemon.traced("the bus is back"));
    IssueWatcher client(bus);
    EXPECT_NE(client.wait_for_owner(SERVICE_NAME), "");
    EXPECT_TRUE(is_listed(client));
    pass(2);
    EXPECT_EQ(announced(client, 1), std::vector<std::uint32_t>{2});
}

TEST_F(BusLossTest, ExitDoesNotWaitForTheBus) {
    lose_the_bus();
    daemon.tell("exit");
    EXPECT_EQ(daemon.process().wait(), 1);
}

/// The daemon's next pause, from line `line` of its stderr; 0 if none comes.
unsigned next_pause(BusDaemon &daemon, std::size_t &line) {
    const std::string word = "pause ";
    const auto found = daemon.process().errors().wait_for(word, line);
    line = found.value_or(line) + 1;
    return found ? static_cast<unsigned>(std::stoul(daemon.process().errors().line(*found).substr(word.size()))) : 0;
}

/// A daemon back on a bus where somebody else owns its name.
class NamelessTest : public testing::Test {
  protected:
    NamelessTest() {
        std::size_t line = 0;
        EXPECT_TRUE(daemon.traced("wait for request"));
        bus.stop();
        EXPECT_EQ(next_pause(daemon, line), 1U);
        bus.start();
        owner.emplace(bus);
        EXPECT_EQ(number_of(owner->ask_bus("RequestName", SERVICE_NAME, 0)), 1U);
        owner->watch("type='signal',interface='com.corvana.State2.Issues'");
        daemon.obey("go");
    }
    /// One pass with this number, which announces CB05.
    void pass(int number) {
        daemon.obey("update 5 1");
        daemon.obey("send " + std::to_string(number));
    }

    PrivateBus bus;
    BusDaemon daemon{bus, Traces::to_stderr, "held-pauses"};
    std::optional<BusClient> owner;
};

TEST_F(NamelessTest, StillSendsAndRequestsTheNameAgain) {
    pass(1);
    EXPECT_EQ(announced(*owner, 1), std::vector<std::uint32_t>{1});
    pass(2);
    EXPECT_EQ(announced(*owner, 1), std::vector<std::uint32_t>{2});
    EXPECT_EQ(daemon.count_traces("the bus is back"), 0U);
    ASSERT_EQ(number_of(owner->ask_bus("ReleaseName", SERVICE_NAME)), 1U);
    EXPECT_EQ(dbus_message_get_type(owner->ask_bus("GetNameOwner", SERVICE_NAME).get()), DBUS_MESSAGE_TYPE_ERROR)
        << "the daemon is not in the queue";
    EXPECT_NE(owner->wait_for_owner(SERVICE_NAME), "");
    EXPECT_TRUE(is_listed(*owner));
    EXPECT_EQ(daemon.count_traces("the bus is gone"), 1U);
}

TEST_F(NamelessTest, RecoversFromAnotherLoss) {
    pass(1);
    EXPECT_EQ(announced(*owner, 1), std::vector<std::uint32_t>{1});
    owner.reset();
    bus.stop();
    pass(2);
    bus.start();
    IssueWatcher client(bus);
    daemon.obey("go"); // ends the pause in which the bus was lost
    EXPECT_EQ(announced(client, 1), std::vector<std::uint32_t>{2});
    EXPECT_NE(client.wait_for_owner(SERVICE_NAME), "");
    EXPECT_TRUE(is_listed(client));
}

// Otherwise the bus would have to queue it.
TEST_F(NamelessTest, DropsWhatIsSentToIt) {
    pass(1);
    const BusMessage announced = owner->wait_for_signal("NewIssues");
    ASSERT_NE(announced, nullptr);
    const std::string text(1U << 20U, 'x');
    const char *const first = text.c_str();
    for (int i = 0; i < 8; ++i) {
        const BusMessage signal(dbus_message_new_signal("/", "a.b", "C"));
        dbus_message_set_destination(signal.get(), dbus_message_get_sender(announced.get()));
        dbus_message_append_args(signal.get(), DBUS_TYPE_STRING, static_cast<const void *>(&first), DBUS_TYPE_INVALID);
        owner->send(signal);
        dbus_connection_flush(owner->connection());
    }
    ASSERT_EQ(number_of(owner->ask_bus("ReleaseName", SERVICE_NAME)), 1U);
    EXPECT_NE(owner->wait_for_owner(SERVICE_NAME), "");
    EXPECT_TRUE(is_listed(*owner));
}

TEST(BusLossLongTest, EverythingRecoversInOrderAfterMinutes) {
    PrivateBus bus;
    BusDaemon daemon(bus, Traces::to_stderr, "held-pauses");
    ASSERT_TRUE(daemon.traced("wait for request"));
    bus.stop();
    std::vector<std::uint32_t> passes;
    std::size_t line = 0;
    for (const unsigned seconds : {1U, 2U, 4U, 8U, 16U, 32U, 60U, 60U, 60U}) {
        if (!passes.empty()) {
            daemon.obey("go"); // ends a pause; there is still no bus
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

// One of the threads connects much later than the other.

TEST(LateThreadTest, ASenderThatFindsTheBusLostContinuesWithTheListener) {
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

TEST(LateThreadTest, ASenderThatWasTooEarlyContinuesWithTheListener) {
    PrivateBus bus;
    bus.stop();
    BusDaemon daemon(bus, Traces::to_stderr, "hold=listener");
    ASSERT_TRUE(daemon.find_trace("d_bus_srv_msg_sender", " dbus_bus_get() failed"));
    daemon.obey("update 5 1");
    daemon.obey("send 2");
    bus.start();
    IssueWatcher client(bus);
    daemon.obey("go");
    EXPECT_EQ(announced(client, 1), std::vector<std::uint32_t>{2}); // queued before the service started
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

TEST(BusLossAloneTest, ASenderWhoseListenerHasEndedReconnectsByItself) {
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
