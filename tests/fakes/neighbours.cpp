#include "neighbours.h"

#include "dbus-srv.h"
#include "network.h"

#include <cstdint>

std::vector<std::string> &events() {
    static auto &list = *new std::vector<std::string>; // still used during exit
    return list;
}

// Both fail: the scheduler must ignore that.
int network_check_daemon() {
    events().emplace_back("network");
    return -1;
}

int d_bus_srv_send_issues(std::int64_t now) {
    events().push_back("announce " + std::to_string(now));
    return -1;
}
