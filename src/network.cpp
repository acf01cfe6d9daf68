#include "network.h"

#include "handle.h"
#include "parse_ini.h"
#include "parse_json.h"
#include "system_bus.h"
#include "trace.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

constinit std::int32_t lan_available = 0;
constinit std::int32_t wifi_available = 0;
constinit std::int32_t mobile_available = 0;

namespace {

constexpr const char *LAN_FILE = "/var/lib/evse/etc/systemd/network/eth0.network";
constexpr const char *WIFI_FILE = "/var/lib/evse/portapi/wifi.conf";
constexpr const char *NETWORKD_UNIT = "/org/freedesktop/systemd1/unit/systemd_2dnetworkd_2eservice";

constexpr std::int32_t UNSET = -1;

// Never reset between reads: a key that is removed from the file keeps its last value.
constinit std::int32_t lan_managed = UNSET;
constinit std::int32_t lan_activation = UNSET;

constinit int network_first_run = 1;
constinit std::uint64_t networkd_timestamp = 0;

struct ValueRow {
    const char *text;
    std::int32_t value;
};

constexpr std::array<ValueRow, 4> unmanaged_values{{
    {"true", 0},
    {"yes", 0},
    {"false", 1},
    {"no", 1},
}};

constexpr std::array<ValueRow, 6> activation_values{{
    {"down", 0},
    {"always-down", 0},
    {"up", 1},
    {"always-up", 1},
    {"manual", 1},
    {"bound", 1},
}};

/// Stores the value that the table has for `text` in any case; an unknown one leaves things as they are.
template <std::size_t N>
void store_value(const std::array<ValueRow, N> &table, const char *text, std::int32_t *stored) {
    const auto *row = std::find_if(table.begin(), table.end(),
                                   [text](const ValueRow &entry) { return strcasecmp(entry.text, text) == 0; });
    if (row != table.end()) {
        *stored = row->value;
    }
}

char *read_line(char *buffer, int size, void *stream) { return std::fgets(buffer, size, static_cast<std::FILE *>(stream)); }

} // namespace

std::int32_t network_decide_lan(std::int32_t managed, std::int32_t activation) {
    if (activation == UNSET) {
        return managed == UNSET ? 0 : managed;
    }
    if (managed == UNSET) {
        return activation;
    }
    return managed == 1 && activation == 1 ? 1 : 0;
}

int network_lan_handler(const char *section, const char *name, const char *value) {
    trace(TRACE_TRACE, "section: %s -- name: %s -- value: %s", section, name, value);
    if (strcasecmp(section, "Link") != 0) {
        return 1;
    }
    if (strcasecmp(name, "Unmanaged") == 0) {
        store_value(unmanaged_values, value, &lan_managed);
    } else if (strcasecmp(name, "ActivationPolicy") == 0) {
        store_value(activation_values, value, &lan_activation);
    }
    return 1;
}
