// The bus is missing, the name is taken, the bus is lost and returns; clients misbehave. The daemon keeps
// monitoring.

#include "bus_station.h"
#include "from_environment.h"
#include "other_process.h"
#include "status_log.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <optional>
#include <poll.h>
#include <sys/socket.h>

using testing::Contains;
using testing::SizeIs;

namespace {

// The function names in the threads' traces.
constexpr const char *LISTENER = "d_bus_srv_main";
constexpr const char *SENDER = "d_bus_srv_msg_sender";

class BusFault : public BusStation {
  protected:
    /// A client that receives the daemon's signals; waits for the daemon first.
    BusClient &new_client() {
        BusClient &made = client.emplace(bus);
        watch_issues(&made);
        return made;
    }
    void start_serving(const std::vector<std::string> &arguments = {"-D"}) {
        new_client();
        station.start(arguments);
        EXPECT_NE(client->wait_for_owner(SERVICE_NAME), "");
    }
    /// Without traces, so that nobody has to read them.
    void start_serving_silently() {
        silence();
        start_serving({});
    }
    void expect_served() {
        EXPECT_NE(client->wait_for_owner(SERVICE_NAME), "");
        EXPECT_TRUE(is_return(client->call(listing_call())));
    }
    /// Stops the bus and waits until the daemon has noticed.
    void lose_bus() {
        client.reset();
        bus.stop();
        station.await("the loss of the bus", [this] {
            return !station.trace().messages_with("the bus is gone, trying to come back").empty();
        });
    }
    /// Runs heartbeats and expects records from each.
    void expect_monitoring(int heartbeats) {
        for (int i = 0; i < heartbeats; ++i) {
            station.step();
            const std::vector<std::string> records = records_in(station.read(STATUS_LOG));
            for (const char *issue : {"CB20", "CB21", "CB23"}) {
                EXPECT_THAT(records, Contains(testing::MatchesRegex(stamp_of(station.clock()) + "\t[A-Z]+\t" + issue +
                                                                    "\t0\t[0-9]+")));
            }
        }
    }
    /// Runs heartbeats until the daemon has `count` threads; a thread traces its end before it ends.
    void expect_threads(std::size_t count) {
        for (int i = 0; i < 100 && threads_of(station.pid()) != count; ++i) {
            station.step();
        }
        EXPECT_EQ(threads_of(station.pid()), count);
    }

    /// One leaked reply per call would be a thousand pages for ten thousand calls; a burst needs a hundred.
    void expect_same_memory(long pages) {
        if (!is_sanitized()) { // a sanitizer keeps freed memory
            EXPECT_LT(memory_of(station.pid()) - pages, 256);
        }
    }

    std::optional<BusClient> client;
};

} // namespace

TEST_F(BusFault, WithoutABusAtTheStartBothThreadsEnd) {
    bus.remove();
    station.start();
    for (const char *thread : {LISTENER, SENDER}) {
        station.await(std::string("the failure of ") + thread, [this, thread] {
            const std::vector<std::string> texts = station.trace().messages_of(thread);
            return std::find(texts.begin(), texts.end(), "dbus_bus_get() failed") != texts.end();
        });
    }
    expect_threads(1);
    station.temperature(72000);
    expect_monitoring(10);
    bus.start(); // too late: after a start without a bus nobody connects again
    new_client();
    expect_monitoring(3);
    EXPECT_EQ(dbus_message_get_type(client->ask_bus("GetNameOwner", SERVICE_NAME).get()), DBUS_MESSAGE_TYPE_ERROR);
    EXPECT_EQ(station.stop(), 1);
}

TEST_F(BusFault, ANameThatIsTakenEndsTheListenerOnly) {
    new_client();
    ASSERT_EQ(number_of(client->ask_bus("RequestName", SERVICE_NAME, 0)), 1U);
    station.start();
    station.await("the failure of the listener",
                  [this] { return !station.trace().messages_with("dbus_bus_request_name() failed").empty(); });
    expect_threads(2);
    const std::int64_t raised = station.clock() + 50;
    station.temperature(72000);
    expect_monitoring(10);
    EXPECT_EQ(next_signal(&*client), new_issues(static_cast<std::uint32_t>(raised), {"CB20"}));
}

TEST_F(BusFault, ANameThatMayBeReplacedIsTaken) {
    new_client();
    ASSERT_EQ(number_of(client->ask_bus("RequestName", SERVICE_NAME, DBUS_NAME_FLAG_ALLOW_REPLACEMENT)), 1U);
    station.start();
    ASSERT_NE(client->wait_for_signal("NameLost"), nullptr);
    EXPECT_TRUE(is_return(client->call(listing_call())));
}

TEST_F(BusFault, ABusThatIsBackAfterASecondIsServedAgain) {
    start_serving();
    lose_bus();
    bus.start();
    new_client();
    expect_served();
    EXPECT_THAT(station.trace().messages_with("the bus is gone"), SizeIs(1));
    systemd.connect();
    load_services();
    station.temperature(72000);
    expect_monitoring(5);
    EXPECT_EQ(next_signal(&*client), new_issues(FIRST_PASS + 50, {"CB20"}));
    EXPECT_EQ(station.stop(), 1);
}

TEST_F(BusFault, SignalsPendingWithoutABusAreSentLaterInOrder) {
    start_serving();
    lose_bus();
    station.temperature(72000);
    expect_monitoring(10); // raised at 50
    station.temperature(42000);
    station.files().write(MEMORY_FILE, meminfo(1000, 200));
    expect_monitoring(10); // CB20 cleared and CB21 raised at 150
    bus.start();
    new_client();
    EXPECT_EQ(next_signal(&*client), new_issues(FIRST_PASS + 50, {"CB20"}));
    EXPECT_EQ(next_signal(&*client), new_issues(FIRST_PASS + 100, {"CB23"})) << "no service could be asked for";
    EXPECT_EQ(next_signal(&*client), new_issues(FIRST_PASS + 150, {"CB21"}));
    EXPECT_EQ(next_signal(&*client), cleared_issues(FIRST_PASS + 150, {"CB20"}));
    expect_served();
}

TEST_F(BusFault, ReconnectingLeaksNothing) {
    start_serving();
    std::vector<std::size_t> descriptors;
    std::vector<std::size_t> threads;
    for (int round = 0; round < 3; ++round) {
        station.forget();
        lose_bus();
        expect_monitoring(30); // five minutes on the station
        bus.start();
        new_client();
        expect_served();
        systemd.connect();
        load_services();
        expect_monitoring(10);
        descriptors.push_back(descriptors_of(station.pid()));
        threads.push_back(threads_of(station.pid()));
    }
    EXPECT_THAT(descriptors, testing::Each(descriptors.front()));
    EXPECT_THAT(threads, testing::Each(3));
    EXPECT_EQ(station.stop(), 1);
}

TEST_F(BusFault, ATerminationDoesNotWaitForTheBus) {
    start_serving();
    lose_bus();
    EXPECT_EQ(station.stop(), 1);
    EXPECT_THAT(station.read(STATUS_LOG), testing::HasSubstr("\tFINISHED\t"));
}

namespace {

/// Writes bytes directly to the bus's socket; the library reads nothing. False when the bus has closed the
/// connection.
bool write_raw(const BusClient &client, const std::string &bytes) {
    int socket = -1;
    dbus_connection_get_unix_fd(client.connection(), &socket);
    std::size_t written = 0;
    while (written < bytes.size()) {
        pollfd writable{.fd = socket, .events = POLLOUT, .revents = 0};
        poll(&writable, 1, -1);
        const ssize_t size = send(socket, bytes.data() + written, bytes.size() - written, MSG_NOSIGNAL);
        if (size < 0) {
            return false;
        }
        written += static_cast<std::size_t>(size);
    }
    return true;
}

/// `count` calls of GetListing in wire format.
std::string listing_calls(int count) {
    std::string bytes;
    const BusMessage call = listing_call();
    for (int i = 0; i < count; ++i) {
        constexpr dbus_uint32_t behind_those_of_the_library = 1000000;
        dbus_message_set_serial(call.get(), behind_those_of_the_library + static_cast<dbus_uint32_t>(i));
        char *marshalled = nullptr;
        int size = 0;
        EXPECT_NE(dbus_message_marshal(call.get(), &marshalled, &size), 0U);
        bytes.append(marshalled, static_cast<std::size_t>(size));
        dbus_free(marshalled);
    }
    return bytes;
}

} // namespace

TEST_F(BusFault, ABusThatDiesUnderAFloodOfCallsIsServedAgain) {
    start_serving_silently();
    ASSERT_TRUE(write_raw(*client, listing_calls(20000)));
    EXPECT_NE(client->wait_for([](DBusMessage *message) {
        return dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_RETURN;
    }),
              nullptr);
    client.reset();
    bus.stop();
    expect_monitoring(3);
    bus.start();
    new_client();
    expect_served();
    EXPECT_EQ(station.stop(), 1);
}

TEST_F(BusFault, AClientThatNeverReadsDoesNotAffectOthers) {
    start_serving_silently();
    expect_served();
    const std::size_t descriptors = descriptors_of(station.pid());
    const long memory = memory_of(station.pid());
    const BusClient mute(bus);
    for (int round = 0; round < 10; ++round) {
        ASSERT_TRUE(write_raw(mute, listing_calls(2000)));
        expect_served();
        expect_monitoring(1);
    }
    EXPECT_EQ(descriptors_of(station.pid()), descriptors);
    expect_same_memory(memory);
}

TEST_F(BusFault, InvalidBytesAreHandledByTheBus) {
    start_serving();
    const BusClient broken(bus);
    ASSERT_TRUE(write_raw(broken, std::string(4096, 'x')));
    int socket = -1;
    dbus_connection_get_unix_fd(broken.connection(), &socket);
    pollfd closed{.fd = socket, .events = 0, .revents = 0};
    EXPECT_EQ(poll(&closed, 1, 30000), 1) << "the bus does not close the connection";
    expect_served();
    expect_monitoring(1);
}

namespace {

enum class Argument { text, flag, number, long_text, container };

void append(DBusMessageIter *body, Argument argument) {
    static const std::string long_text(1000000, 'W');
    const dbus_uint32_t number = 1;
    const char *text = argument == Argument::long_text ? long_text.c_str() : "WiFi";
    DBusMessageIter inner{};
    switch (argument) {
    case Argument::text:
    case Argument::long_text:
        dbus_message_iter_append_basic(body, DBUS_TYPE_STRING, static_cast<const void *>(&text));
        break;
    case Argument::flag:
        dbus_message_iter_append_basic(body, DBUS_TYPE_BOOLEAN, &number);
        break;
    case Argument::number:
        dbus_message_iter_append_basic(body, DBUS_TYPE_UINT32, &number);
        break;
    case Argument::container:
        dbus_message_iter_open_container(body, DBUS_TYPE_VARIANT, "u", &inner);
        dbus_message_iter_append_basic(&inner, DBUS_TYPE_UINT32, &number);
        dbus_message_iter_close_container(body, &inner);
        break;
    }
}

BusMessage with(BusMessage call, const std::vector<Argument> &arguments) {
    DBusMessageIter body{};
    dbus_message_iter_init_append(call.get(), &body);
    for (const Argument argument : arguments) {
        append(&body, argument);
    }
    return call;
}

struct WrongCall {
    std::vector<Argument> arguments;
    std::string answer; ///< of ChangeInterfaceAvailability; the other methods ignore arguments
};

} // namespace

TEST_F(BusFault, CallsWithWrongArgumentsAreAnswered) {
    using enum Argument;
    start_serving_silently();
    const std::vector<WrongCall> calls{
        {{}, "failed"},
        {{text}, "failed"},
        {{flag}, "failed"},
        {{flag, text}, "failed"},
        {{text, number}, "failed"},
        {{number, flag}, "failed"},
        {{text, text}, "failed"},
        {{container, flag}, "failed"},
        {{text, container}, "failed"},
        {{long_text}, "failed"},
        {{long_text, flag}, "accepted"},             // no such name
        {{text, flag}, "failed"},                    // switched; the answer is kept
        {{text, flag, number, long_text}, "failed"}, // likewise; further arguments are ignored
        {{long_text, flag, container, text}, "accepted"},
    };
    for (const WrongCall &wrong : calls) {
        const auto called = [&](const char *interface, const char *member) {
            return client->call(with(method_call(OBJECT_PATH, interface, member), wrong.arguments));
        };
        EXPECT_EQ(text_of(called(NETWORK, "ChangeInterfaceAvailability")), wrong.answer);
        EXPECT_TRUE(is_return(called(ISSUES, "GetListing")));
        EXPECT_TRUE(text_of(called(INTROSPECTABLE, "Introspect")).ends_with("</node>\n"));
    }
    expect_monitoring(1);
}

TEST_F(BusFault, TenThousandCallsLeakNothing) {
    start_serving_silently();
    station.temperature(72000);
    expect_monitoring(5); // raises an issue to list
    const auto call_all = [this](int rounds) {
        for (int i = 0; i < rounds; ++i) {
            ASSERT_TRUE(is_return(client->call(listing_call())));
            ASSERT_TRUE(is_return(client->call(method_call(OBJECT_PATH, INTROSPECTABLE, "Introspect"))));
            ASSERT_TRUE(is_return(client->call(
                with(method_call("/", NETWORK, "ChangeInterfaceAvailability"), {Argument::text, Argument::flag}))));
            client->send(method_call(OBJECT_PATH, ISSUES, "NoSuchMethod"));
        }
    };
    call_all(100);
    const std::size_t descriptors = descriptors_of(station.pid());
    const long memory = memory_of(station.pid());
    call_all(2500);
    EXPECT_EQ(descriptors_of(station.pid()), descriptors);
    expect_same_memory(memory);
    expect_monitoring(1);
}
