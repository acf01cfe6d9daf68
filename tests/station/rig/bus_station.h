#pragma once

// A station on a private bus, with a fake systemd and all watched services.

#include "message_bytes.h"
#include "station_bus.h"
#include "station_life.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

inline constexpr const char *OBJECT_PATH = "/com/corvana/Monitoring1";
inline constexpr const char *ISSUES = "com.corvana.State2.Issues";
inline constexpr const char *INTROSPECTABLE = "org.freedesktop.DBus.Introspectable";
inline constexpr const char *NETWORK = "com.corvana.Config1.Network";
inline constexpr const char *NGINX = "nginx_2eservice";

inline constexpr std::uint32_t FIRST_PASS = 1709294407; // 2024-03-01 12:00:07 UTC

struct RaisedIssue {
    std::uint32_t changed;
    std::string label;
};

/// The body of a listing: the array's length in bytes, then structs aligned to eight.
inline std::string listing_bytes(const std::vector<RaisedIssue> &issues) {
    std::string array;
    for (const RaisedIssue &issue : issues) {
        array.append((8 - array.size() % 8) % 8, '\0');
        array += wire(issue.changed) + wire(issue.label);
    }
    return wire(static_cast<std::uint32_t>(array.size())) + std::string(4, '\0') + array;
}

/// The body of a signal: the time, the array's length in bytes, then texts aligned to four.
inline std::string signal_bytes(std::uint32_t now, const std::vector<std::string> &labels) {
    std::string array;
    for (const std::string &label : labels) {
        array.append((4 - array.size() % 4) % 4, '\0');
        array += wire(label);
    }
    return wire(now) + wire(static_cast<std::uint32_t>(array.size())) + array;
}

class BusStation : public testing::Test {
  protected:
    explicit BusStation(Board board = even_board()) : station(std::move(board)) {
        station.environment.emplace_back("TZ=UTC0");
        load_services();
    }

    void load_services() {
        for (const char *unit : {"hostapd_2eservice", NGINX, "ocppd_2eservice", "rauc_2eservice", "stationd_2eservice",
                                 "wpa_5fsupplicant_2eservice", "corvana_2dportapi_2eservice"}) {
            systemd.load(unit);
            systemd.activate(unit);
        }
    }
    /// Removes the journal's socket, so that no test has to read the traces.
    void silence() { station.files().remove("/run/systemd/journal/socket"); }
    /// Subscribes the client to the daemon's signals.
    void watch_issues(BusClient *client) {
        client->watch(std::string("type='signal',path='") + OBJECT_PATH + "',interface='" + ISSUES + "'");
    }

    Station station;
    StationBus system_bus{&station};
    PrivateBus &bus = system_bus.bus;
    FakeSystemd &systemd = system_bus.systemd;
};

inline BusMessage listing_call() { return method_call(OBJECT_PATH, ISSUES, "GetListing"); }

inline bool is_return(const BusMessage &message) {
    return message && dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_METHOD_RETURN;
}

/// Member and body of the daemon's next signal; "none" when there is none.
struct IssueSignal {
    std::string member;
    std::string body;
    bool operator==(const IssueSignal &) const = default;
};

inline void PrintTo(const IssueSignal &signal, std::ostream *out) {
    *out << signal.member << " " << testing::PrintToString(signal.body);
}

inline IssueSignal next_signal(BusClient *client) {
    const BusMessage signal = client->wait_for([](DBusMessage *message) {
        return dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_SIGNAL &&
               dbus_message_has_interface(message, ISSUES) != 0;
    });
    return signal ? IssueSignal{dbus_message_get_member(signal.get()), body_bytes(signal.get())}
                  : IssueSignal{"none", ""};
}

inline IssueSignal new_issues(std::uint32_t pass, const std::vector<std::string> &labels) {
    return {"NewIssues", signal_bytes(pass, labels)};
}

inline IssueSignal cleared_issues(std::uint32_t pass, const std::vector<std::string> &labels) {
    return {"ClearedIssues", signal_bytes(pass, labels)};
}
