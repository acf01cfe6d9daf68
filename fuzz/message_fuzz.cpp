// A message on the bus. Input: its bytes in wire format ("l" or "B" first), or the length of a signature, the
// signature and a body, which is then used in a call of each method. If the length has the bit QUIET, no issue is
// raised. If it has the bit FAILING, the next byte selects the library call that fails as if out of memory.

#include "dbus-srv.h"
#include "dbus-srv/bus_handle.h"
#include "dbus-srv/issues.h"
#include "dbus-srv/methods.h"
#include "support/fuzz.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstring>
#include <utility>

namespace {

int raised_issues() {
    return static_cast<int>(std::count_if(issue_registry.begin(), issue_registry.end(),
                                          [](const Issue &issue) { return issue.count > 0; }));
}

struct Method {
    const char *interface;
    const char *member;
    int (*handler)(DBusConnection *, DBusMessage *);
    const char *reply; ///< its signature if issues are raised
    const char *quiet; ///< its signature if none is
};

constexpr std::array<Method, 3> METHODS{{
    {"com.corvana.State2.Issues", "GetListing", d_bus_srv_GetListing, "a(us)", ""},
    {"org.freedesktop.DBus.Introspectable", "Introspect", d_bus_srv_Introspect, "s", "s"},
    {"com.corvana.Config1.Network", "ChangeInterfaceAvailability", d_bus_srv_ChangeInterfaceAvailability, "s", "s"},
}};

constexpr std::uint32_t ANY_ISSUE = 20;
constexpr std::uint8_t QUIET = 0x20;
constexpr std::uint8_t FAILING = 0x80;

BusMessage sent;      // the last reply
int failing_call = 0; // counted from 1; 0: none fails
int calls_to_failure = 0;

bool fails() { return calls_to_failure > 0 && --calls_to_failure == 0; }

} // namespace

extern "C" {
DBusMessage *__real_dbus_message_new_method_return(DBusMessage *call);
dbus_bool_t __real_dbus_message_iter_append_basic(DBusMessageIter *iter, int type, const void *value);
dbus_bool_t __real_dbus_message_iter_open_container(DBusMessageIter *iter, int type, const char *signature,
                                                    DBusMessageIter *sub);
dbus_bool_t __real_dbus_message_iter_close_container(DBusMessageIter *iter, DBusMessageIter *sub);

DBusMessage *__wrap_dbus_message_new_method_return(DBusMessage *call) {
    return fails() ? nullptr : __real_dbus_message_new_method_return(call);
}
dbus_bool_t __wrap_dbus_message_append_args(DBusMessage *message, int type, ...) {
    std::va_list arguments;
    va_start(arguments, type);
    const dbus_bool_t appended = dbus_message_append_args_valist(message, type, arguments);
    va_end(arguments);
    return fails() ? FALSE : appended;
}
dbus_bool_t __wrap_dbus_message_iter_append_basic(DBusMessageIter *iter, int type, const void *value) {
    return fails() ? FALSE : __real_dbus_message_iter_append_basic(iter, type, value);
}
dbus_bool_t __wrap_dbus_message_iter_open_container(DBusMessageIter *iter, int type, const char *signature,
                                                    DBusMessageIter *sub) {
    return fails() ? FALSE : __real_dbus_message_iter_open_container(iter, type, signature, sub);
}
/// The library closes the container even on failure.
dbus_bool_t __wrap_dbus_message_iter_close_container(DBusMessageIter *iter, DBusMessageIter *sub) {
    const dbus_bool_t closed = __real_dbus_message_iter_close_container(iter, sub);
    return fails() ? FALSE : closed;
}
dbus_bool_t __wrap_dbus_connection_send(DBusConnection * /*connection*/, DBusMessage *message,
                                        dbus_uint32_t * /*serial*/) {
    if (fails()) {
        return FALSE;
    }
    sent.reset(dbus_message_ref(message));
    return TRUE;
}
dbus_bool_t __wrap_dbus_connection_has_messages_to_send(DBusConnection * /*connection*/) { return FALSE; }
}

namespace {

/// Raises an issue for its lifetime, if requested.
class RaisedIssue {
  public:
    explicit RaisedIssue(bool raised) : raised_(raised) { report(1); }
    ~RaisedIssue() { report(0); }
    RaisedIssue(const RaisedIssue &) = delete;
    RaisedIssue(RaisedIssue &&) = delete;
    RaisedIssue &operator=(const RaisedIssue &) = delete;
    RaisedIssue &operator=(RaisedIssue &&) = delete;

  private:
    void report(std::int32_t state) const {
        if (raised_) {
            d_bus_srv_issue_update(ANY_ISSUE, state);
        }
        PROMISE(raised_issues() == (raised_ ? state : 0));
    }

    bool raised_;
};

void check_call(DBusMessage *message, const Method &method) {
    sent.reset();
    calls_to_failure = failing_call;
    const int result = method.handler(nullptr, message);
    if (failing_call > 0 && calls_to_failure == 0) {
        PROMISE(result == -1 && !sent);
        return;
    }
    PROMISE(result == 0);
    if (dbus_message_get_no_reply(message) != 0) {
        PROMISE(!sent);
        return;
    }
    PROMISE(sent && dbus_message_get_type(sent.get()) == DBUS_MESSAGE_TYPE_METHOD_RETURN);
    PROMISE(dbus_message_get_reply_serial(sent.get()) == dbus_message_get_serial(message));
    const char *signature = raised_issues() > 0 ? method.reply : method.quiet;
    PROMISE(std::strcmp(dbus_message_get_signature(sent.get()), signature) == 0);
}

void put_number(std::string &bytes, std::uint32_t number) {
    bytes.append(reinterpret_cast<const char *>(&number), sizeof number);
}

void put_field(std::string &bytes, char code, char type, const std::string &text) {
    bytes.resize((bytes.size() + 7) / 8 * 8);
    bytes += code;
    bytes += '\1';
    bytes += type;
    bytes += '\0';
    if (type == 'g') {
        bytes += static_cast<char>(text.size());
    } else {
        put_number(bytes, static_cast<std::uint32_t>(text.size()));
    }
    bytes += text + '\0';
}

/// A call with an arbitrary body.
std::string call_bytes(const Method &method, const std::string &signature, const std::string &body) {
    std::string bytes("l\1\0\1", 4);
    put_number(bytes, static_cast<std::uint32_t>(body.size()));
    put_number(bytes, 1);
    put_number(bytes, 0); // the length of the fields, set below
    put_field(bytes, 1, 'o', "/com/corvana/Monitoring1");
    put_field(bytes, 2, 's', method.interface);
    put_field(bytes, 3, 's', method.member);
    put_field(bytes, 8, 'g', signature);
    const auto fields = static_cast<std::uint32_t>(bytes.size() - 16);
    std::memcpy(&bytes[12], &fields, sizeof fields);
    bytes.resize((bytes.size() + 7) / 8 * 8);
    return bytes + body;
}

BusMessage message_of(const std::string &bytes) {
    BusError error;
    return BusMessage(dbus_message_demarshal(bytes.data(), static_cast<int>(bytes.size()), error.fresh()));
}

/// Handles the message like the listener.
void serve(const BusMessage &message) {
    for (const Method &method : METHODS) {
        if (message && dbus_message_is_method_call(message.get(), method.interface, method.member) != 0) {
            check_call(message.get(), method);
        }
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    failing_call = 0;
    if (size == 0 || data[0] == 'l' || data[0] == 'B') {
        const RaisedIssue issue(true);
        serve(message_of(text_of(data, size)));
        return 0;
    }
    const bool has_failure = (data[0] & FAILING) != 0 && size > 1;
    failing_call = has_failure ? data[1] : 0;
    const std::size_t begin = has_failure ? 2 : 1;
    const std::string input = text_of(data + begin, size - begin);
    const RaisedIssue issue((data[0] & QUIET) == 0);
    const std::size_t length = std::min<std::size_t>(data[0] % QUIET, input.size());
    for (const Method &method : METHODS) {
        serve(message_of(call_bytes(method, input.substr(0, length), input.substr(length))));
    }
    return 0;
}
