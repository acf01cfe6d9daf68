#include "dbus-srv.h"

#include "trace.h"

int d_bus_srv_init() {
    trace(TRACE_INFO, "the bus is not served by this version");
    return 0;
}

int d_bus_srv_issue_update(std::uint32_t id, std::int32_t state) {
    trace(TRACE_DEBUG, "not registered by this version: id %u state %d", id, state);
    return 0;
}

int d_bus_srv_send_issues(std::int64_t now) {
    trace(TRACE_DEBUG, "not announced by this version: %lld", static_cast<long long>(now));
    return 0;
}
