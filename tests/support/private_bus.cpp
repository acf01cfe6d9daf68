#include "private_bus.h"

#include <chrono>
#include <csignal>
#include <gtest/gtest.h>

namespace {

/// Half of the listener's wait, so that what arrives only at its end is too late.
constexpr std::chrono::seconds MESSAGE_PATIENCE{30};

constexpr const char *OPEN_RULES = "  <policy context='default'>\n"
                                   "    <allow user='*'/>\n"
                                   "    <allow own='*'/>\n"
                                   "    <allow send_destination='*' eavesdrop='true'/>\n"
                                   "    <allow receive_sender='*' eavesdrop='true'/>\n"
                                   "  </policy>\n"
                                   "  <limit name='max_replies_per_connection'>50000</limit>\n"
                                   "  <limit name='max_message_unix_fds'>253</limit>\n"
                                   "  <limit name='max_incoming_unix_fds'>2000</limit>\n"
                                   "  <limit name='max_outgoing_unix_fds'>2000</limit>\n";

// The stock rules, then room for the fake systemd.
constexpr const char *SYSTEM_RULES = "  <policy context='default'>\n"
                                     "    <allow user='*'/>\n"
                                     "    <deny own='*'/>\n"
                                     "    <deny send_type='method_call'/>\n"
                                     "    <allow send_type='signal'/>\n"
                                     "    <allow send_requested_reply='true' send_type='method_return'/>\n"
                                     "    <allow send_requested_reply='true' send_type='error'/>\n"
                                     "    <allow receive_type='method_call'/>\n"
                                     "    <allow receive_type='method_return'/>\n"
                                     "    <allow receive_type='error'/>\n"
                                     "    <allow receive_type='signal'/>\n"
                                     "    <allow send_destination='org.freedesktop.DBus'/>\n"
                                     "    <allow own='org.freedesktop.systemd1'/>\n"
                                     "    <allow send_destination='org.freedesktop.systemd1'/>\n"
                                     "  </policy>\n";

/// The package's policy, but anybody may own the name: the daemon's user may not exist where the tests run, and the bus
/// does not know a daemon that is root only in its user namespace.
std::string package_policy() {
    std::string policy = read_file(BUS_POLICY);
    const std::string user = "<policy user=\"vigmond\">";
    const std::size_t owner = policy.find(user);
    const std::size_t start = policy.find("<busconfig>");
    EXPECT_NE(owner, std::string::npos);
    policy.replace(owner, user.size(), "<policy context=\"default\">");
    return policy.substr(start + std::string("<busconfig>").size());
}

std::string configuration(const std::string &address, BusRules rules) {
    return "<!DOCTYPE busconfig PUBLIC '-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN'\n"
           " 'http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd'>\n"
           "<busconfig>\n"
           "  <listen>" +
           address +
           "</listen>\n"
           "  <auth>EXTERNAL</auth>\n"
           "  <auth>ANONYMOUS</auth>\n" // for a daemon that is root only in its user namespace
           "  <allow_anonymous/>\n" +
           (rules == BusRules::open ? OPEN_RULES + std::string("</busconfig>\n") : SYSTEM_RULES + package_policy());
}

} // namespace

PrivateBus::PrivateBus(BusRules rules) : folder_(own_folder_.path()), rules_(rules) { start(); }

PrivateBus::PrivateBus(std::string folder) : folder_(std::move(folder)) { start(); }

void PrivateBus::start() {
    const std::string settings = own_folder_.write("bus.conf", configuration(address(), rules_));
    daemon_.emplace(std::vector<std::string>{"dbus-daemon", "--config-file=" + settings, "--nofork", "--nopidfile",
                                             "--nosyslog", "--print-address=1"});
    if (!daemon_->output().wait_for("unix:path=")) {
        ADD_FAILURE() << "dbus-daemon did not start";
    }
}

void PrivateBus::stop() {
    daemon_->kill(SIGKILL);
    daemon_.reset();
}

void PrivateBus::remove() {
    stop();
    std::filesystem::remove(folder_ + "/bus");
}

BusClient::BusClient(const PrivateBus &bus) {
    BusError error;
    connection_.reset(dbus_connection_open_private(bus.address().c_str(), error.fresh()));
    if (!connection_ || dbus_bus_register(connection_.get(), error.fresh()) == 0) {
        ADD_FAILURE() << "no connection to the private bus: " << error.message();
        std::abort();
    }
    dbus_connection_set_exit_on_disconnect(connection_.get(), FALSE);
}

BusClient::~BusClient() { dbus_connection_close(connection_.get()); }

dbus_uint32_t BusClient::send(const BusMessage &call) const {
    dbus_uint32_t serial = 0;
    EXPECT_NE(dbus_connection_send(connection_.get(), call.get(), &serial), 0U);
    return serial;
}

BusMessage BusClient::call(const BusMessage &call) {
    const dbus_uint32_t serial = send(call);
    return wait_for([serial](DBusMessage *message) { return dbus_message_get_reply_serial(message) == serial; });
}

BusMessage BusClient::wait_for(const std::function<bool(DBusMessage *)> &wanted) {
    for (auto message = waiting_.begin(); message != waiting_.end(); ++message) {
        if (wanted(message->get())) {
            BusMessage found = std::move(*message);
            waiting_.erase(message);
            return found;
        }
    }
    const auto deadline = std::chrono::steady_clock::now() + MESSAGE_PATIENCE;
    while (std::chrono::steady_clock::now() < deadline) {
        while (BusMessage message{dbus_connection_pop_message(connection_.get())}) {
            if (wanted(message.get())) {
                return message;
            }
            waiting_.push_back(std::move(message));
        }
        if (dbus_connection_read_write(connection_.get(), 1000) == 0) {
            break;
        }
    }
    return nullptr;
}

BusMessage BusClient::wait_for_signal(const std::string &member) {
    return wait_for([&member](DBusMessage *message) {
        return dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_SIGNAL && dbus_message_get_member(message) == member;
    });
}

void BusClient::watch(const std::string &rule) {
    ASSERT_EQ(dbus_message_get_type(ask_bus("AddMatch", rule).get()), DBUS_MESSAGE_TYPE_METHOD_RETURN);
}

void BusClient::become_monitor() {
    const BusMessage message(dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS,
                                                          "org.freedesktop.DBus.Monitoring", "BecomeMonitor"));
    DBusMessageIter body{};
    DBusMessageIter no_rules{};
    const dbus_uint32_t no_flags = 0;
    dbus_message_iter_init_append(message.get(), &body);
    dbus_message_iter_open_container(&body, DBUS_TYPE_ARRAY, "s", &no_rules);
    dbus_message_iter_close_container(&body, &no_rules);
    dbus_message_iter_append_basic(&body, DBUS_TYPE_UINT32, &no_flags);
    ASSERT_EQ(dbus_message_get_type(call(message).get()), DBUS_MESSAGE_TYPE_METHOD_RETURN);
}

BusMessage BusClient::ask_bus(const char *member, const std::string &name, int flags) {
    const BusMessage message(
        dbus_message_new_method_call(DBUS_SERVICE_DBUS, DBUS_PATH_DBUS, DBUS_INTERFACE_DBUS, member));
    const char *const text = name.c_str();
    const auto number = static_cast<dbus_uint32_t>(flags);
    dbus_message_append_args(message.get(), DBUS_TYPE_STRING, static_cast<const void *>(&text),
                             flags < 0 ? DBUS_TYPE_INVALID : DBUS_TYPE_UINT32, &number, DBUS_TYPE_INVALID);
    return call(message);
}

std::string BusClient::wait_for_owner(const std::string &name) {
    watch("type='signal',member='NameOwnerChanged',arg0='" + name + "'");
    BusMessage reply = ask_bus("GetNameOwner", name);
    while (reply && dbus_message_get_type(reply.get()) == DBUS_MESSAGE_TYPE_ERROR) {
        if (!wait_for_signal("NameOwnerChanged")) {
            return "";
        }
        reply = ask_bus("GetNameOwner", name);
    }
    return text_of(reply);
}

BusMessage method_call(const char *path, const char *interface, const char *member) {
    return BusMessage(dbus_message_new_method_call(SERVICE_NAME, path, interface, member));
}

std::string text_of(const BusMessage &message) {
    const char *text = nullptr;
    const bool found = message && dbus_message_get_args(message.get(), nullptr, DBUS_TYPE_STRING,
                                                        static_cast<void *>(&text), DBUS_TYPE_INVALID) != 0;
    return found ? text : "";
}

dbus_uint32_t number_of(const BusMessage &message) {
    dbus_uint32_t number = 0;
    if (message) {
        dbus_message_get_args(message.get(), nullptr, DBUS_TYPE_UINT32, &number, DBUS_TYPE_INVALID);
    }
    return number;
}
