// The service as its clients see it: the real threads, a real bus.

#include "dbus-srv.h"

#include "bus_daemon.h"
#include "captured_traces.h"
#include "dbus-srv/issues.h"
#include "message_bytes.h"
#include "other_process.h"
#include "private_bus.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <pthread.h>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;

constexpr const char *PATH = "/com/corvana/Monitoring1";
constexpr const char *ISSUES = "com.corvana.State2.Issues";
constexpr const char *INTROSPECTABLE = "org.freedesktop.DBus.Introspectable";
constexpr const char *NETWORK = "com.corvana.Config1.Network";
constexpr std::int64_t LONG_AGO = 1; // a pass that began then announces every later change

/// How many threads may still be created; negative: any number. None is really created.
int threads_left = -1;
std::vector<sigset_t> masks_at_creation;
std::vector<std::int64_t> dates_at_creation; ///< the first issue's date at each creation

} // namespace

extern "C" int __wrap_pthread_create(pthread_t * /*thread*/, const pthread_attr_t *attributes,
                                     void *(* /*start*/)(void *), void *argument) {
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    masks_at_creation.push_back(mask);
    dates_at_creation.push_back(issue_registry[0].changed);
    EXPECT_EQ(attributes, nullptr);
    EXPECT_EQ(argument, nullptr);
    return threads_left-- == 0 ? EAGAIN : 0;
}

namespace {

TEST(BusInitTest, ThreadsAreCreatedWithAllSignalsOfTheDaemonBlocked) {
    sigset_t before;
    sigset_t after;
    pthread_sigmask(SIG_BLOCK, nullptr, &before);
    EXPECT_EQ(d_bus_srv_init(), 0);
    pthread_sigmask(SIG_BLOCK, nullptr, &after);
    ASSERT_EQ(masks_at_creation.size(), 2U);
    for (const sigset_t &mask : masks_at_creation) {
        for (const int signo : {SIGALRM, SIGCHLD, SIGUSR1, SIGTERM, SIGQUIT, SIGHUP, SIGINT}) {
            EXPECT_EQ(sigismember(&mask, signo), 1) << signo;
        }
    }
    for (int signo = 1; signo < 32; ++signo) {
        EXPECT_EQ(sigismember(&before, signo), sigismember(&after, signo)) << signo;
    }
}

TEST(BusInitTest, ThreadsAreCreatedAfterTheIssuesAreDated) {
    constexpr std::int64_t undated = -1;
    for (Issue &issue : issue_registry) {
        issue.changed = undated;
    }
    dates_at_creation.clear();
    EXPECT_EQ(d_bus_srv_init(), 0);
    EXPECT_THAT(dates_at_creation, ElementsAre(testing::Gt(undated), testing::Gt(undated)));
}

TEST(BusInitTest, EitherFailedThreadIsTracedAsTheListener) {
    for (const int created : {0, 1}) {
        const CapturedTraces traces;
        threads_left = created;
        EXPECT_EQ(d_bus_srv_init(), -1);
        EXPECT_THAT(traces.texts_of("d_bus_srv_init"), ElementsAre(" ", "unable to create D-Bus listener"));
        EXPECT_EQ(traces.all().front().priority, 6);
        EXPECT_EQ(traces.all().back().code_file, "CODE_FILE=dbus-srv.c");
    }
    threads_left = -1;
}

BusMessage listing_call() { return method_call(PATH, ISSUES, "GetListing"); }

BusMessage switch_call(const char *word, dbus_bool_t enable) {
    BusMessage call = method_call("/any/path", NETWORK, "ChangeInterfaceAvailability");
    dbus_message_append_args(call.get(), DBUS_TYPE_STRING, static_cast<const void *>(&word), DBUS_TYPE_BOOLEAN, &enable,
                             DBUS_TYPE_INVALID);
    return call;
}

bool is_return(const BusMessage &message) {
    return message && dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_METHOD_RETURN;
}

class BusServiceTest : public testing::Test {
  protected:
    BusServiceTest() { owner = client.wait_for_owner(SERVICE_NAME); }

    PrivateBus bus;
    BusClient client{bus};
    BusDaemon daemon{bus};
    std::string owner;
};

TEST_F(BusServiceTest, ACallRightAfterTheStartIsAnswered) {
    const BusMessage reply = client.call(listing_call());
    ASSERT_TRUE(is_return(reply));
    EXPECT_STREQ(dbus_message_get_signature(reply.get()), "");
    EXPECT_EQ(dbus_message_get_sender(reply.get()), owner);
}

TEST_F(BusServiceTest, RaisedIssuesAreListedInRowOrder) {
    const auto before = static_cast<std::uint32_t>(std::time(nullptr));
    daemon.obey("update 99 1");
    daemon.obey("update 3 -2");
    const auto after = static_cast<std::uint32_t>(std::time(nullptr));
    const BusMessage reply = client.call(listing_call());
    ASSERT_TRUE(is_return(reply));
    const std::string body = body_bytes(reply.get());
    bool found = false;
    for (std::uint32_t first = before; first <= after; ++first) {
        for (std::uint32_t second = before; second <= after; ++second) {
            const std::string padding(3, '\0');
            found = found || body == wire(29) + wire(0) + wire(second) + wire(std::string("CB03")) + padding +
                                         wire(first) + wire(std::string("CBnn"));
        }
    }
    EXPECT_TRUE(found);
}

TEST_F(BusServiceTest, InterfaceAndPathOfACallAreIgnored) {
    EXPECT_TRUE(is_return(client.call(method_call("/some/where", ISSUES, "GetListing"))));
    EXPECT_TRUE(is_return(client.call(method_call(PATH, nullptr, "GetListing"))));
    EXPECT_EQ(text_of(client.call(method_call("/", nullptr, "Introspect"))), "<node>\n</node>\n");
    EXPECT_TRUE(text_of(client.call(method_call(PATH, INTROSPECTABLE, "Introspect"))).ends_with("</node>\n"));
}

TEST_F(BusServiceTest, SwitchesAndMalformedCallsAreAnswered) {
    EXPECT_EQ(text_of(client.call(switch_call("Cell", FALSE))), "failed");
    EXPECT_EQ(text_of(client.call(switch_call("Bluetooth", TRUE))), "accepted");
    EXPECT_EQ(text_of(client.call(method_call(PATH, NETWORK, "ChangeInterfaceAvailability"))), "failed");
    const std::string oversized(1000000, 'x');
    EXPECT_EQ(text_of(client.call(switch_call(oversized.c_str(), TRUE))), "accepted");
}

/// Calls are answered in order: a call without a reply before that of a later call gets none.
void expect_no_answer(BusClient &client, const std::vector<dbus_uint32_t> &serials) {
    const dbus_uint32_t last = client.send(listing_call());
    const BusMessage first_answer = client.wait_for([&](DBusMessage *message) {
        const dbus_uint32_t serial = dbus_message_get_reply_serial(message);
        return serial == last || std::count(serials.begin(), serials.end(), serial) != 0;
    });
    ASSERT_NE(first_answer, nullptr);
    EXPECT_EQ(dbus_message_get_reply_serial(first_answer.get()), last);
}

TEST_F(BusServiceTest, CallsThatWantNoReplyGetNone) {
    const BusMessage calls[]{listing_call(), method_call("/", INTROSPECTABLE, "Introspect"), switch_call("LAN", TRUE)};
    std::vector<dbus_uint32_t> serials;
    for (const BusMessage &call : calls) {
        dbus_message_set_no_reply(call.get(), TRUE);
        serials.push_back(client.send(call));
    }
    expect_no_answer(client, serials);
}

TEST_F(BusServiceTest, UnknownCallsGetNoReply) {
    std::vector<dbus_uint32_t> unanswered;
    for (const auto &[interface, member] : std::vector<std::pair<const char *, const char *>>{
             {ISSUES, "NoSuchMethod"}, {"no.such.interface", "GetListing"}, {DBUS_INTERFACE_PEER, "Ping"}}) {
        unanswered.push_back(client.send(method_call(PATH, interface, member)));
    }
    expect_no_answer(client, unanswered);
}

TEST_F(BusServiceTest, SignalsComeFromTheOwnerOfTheNameNewBeforeCleared) {
    client.watch(std::string("type='signal',sender='") + SERVICE_NAME + "'");
    daemon.obey("update 5 1");
    daemon.obey("send " + std::to_string(LONG_AGO)); // announces CB05 as new and the others as cleared
    const auto is_issue_signal = [](DBusMessage *message) {
        return dbus_message_get_interface(message) != nullptr &&
               std::string(dbus_message_get_interface(message)) == ISSUES;
    };
    const BusMessage first = client.wait_for(is_issue_signal);
    const BusMessage second = client.wait_for(is_issue_signal);
    ASSERT_TRUE(first && second);
    EXPECT_STREQ(dbus_message_get_member(first.get()), "NewIssues");
    EXPECT_STREQ(dbus_message_get_member(second.get()), "ClearedIssues");
    EXPECT_EQ(dbus_message_get_sender(first.get()), owner);
    EXPECT_STREQ(dbus_message_get_path(first.get()), PATH);
    EXPECT_EQ(body_bytes(first.get()), wire(1) + wire(9) + wire(std::string("CB05")));
}

TEST_F(BusServiceTest, AHundredCallsTogetherAreAnsweredWhileSignalsAreSent) {
    client.watch("type='signal',member='NewIssues'");
    daemon.tell("flood 200");
    std::vector<dbus_uint32_t> serials;
    serials.reserve(100);
    for (int i = 0; i < 100; ++i) {
        serials.push_back(client.send(listing_call()));
    }
    for (const dbus_uint32_t serial : serials) {
        ASSERT_TRUE(is_return(client.wait_for(
            [serial](DBusMessage *message) { return dbus_message_get_reply_serial(message) == serial; })));
    }
    for (int signal = 0; signal < 100; ++signal) { // every second pass raises
        ASSERT_NE(client.wait_for_signal("NewIssues"), nullptr);
    }
}

TEST_F(BusServiceTest, NoCallIsLostToASenderThatReadsItIn) {
    daemon.tell("flood 20000"); // also changes the registry that the calls read and write
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(is_return(client.call(i % 2 == 0 ? listing_call() : switch_call("WiFi", i % 4 == 1)))) << i;
    }
}

TEST_F(BusServiceTest, TenThousandCallsLeaveDescriptorsAndMemoryAsTheyWere) {
    const auto call_all = [this](int rounds) {
        for (int i = 0; i < rounds; ++i) {
            ASSERT_TRUE(is_return(client.call(listing_call())));
            ASSERT_TRUE(is_return(client.call(method_call("/", INTROSPECTABLE, "Introspect"))));
            ASSERT_TRUE(is_return(client.call(switch_call("LAN", TRUE))));
            ASSERT_TRUE(is_return(client.call(method_call(PATH, NETWORK, "ChangeInterfaceAvailability"))));
        }
    };
    daemon.obey("update 5 1");
    call_all(100);
    const pid_t pid = daemon.process().pid();
    const std::size_t descriptors = descriptors_of(pid);
    [[maybe_unused]] const long memory = memory_of(pid);
    call_all(2500);
    EXPECT_EQ(descriptors_of(pid), descriptors);
#ifndef SANITIZED                           // sanitizers keep freed memory
    EXPECT_LT(memory_of(pid) - memory, 64); // pages; one leaked reply a call were thousands
#endif
}

TEST_F(BusServiceTest, DescriptorsThatAClientPassesAreClosed) {
    const std::size_t descriptors = descriptors_of(daemon.process().pid());
    for (int i = 0; i < 50; ++i) {
        const BusMessage call = listing_call();
        const int passed = STDIN_FILENO;
        ASSERT_NE(dbus_message_append_args(call.get(), DBUS_TYPE_UNIX_FD, &passed, DBUS_TYPE_INVALID), 0U);
        ASSERT_TRUE(is_return(client.call(call)));
    }
    ASSERT_TRUE(is_return(client.call(listing_call()))); // the previous message has been released by now
    EXPECT_EQ(descriptors_of(daemon.process().pid()), descriptors);
}

// A system bus accepts 16 per message by default.
TEST_F(BusServiceTest, NoNumberOfDescriptorsCostsTheConnection) {
    constexpr int most = 253; // the kernel's limit
    dbus_connection_set_max_message_unix_fds(client.connection(), most);
    const BusMessage call = listing_call();
    for (int i = 0; i < most; ++i) {
        const int passed = STDIN_FILENO;
        ASSERT_NE(dbus_message_append_args(call.get(), DBUS_TYPE_UNIX_FD, &passed, DBUS_TYPE_INVALID), 0U);
    }
    ASSERT_TRUE(is_return(client.call(call)));
    EXPECT_EQ(text_of(client.ask_bus("GetNameOwner", SERVICE_NAME)), owner);
}

// Close to the limit of a system bus: 32 MiB.
TEST_F(BusServiceTest, LargeMessagesAreAnsweredAndLeaveNoMemoryBehind) {
    ASSERT_TRUE(is_return(client.call(listing_call())));
    [[maybe_unused]] const long memory = memory_of(daemon.process().pid());
    const std::string oversized(31U << 20U, 'x');
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(text_of(client.call(switch_call(oversized.c_str(), TRUE))), "accepted");
    }
    ASSERT_TRUE(is_return(client.call(listing_call()))); // the previous message has been released by now
    EXPECT_EQ(text_of(client.ask_bus("GetNameOwner", SERVICE_NAME)), owner);
#ifndef SANITIZED                                               // sanitizers keep freed memory
    EXPECT_LT(memory_of(daemon.process().pid()) - memory, 256); // pages; each message has 8,000
#endif
}

TEST_F(BusServiceTest, NobodyCanTakeOverTheName) {
    EXPECT_EQ(number_of(client.ask_bus("RequestName", SERVICE_NAME, DBUS_NAME_FLAG_REPLACE_EXISTING)),
              static_cast<dbus_uint32_t>(DBUS_REQUEST_NAME_REPLY_IN_QUEUE));
    EXPECT_EQ(text_of(client.ask_bus("GetNameOwner", SERVICE_NAME)), owner);
}

/// The daemon's signals as bits of a mask in /proc.
constexpr std::uint64_t bit_of(int signo) { return std::uint64_t{1} << static_cast<unsigned>(signo - 1); }

TEST_F(BusServiceTest, BusThreadsSeeNoneOfTheSignals) {
    ASSERT_TRUE(is_return(client.call(listing_call())));
    const std::string tasks = "/proc/" + std::to_string(daemon.process().pid()) + "/task";
    int holding = 0;
    for (const auto &task : std::filesystem::directory_iterator(tasks)) {
        const std::string status = read_file(task.path() / "status");
        const std::string mask = status.substr(status.find("SigBlk:") + 7, 17);
        std::uint64_t missing = 0;
        for (const int signo : {SIGALRM, SIGCHLD, SIGUSR1, SIGTERM, SIGQUIT, SIGHUP, SIGINT}) {
            missing |= bit_of(signo) & ~std::stoull(mask, nullptr, 16);
        }
        holding += missing == 0 ? 1 : 0;
    }
    EXPECT_GE(holding, 2); // a sanitizer's own thread may block them too
}

TEST(BusStartTest, RequestsTheNameWithTheReplaceFlagOnly) {
    PrivateBus bus;
    BusClient monitor(bus);
    monitor.become_monitor();
    BusDaemon daemon(bus);
    const BusMessage request = monitor.wait_for([](DBusMessage *message) {
        return dbus_message_is_method_call(message, DBUS_INTERFACE_DBUS, "RequestName") != 0;
    });
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(body_bytes(request.get()), wire(19) + wire(std::string(SERVICE_NAME)).substr(4) + wire(2));
}

/// The texts of one thread's traces so far, in order.
std::vector<std::string> texts_of(BusDaemon &daemon, const std::string &thread) {
    const std::string place = "dbus-srv.c: " + thread + "(";
    std::vector<std::string> texts;
    for (const std::string &line : daemon.process().errors().lines()) {
        if (const std::size_t start = line.find(place); start != std::string::npos) {
            texts.push_back(line.substr(line.find(") ", start) + 2));
        }
    }
    return texts;
}

TEST(BusStartTest, TracesItsStart) {
    PrivateBus bus;
    BusClient client(bus);
    BusDaemon daemon(bus, Traces::to_stderr);
    ASSERT_TRUE(daemon.traced("wait for request"));
    ASSERT_TRUE(is_return(client.call(listing_call())));
    ASSERT_TRUE(daemon.traced("call method: GetListing"));
    std::vector<std::string> texts = texts_of(daemon, "d_bus_srv_main");
    const auto answered = std::find(texts.begin(), texts.end(), "call method: GetListing");
    texts.erase(answered == texts.end() ? answered : answered + 1, texts.end());
    // A wait without a message is followed by another.
    const auto repeated = std::unique(texts.begin(), texts.end());
    texts.erase(repeated, texts.end());
    // The bus sends the new owner two notices; there is one wait for each message.
    EXPECT_THAT(texts, ElementsAre(" ", "DBUS_GET", "DBUS_REQUEST", "WHILE",                              //
                                   "wait for request", "check request", "unknown request - type: signal", //
                                   "wait for request", "check request", "unknown request - type: signal", //
                                   "wait for request", "check request", "call method: GetListing"));
}

TEST(BusStartTest, TheSenderTracesWhatItSends) {
    PrivateBus bus;
    BusClient client(bus);
    BusDaemon daemon(bus, Traces::to_stderr);
    ASSERT_TRUE(daemon.traced("wait for request"));
    daemon.obey("update 5 1");
    daemon.obey("send " + std::to_string(LONG_AGO)); // both signals
    std::optional<std::size_t> line = daemon.find_trace("d_bus_srv_msg_sender", " DONE");
    for (int step = 0; step < 3; ++step) { // of the second
        ASSERT_TRUE(line.has_value());
        line = daemon.process().errors().wait_for(" d_bus_srv_msg_sender(", *line + 1);
    }
    EXPECT_THAT(texts_of(daemon, "d_bus_srv_msg_sender"),
                ElementsAre(" ", "DBUS_GET", "SEND", "FLUSH", "DONE", "SEND", "FLUSH", "DONE"));
    EXPECT_THAT(texts_of(daemon, "d_bus_srv_init_signals"), ElementsAre(" ", " ")); // one from each thread
}

TEST(BusStartTest, UnknownMessagesAreTracedWithTheirType) {
    PrivateBus bus;
    BusClient client(bus);
    BusDaemon daemon(bus, Traces::to_stderr);
    client.wait_for_owner(SERVICE_NAME);
    client.send(method_call(PATH, ISSUES, "NoSuchMethod"));
    ASSERT_TRUE(is_return(client.call(listing_call())));
    ASSERT_TRUE(daemon.traced("call method: GetListing"));
    EXPECT_THAT(texts_of(daemon, "d_bus_srv_main"), testing::Contains("unknown request - type: method_call"));
}

TEST(BusStartTest, ASecondInstanceEndsOnlyItsListener) {
    PrivateBus bus;
    BusClient client(bus);
    BusDaemon first(bus, Traces::to_stderr);
    ASSERT_TRUE(first.traced("wait for request"));
    BusDaemon second(bus, Traces::to_stderr);
    ASSERT_TRUE(second.traced("dbus_bus_request_name() failed"));
    EXPECT_TRUE(is_return(client.call(listing_call())));
    ASSERT_TRUE(first.traced("call method: GetListing"));
    client.watch("type='signal',member='NewIssues'");
    second.obey("update 5 1");
    second.obey("send " + std::to_string(LONG_AGO));
    EXPECT_NE(client.wait_for_signal("NewIssues"), nullptr);
}

/// How often the daemon waits for messages while it answers fifty calls; with nothing else to do, once per message.
void expect_waits_at_most(std::size_t others, const std::string &argument) {
    constexpr std::size_t calls = 50;
    constexpr std::size_t notices = 2; // that the bus sends the new owner
    PrivateBus bus;
    BusClient client(bus);
    BusDaemon daemon(bus, Traces::to_stderr, argument);
    ASSERT_TRUE(daemon.traced("wait for request"));
    std::size_t line = 0;
    for (std::size_t i = 0; i < calls; ++i) {
        ASSERT_TRUE(is_return(client.call(listing_call())));
        const auto traced = daemon.process().errors().wait_for("call method: GetListing", line);
        ASSERT_TRUE(traced.has_value());
        line = *traced + 1;
    }
    EXPECT_LE(daemon.count_traces("wait for request"), notices + calls + others);
}

TEST(BusStartTest, ACallIsOneWait) { expect_waits_at_most(1, ""); }

// It arrives in hundreds of parts.
TEST(BusStartTest, ALargeCallIsOneWaitToo) {
    PrivateBus bus;
    BusClient client(bus);
    BusDaemon daemon(bus, Traces::to_stderr);
    client.wait_for_owner(SERVICE_NAME);
    const std::string oversized(1000000, 'x');
    ASSERT_EQ(text_of(client.call(switch_call(oversized.c_str(), TRUE))), "accepted");
    ASSERT_TRUE(daemon.traced("call method: ChangeInterfaceAvailability"));
    EXPECT_LE(daemon.count_traces("wait for request"), 10U); // five if the bus's notices arrive one by one
}

TEST(BusStartTest, ANoteOfTheSenderIsConsumedOnce) { expect_waits_at_most(2, "noted-message"); }

TEST(BusStartTest, ACallThatTheSenderReadsIsServedAtOnce) {
    PrivateBus bus;
    BusClient client(bus);
    BusDaemon daemon(bus, Traces::none, "sender-reads");
    client.wait_for_owner(SERVICE_NAME);
    ASSERT_TRUE(is_return(client.call(listing_call()))) << "perhaps read before the first wait";
    EXPECT_TRUE(is_return(client.call(listing_call())));
    EXPECT_TRUE(daemon.process().errors().wait_for("read in").has_value());
}

/// What the daemon did with its messages, from its traces so far.
struct Fate {
    long served = 0;
    long changes = 0; ///< calls among those served that change the registry
    long dropped = 0;
};

Fate fate_of_messages(BusDaemon &daemon) {
    const std::string word = "flood: ";
    Fate fate;
    for (const std::string &line : daemon.process().errors().lines()) {
        fate.served += line.ends_with("check request") ? 1 : 0;
        fate.changes += line.ends_with("call method: ChangeInterfaceAvailability") ? 1 : 0;
        if (const std::size_t at = line.find(word); at != std::string::npos) {
            fate.dropped += std::stol(line.substr(at + word.size()));
        }
    }
    return fate;
}

TEST(BusFloodTest, NonCallsBeyondAThousandASecondAreDroppedAndCounted) {
    constexpr long flood = 20000;
    constexpr long changes = flood / 10;
    PrivateBus bus;
    BusClient client(bus);
    BusDaemon daemon(bus, Traces::to_stderr);
    const std::string owner = client.wait_for_owner(SERVICE_NAME);
    const BusMessage calls[]{listing_call(), method_call("/", INTROSPECTABLE, "Introspect"),
                             method_call("/", ISSUES, "Unknown"), BusMessage(dbus_message_new_signal("/", "a.b", "C"))};
    dbus_message_set_destination(calls[3].get(), owner.c_str());
    const BusMessage change = switch_call("LAN", TRUE); // a call, which is not dropped
    dbus_message_set_no_reply(change.get(), TRUE);
    for (long i = 0; i < flood; ++i) {
        dbus_message_set_no_reply(calls[i % 4].get(), TRUE);
        client.send(BusMessage(dbus_message_copy(calls[i % 4].get())));
        if (i % 10 == 0) {
            client.send(BusMessage(dbus_message_copy(change.get())));
        }
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    Fate fate;
    long others = changes;
    do { // the last number is reported a second later, with the next message
        ASSERT_TRUE(is_return(client.call(listing_call())));
        ++others;
        fate = fate_of_messages(daemon);
    } while (fate.served + fate.dropped - others < flood && std::chrono::steady_clock::now() < deadline);
    EXPECT_GT(fate.dropped, 0);
    EXPECT_GE(fate.served + fate.dropped - others, flood);
    EXPECT_LE(fate.served + fate.dropped - others, flood + 2) << "the bus's notices";
    EXPECT_EQ(fate.changes, changes);
}

TEST(BusStartTest, AConfiguredInterfaceRenamesTheSignalsAndNotTheMethods) {
    PrivateBus bus;
    BusClient client(bus);
    BusDaemon daemon(bus, Traces::none, "interface=some.other.Name");
    client.wait_for_owner(SERVICE_NAME);
    client.watch("type='signal',interface='some.other.Name'");
    daemon.obey("update 5 1");
    daemon.obey("send " + std::to_string(LONG_AGO));
    EXPECT_NE(client.wait_for_signal("NewIssues"), nullptr);
    const dbus_uint32_t renamed = client.send(method_call(PATH, "some.other.Name", "GetListing"));
    const dbus_uint32_t fixed = client.send(listing_call());
    const BusMessage first_answer = client.wait_for([&](DBusMessage *message) {
        const dbus_uint32_t serial = dbus_message_get_reply_serial(message);
        return serial == renamed || serial == fixed;
    });
    ASSERT_NE(first_answer, nullptr);
    EXPECT_EQ(dbus_message_get_reply_serial(first_answer.get()), fixed);
}

TEST(BusStartTest, ANameThatSomebodyKeepsEndsTheListenerAndIsNotQueuedFor) {
    PrivateBus bus;
    BusClient owner(bus);
    ASSERT_EQ(number_of(owner.ask_bus("RequestName", SERVICE_NAME, 0)), 1U);
    BusDaemon daemon(bus, Traces::to_stderr);
    ASSERT_TRUE(daemon.traced("dbus_bus_request_name() failed"));
    EXPECT_EQ(daemon.count_traces("Connection Error"), 0U);
    ASSERT_EQ(number_of(owner.ask_bus("ReleaseName", SERVICE_NAME)), 1U);
    EXPECT_EQ(dbus_message_get_type(owner.ask_bus("GetNameOwner", SERVICE_NAME).get()), DBUS_MESSAGE_TYPE_ERROR);

    owner.watch("type='signal',member='NewIssues'"); // the sender still works
    daemon.obey("update 5 1");
    daemon.obey("send " + std::to_string(LONG_AGO));
    EXPECT_NE(owner.wait_for_signal("NewIssues"), nullptr);
    daemon.tell("exit");
    EXPECT_EQ(daemon.process().wait(), 1);
}

TEST(BusStartTest, ANameThatIsGrantedTooLateIsReleasedAndRequestedAgain) {
    PrivateBus bus;
    BusClient monitor(bus);
    BusClient client(bus);
    monitor.become_monitor();
    client.watch("type='signal',member='NewIssues'");
    BusDaemon daemon(bus, Traces::to_stderr, "miss-answer");
    daemon.obey("update 5 1");
    daemon.obey("send 1");
    ASSERT_TRUE(daemon.traced("dbus_bus_request_name() failed"));
    EXPECT_TRUE(daemon.find_trace("d_bus_srv_main", " Connection Error (Not enough memory)"));
    for (const char *member : {"RequestName", "ReleaseName", "RequestName"}) {
        const BusMessage asked = monitor.wait_for([](DBusMessage *message) {
            return dbus_message_has_destination(message, DBUS_SERVICE_DBUS) != 0 &&
                   std::string(dbus_message_get_member(message)).ends_with("Name");
        });
        ASSERT_NE(asked, nullptr);
        EXPECT_STREQ(dbus_message_get_member(asked.get()), member);
    }
    EXPECT_TRUE(daemon.traced("WHILE"));
    EXPECT_NE(client.wait_for_signal("NewIssues"), nullptr) << "queued earlier";
    EXPECT_NE(client.wait_for_owner(SERVICE_NAME), "");
    EXPECT_TRUE(is_return(client.call(listing_call())));
    EXPECT_EQ(daemon.count_traces("has ended"), 0U);
}

TEST(BusStartTest, ANameThatTheBusRefusesEndsTheListener) {
    const PrivateBus bus;
    BusDaemon daemon(bus, Traces::to_stderr, "name=no name");
    const std::optional<std::size_t> failure = daemon.find_trace("d_bus_srv_main", " dbus_bus_request_name() failed");
    const std::optional<std::size_t> reason = daemon.find_trace("d_bus_srv_main", " Connection Error (");
    ASSERT_TRUE(failure && reason);
    EXPECT_TRUE(daemon.process().errors().line(*failure).starts_with("(2) "));
    EXPECT_TRUE(daemon.process().errors().line(*reason).starts_with("(3) "));
    EXPECT_TRUE(daemon.traced("the listener has ended with -1"));
}

TEST(BusStartTest, ANameThatMayBeReplacedIsTaken) {
    PrivateBus bus;
    BusClient owner(bus);
    ASSERT_EQ(number_of(owner.ask_bus("RequestName", SERVICE_NAME, DBUS_NAME_FLAG_ALLOW_REPLACEMENT)), 1U);
    owner.watch("type='signal',member='NameOwnerChanged',arg0='" + std::string(SERVICE_NAME) + "'");
    BusDaemon daemon(bus);
    ASSERT_NE(owner.wait_for_signal("NameOwnerChanged"), nullptr);
    EXPECT_TRUE(is_return(owner.call(listing_call())));
}

TEST(BusStartTest, WithoutABusBothThreadsEndAndTheDaemonContinues) {
    PrivateBus bus;
    bus.remove();
    BusDaemon daemon(bus, Traces::to_stderr);
    LineReader &traces = daemon.process().errors();
    for (const char *thread : {"d_bus_srv_main", "d_bus_srv_msg_sender"}) {
        const std::optional<std::size_t> failure = daemon.find_trace(thread, " dbus_bus_get() failed");
        ASSERT_TRUE(failure.has_value()) << thread;
        EXPECT_TRUE(traces.lines()[*failure].starts_with("(2) ")) << thread;
        const std::optional<std::size_t> line = daemon.find_trace(thread, " Connection Error (");
        ASSERT_TRUE(line && traces.wait_for("", *line + 1)) << thread;
        EXPECT_TRUE(traces.lines()[*line].starts_with("(3) ")) << thread;
        EXPECT_EQ(traces.lines()[*line + 1], "") << thread; // the text ends with its own line feed
    }
    EXPECT_TRUE(daemon.traced("the sender has ended with -1"));
    for (int pass = 0; pass < 100; ++pass) {
        ASSERT_TRUE(daemon.obey("update 5 " + std::to_string(pass % 2)));
        ASSERT_TRUE(daemon.obey("send " + std::to_string(LONG_AGO)));
    }
    daemon.tell("exit");
    EXPECT_EQ(daemon.process().wait(), 1);
}

TEST(BusStartTest, WithoutAnEventDescriptorItStillServes) {
    PrivateBus bus;
    BusClient client(bus);
    BusDaemon daemon(bus, Traces::to_stderr, "no-eventfd");
    ASSERT_TRUE(daemon.find_trace("d_bus_srv_main", " eventfd() failed"));
    client.wait_for_owner(SERVICE_NAME);
    EXPECT_TRUE(is_return(client.call(listing_call())));
}

TEST(BusStartTest, WithoutAnEventDescriptorNoCallIsLostToTheSenderEither) {
    PrivateBus bus;
    BusClient client(bus);
    BusDaemon daemon(bus, Traces::none, "no-eventfd");
    client.wait_for_owner(SERVICE_NAME);
    daemon.tell("flood 20000");
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(is_return(client.call(listing_call()))) << i;
    }
}

TEST(BusSendTest, AFailedSendLosesOnlyThatSignal) {
    PrivateBus bus;
    BusClient client(bus);
    BusDaemon daemon(bus, Traces::to_stderr);
    client.wait_for_owner(SERVICE_NAME);
    client.watch("type='signal',interface='com.corvana.State2.Issues'");
    ASSERT_TRUE(daemon.traced("wait for request"));
    daemon.obey("update 5 1");
    daemon.obey("fail-send");
    daemon.obey("send 2");
    const std::optional<std::size_t> failure =
        daemon.find_trace("d_bus_srv_msg_sender", "dbus_connection_send(\"msg\") failed");
    ASSERT_TRUE(failure.has_value());
    EXPECT_TRUE(daemon.process().errors().line(*failure).starts_with("(2) "));
    const auto expect_next = [&client](const std::string &member, std::uint32_t pass) {
        const BusMessage signal =
            client.wait_for([](DBusMessage *message) { return dbus_message_has_interface(message, ISSUES) != 0; });
        ASSERT_NE(signal, nullptr);
        EXPECT_EQ(dbus_message_get_member(signal.get()), member);
        EXPECT_EQ(body_bytes(signal.get()).substr(0, 4), wire(pass));
    };
    // That pass loses only NewIssues; its ClearedIssues is sent without waiting for the next pass.
    expect_next("ClearedIssues", 2);
    daemon.obey("send 3");
    expect_next("NewIssues", 3);
    expect_next("ClearedIssues", 3);
}

/// The name of the error that a call gets; empty for a return.
std::string refusal(BusClient &client, const BusMessage &call) {
    const BusMessage reply = client.call(call);
    const char *const name = reply ? dbus_message_get_error_name(reply.get()) : "no answer";
    return name == nullptr ? "" : name;
}

TEST(BusPolicyTest, NoCallMayCarryADescriptor) {
    PrivateBus bus(BusRules::system);
    BusClient client(bus);
    BusDaemon daemon(bus);
    client.wait_for_owner(SERVICE_NAME);
    EXPECT_EQ(refusal(client, listing_call()), "");
    EXPECT_EQ(refusal(client, method_call(PATH, INTROSPECTABLE, "Introspect")), "");
    const BusMessage calls[]{listing_call(), method_call(PATH, INTROSPECTABLE, "Introspect"), switch_call("LAN", TRUE)};
    for (const BusMessage &call : calls) {
        const int passed = STDIN_FILENO;
        dbus_message_append_args(call.get(), DBUS_TYPE_UNIX_FD, &passed, DBUS_TYPE_INVALID);
        EXPECT_EQ(refusal(client, call), DBUS_ERROR_ACCESS_DENIED) << dbus_message_get_member(call.get());
    }
}

TEST(BusExitTest, TheProcessEndsWithItsStatusWhateverTheThreadsDo) {
    PrivateBus bus;
    for (int run = 0; run < 50; ++run) {
        // On a busy machine the bus may not have noticed the end of the previous process yet.
        const std::string name = "com.corvana.run" + std::to_string(run);
        BusDaemon daemon(bus, Traces::none, "name=" + name);
        if (run % 3 == 1) { // while they wait
            BusClient client(bus);
            client.wait_for_owner(name);
        } else if (run % 3 == 2) { // while they send
            daemon.obey("flood 500");
        } // otherwise while they start
        daemon.tell("exit");
        ASSERT_EQ(daemon.process().wait(), 1) << "run " << run;
        EXPECT_EQ(daemon.process().errors().lines(), std::vector<std::string>{});
    }
}

} // namespace
