#include "dbus-srv/methods.h"

#include "captured_traces.h"
#include "dbus-srv/bus_handle.h"
#include "dbus-srv/issues.h"
#include "gdata.h"
#include "message_bytes.h"

#include <array>
#include <cstdarg>
#include <cstdint>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

/// The reply that was sent, and the failures to inject.
BusMessage sent;
int flushes = 0;
bool return_fails = false;
bool append_fails = false;
bool send_fails = false;
int failing_opening = 0; ///< number of the container that cannot be opened, from 1
int failing_element = 0; ///< number of the element that cannot be appended, from 1

bool fails_now(int &countdown) { return countdown > 0 && --countdown == 0; }

} // namespace

// Linked in place of libdbus: the handlers need no bus.
extern "C" {
DBusMessage *__real_dbus_message_new_method_return(DBusMessage *call);

DBusMessage *__wrap_dbus_message_new_method_return(DBusMessage *call) {
    return return_fails ? nullptr : __real_dbus_message_new_method_return(call);
}
dbus_bool_t __wrap_dbus_message_append_args(DBusMessage *message, int first, ...) {
    if (append_fails) {
        return FALSE;
    }
    std::va_list arguments;
    va_start(arguments, first);
    const dbus_bool_t result = dbus_message_append_args_valist(message, first, arguments);
    va_end(arguments);
    return result;
}
dbus_bool_t __wrap_dbus_connection_send(DBusConnection * /*unused*/, DBusMessage *message, dbus_uint32_t * /*unused*/) {
    if (send_fails) {
        return FALSE;
    }
    sent.reset(dbus_message_ref(message));
    return TRUE;
}
dbus_bool_t __wrap_dbus_connection_has_messages_to_send(DBusConnection * /*unused*/) {
    ++flushes;
    return FALSE;
}

dbus_bool_t __real_dbus_message_iter_open_container(DBusMessageIter *outer, int type, const char *signature,
                                                    DBusMessageIter *inner);
dbus_bool_t __real_dbus_message_iter_append_basic(DBusMessageIter *array, int type, const void *value);

dbus_bool_t __wrap_dbus_message_iter_open_container(DBusMessageIter *outer, int type, const char *signature,
                                                    DBusMessageIter *inner) {
    return fails_now(failing_opening) ? FALSE : __real_dbus_message_iter_open_container(outer, type, signature, inner);
}
dbus_bool_t __wrap_dbus_message_iter_append_basic(DBusMessageIter *array, int type, const void *value) {
    return fails_now(failing_element) ? FALSE : __real_dbus_message_iter_append_basic(array, type, value);
}
}

namespace {

using testing::ElementsAre;

using Handler = int (*)(DBusConnection *, DBusMessage *);

class MethodsTest : public testing::Test {
  protected:
    void SetUp() override {
        for (Issue &issue : issue_registry) {
            issue.count = issue.id == -1 ? -1 : 0;
            issue.enabled = 1;
            issue.changed = 999;
        }
    }
    void TearDown() override {
        sent.reset();
        flushes = 0;
        return_fails = append_fails = send_fails = false;
        failing_opening = failing_element = 0;
        gdata_record() = settings_;
    }

  private:
    GlobalData settings_ = gdata_record();
};

BusMessage call_at(const char *path) {
    BusMessage call(dbus_message_new_method_call("a.b", path, "c.d", "E"));
    dbus_message_set_serial(call.get(), 7);
    return call;
}

std::string sent_text() {
    const char *text = nullptr;
    if (sent && dbus_message_get_args(sent.get(), nullptr, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID) != 0) {
        return text;
    }
    return "no text";
}

std::string list() {
    EXPECT_EQ(d_bus_srv_GetListing(nullptr, call_at("/").get()), 0);
    return sent ? body_bytes(sent.get()) : "nothing sent";
}

TEST_F(MethodsTest, EmptyListingHasNoArguments) {
    EXPECT_EQ(list(), "");
    ASSERT_NE(sent, nullptr);
    EXPECT_STREQ(dbus_message_get_signature(sent.get()), "");
    EXPECT_EQ(dbus_message_get_reply_serial(sent.get()), 7U);
    EXPECT_EQ(flushes, 1);
}

TEST_F(MethodsTest, ListingHoldsRaisedIssuesInRowOrder) {
    issue_registry[33] = {99, "CBnn", 1700000000, 3, 1};
    issue_registry[3] = {3, "CB03", 1600000000, 1, 0}; // disabled but still listed
    const CapturedTraces traces;
    // 1600000000 is 0x5F5E1000, 1700000000 is 0x6553F100. Structs start at multiples of 8: the array has
    // 4+4+5 bytes, 3 of padding, 13 bytes.
    const std::string expected("\x1d\x00\x00\x00\x00\x00\x00\x00"
                               "\x00\x10\x5e\x5f"
                               "\x04\x00\x00\x00"
                               "CB03\x00\x00\x00\x00"
                               "\x00\xf1\x53\x65"
                               "\x04\x00\x00\x00"
                               "CBnn\x00",
                               37);
    EXPECT_EQ(list(), expected);
    EXPECT_STREQ(dbus_message_get_signature(sent.get()), "a(us)");
    EXPECT_THAT(traces.texts_of("d_bus_srv_GetListing"),
                ElementsAre(" ", "LOCK", "issue: CB03, cnt: 1, time: 1600000000",
                            "issue: CBnn, cnt: 3, time: 1700000000", "UNLOCK"));
}

TEST_F(MethodsTest, ListingNeverHoldsARowWithoutALabel) {
    issue_registry[34].count = 2;
    EXPECT_EQ(list(), "");
}

TEST_F(MethodsTest, ListingShowsTimesPast2038AsUnsigned) {
    issue_registry[0] = {0, "CB00", 2147483648, 1, 1};
    EXPECT_EQ(list(), std::string("\x0d\x00\x00\x00\x00\x00\x00\x00"
                                  "\x00\x00\x00\x80"
                                  "\x04\x00\x00\x00"
                                  "CB00\x00",
                                  21));
}

// Two structs in an array: three containers, four elements.
TEST_F(MethodsTest, AListingFailsWhicheverPartCannotBeBuilt) {
    issue_registry[3].count = issue_registry[4].count = 1;
    for (const auto &[countdown, places] : {std::pair{&failing_opening, 3}, std::pair{&failing_element, 4}}) {
        for (int place = 1; place <= places; ++place) {
            const CapturedTraces traces;
            *countdown = place;
            EXPECT_EQ(d_bus_srv_GetListing(nullptr, call_at("/").get()), -1) << place;
            EXPECT_EQ(*countdown, 0);
            EXPECT_EQ(sent, nullptr);
            EXPECT_EQ(traces.texts_of("d_bus_srv_GetListing").back(), "UNLOCK");
            EXPECT_EQ(pthread_mutex_trylock(&registry_lock), 0);
            pthread_mutex_unlock(&registry_lock);
        }
    }
}

constexpr const char *DOCUMENT =
    "<node>\n    <interface name='com.corvana.State2.Issues'>\n        <method name='GetListing'>\n            <arg "
    "type='a(us)' name='activeIssues' direction='out'/>\n        </method>\n        <signal "
    "name='ClearedIssues'>\n            <arg type='uas' name='Issues' direction='out'/>\n        </signal>\n        "
    "<signal name='NewIssues'>\n            <arg type='uas' name='Issues' direction='out'/>\n        </signal>\n    "
    "</interface>\n    <interface name='org.freedesktop.DBus.Introspectable'>\n        <method "
    "name='Introspect'>\n            <arg type='s' name='xml_data' direction='out'/>\n        </method>\n    "
    "</interface>\n</node>\n";

TEST_F(MethodsTest, DescriptionIsThatOfTheFixedPathWhateverIsConfigured) {
    gdata_record().dbus_path = "/elsewhere";
    const std::vector<std::pair<const char *, std::string>> cases{
        {"/com/corvana/Monitoring1", DOCUMENT},
        {"/", "<node>\n</node>\n"},
        {"/elsewhere", "<node>\n</node>\n"},
        {"/com/corvana", "<node>\n</node>\n"},
        {"/com/corvana/Monitoring1/x", "<node>\n</node>\n"},
        {"/com/corvana/monitoring1", "<node>\n</node>\n"},
    };
    for (const auto &[path, document] : cases) {
        EXPECT_EQ(d_bus_srv_Introspect(nullptr, call_at(path).get()), 0);
        ASSERT_NE(sent, nullptr);
        EXPECT_EQ(body_bytes(sent.get()), wire(document)) << path;
    }
}

BusMessage switch_call(const char *word, dbus_bool_t enable) {
    BusMessage call = call_at("/");
    DBusMessageIter body{};
    dbus_message_iter_init_append(call.get(), &body);
    dbus_message_iter_append_basic(&body, DBUS_TYPE_STRING, static_cast<const void *>(&word));
    dbus_message_iter_append_basic(&body, DBUS_TYPE_BOOLEAN, &enable);
    return call;
}

std::vector<std::int32_t> ids_with(std::int32_t enabled) {
    std::vector<std::int32_t> ids;
    for (std::size_t row = 0; row < 34; ++row) {
        if (issue_registry[row].enabled == enabled) {
            ids.push_back(issue_registry[row].id);
        }
    }
    return ids;
}

struct Switch {
    const char *word;
    std::vector<std::int32_t> ids;
};

class SwitchTest : public MethodsTest, public testing::WithParamInterface<Switch> {};

TEST_P(SwitchTest, SwitchesTheGroupThatTheWordBeginsWith) {
    const Switch &expected = GetParam();
    const std::string answer = expected.ids.empty() ? "accepted" : "failed"; // this way round is kept
    EXPECT_EQ(d_bus_srv_ChangeInterfaceAvailability(nullptr, switch_call(expected.word, FALSE).get()), 0);
    EXPECT_EQ(ids_with(0), expected.ids);
    EXPECT_EQ(body_bytes(sent.get()), wire(answer));

    for (Issue &issue : issue_registry) {
        issue.enabled = 0;
    }
    EXPECT_EQ(d_bus_srv_ChangeInterfaceAvailability(nullptr, switch_call(expected.word, TRUE).get()), 0);
    EXPECT_EQ(ids_with(1), expected.ids);
    EXPECT_EQ(body_bytes(sent.get()), wire(answer));
    EXPECT_EQ(flushes, 2);
}

INSTANTIATE_TEST_SUITE_P(Words, SwitchTest,
                         testing::Values(Switch{"WiFi", {1, 2, 4, 9, 10}}, Switch{"WiFi0", {1, 2, 4, 9, 10}},
                                         Switch{"LAN", {11, 12, 13}}, Switch{"LANxyz", {11, 12, 13}},
                                         Switch{"Cell", {14, 15, 16, 17, 18, 19}}, Switch{"wifi", {}},
                                         Switch{"WiF", {}}, Switch{"lan", {}}, Switch{"Bluetooth", {}}, Switch{"", {}},
                                         Switch{" WiFi", {}}));

TEST_F(MethodsTest, EachIdIsSwitchedUnderItsOwnLock) {
    const CapturedTraces traces;
    d_bus_srv_ChangeInterfaceAvailability(nullptr, switch_call("LAN", TRUE).get());
    EXPECT_THAT(traces.texts_of("d_bus_srv_ID_set_enabled"),
                ElementsAre("LOCK", "UNLOCK", "LOCK", "UNLOCK", "LOCK", "UNLOCK"));
}

TEST_F(MethodsTest, TrailingArgumentsAreAccepted) {
    const BusMessage call = switch_call("Bluetooth", TRUE);
    DBusMessageIter body{};
    const dbus_uint32_t more = 1;
    dbus_message_iter_init_append(call.get(), &body);
    dbus_message_iter_append_basic(&body, DBUS_TYPE_UINT32, &more);
    EXPECT_EQ(d_bus_srv_ChangeInterfaceAvailability(nullptr, call.get()), 0);
    EXPECT_EQ(sent_text(), "accepted");
}

TEST_F(MethodsTest, UnreadableArgumentsAreAnsweredWithFailed) {
    const BusMessage empty = call_at("/");
    const BusMessage number_first = call_at("/");
    const BusMessage no_switch = call_at("/");
    const dbus_uint32_t number = 1;
    const char *word = "LAN";
    DBusMessageIter body{};
    dbus_message_iter_init_append(number_first.get(), &body);
    dbus_message_iter_append_basic(&body, DBUS_TYPE_UINT32, &number);
    dbus_message_iter_init_append(no_switch.get(), &body);
    dbus_message_iter_append_basic(&body, DBUS_TYPE_STRING, static_cast<const void *>(&word));
    for (const BusMessage *call : {&empty, &number_first, &no_switch}) {
        const CapturedTraces traces;
        EXPECT_EQ(d_bus_srv_ChangeInterfaceAvailability(nullptr, call->get()), 0);
        EXPECT_EQ(sent_text(), "failed");
        EXPECT_TRUE(traces.has("d_bus_srv_ChangeInterfaceAvailability", "dbus_message_get_args() failed"));
        EXPECT_EQ(ids_with(0), std::vector<std::int32_t>{});
    }
}

class MethodFailureTest : public MethodsTest, public testing::WithParamInterface<std::pair<const char *, Handler>> {};

TEST_P(MethodFailureTest, ItsStartIsTracedAtLevelTwo) {
    const auto [name, handler] = GetParam();
    const CapturedTraces traces;
    EXPECT_EQ(handler(nullptr, call_at("/").get()), 0);
    ASSERT_FALSE(traces.all().empty());
    EXPECT_TRUE(traces.all().front().line.starts_with("(2) ")) << traces.all().front().line;
    EXPECT_EQ(traces.texts_of(name).front(), " ");
}

TEST_P(MethodFailureTest, AReplyThatCannotBeBuiltOrSentIsAFailure) {
    const auto [name, handler] = GetParam();
    issue_registry[1].count = 1;
    const bool appends_arguments = handler != d_bus_srv_GetListing;
    const bool traces_creation = handler != d_bus_srv_Introspect;
    {
        const CapturedTraces traces;
        return_fails = true;
        EXPECT_EQ(handler(nullptr, call_at("/").get()), -1);
        EXPECT_EQ(traces.has(name, "dbus_message_new_method_return() failed"), traces_creation);
        return_fails = false;
    }
    if (appends_arguments) {
        append_fails = true;
        EXPECT_EQ(handler(nullptr, call_at("/").get()), -1);
        append_fails = false;
    }
    send_fails = true;
    EXPECT_EQ(handler(nullptr, call_at("/").get()), -1);
    EXPECT_EQ(sent, nullptr);
    EXPECT_EQ(flushes, 0);
    EXPECT_EQ(pthread_mutex_trylock(&registry_lock), 0);
    pthread_mutex_unlock(&registry_lock);
}

// The reply is still built: traces and result are the same as for any other call.
TEST_P(MethodFailureTest, ACallThatWantsNoReplyIsHandledTheSameAndGetsNone) {
    const auto [name, handler] = GetParam();
    issue_registry[1].count = 1;
    const BusMessage call = switch_call("LAN", FALSE);
    std::vector<std::string> traced;
    {
        const CapturedTraces traces;
        ASSERT_EQ(handler(nullptr, call.get()), 0);
        traced = traces.texts_of(name);
    }
    ASSERT_NE(sent, nullptr);
    const std::vector<std::int32_t> switched = ids_with(0);
    SetUp();
    sent.reset();
    flushes = 0;

    dbus_message_set_no_reply(call.get(), TRUE);
    issue_registry[1].count = 1;
    const CapturedTraces traces;
    EXPECT_EQ(handler(nullptr, call.get()), 0);
    EXPECT_EQ(sent, nullptr);
    EXPECT_EQ(flushes, 0);
    EXPECT_EQ(traces.texts_of(name), traced);
    EXPECT_EQ(ids_with(0), switched);
    return_fails = true;
    EXPECT_EQ(handler(nullptr, call.get()), -1);
}

INSTANTIATE_TEST_SUITE_P(Handlers, MethodFailureTest,
                         testing::Values(std::pair{"d_bus_srv_GetListing", Handler{d_bus_srv_GetListing}},
                                         std::pair{"d_bus_srv_Introspect", Handler{d_bus_srv_Introspect}},
                                         std::pair{"d_bus_srv_ChangeInterfaceAvailability",
                                                   Handler{d_bus_srv_ChangeInterfaceAvailability}}));

} // namespace
