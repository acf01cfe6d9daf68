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
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

constinit std::int32_t lan_available = 0;
constinit std::int32_t wifi_available = 0;
constinit std::int32_t mobile_available = 0;

namespace {

constexpr const char *LAN_FILE = "/var/lib/evse/etc/systemd/network/eth0.network";
constexpr const char *WIFI_FILE = "/var/lib/evse/portapi/wifi.conf";
constexpr const char *NETWORKD_UNIT = "/org/freedesktop/systemd1/unit/systemd_2dnetworkd_2eservice";

constexpr std::int32_t UNSET = -1;

// Never reset between reads: a key removed from the file keeps its last value.
constinit std::int32_t lan_managed = UNSET;
constinit std::int32_t lan_activation = UNSET;

constinit int network_first_run = 1;
constinit std::uint64_t networkd_timestamp = 0;

struct ValueRow {
    const char *text;
    std::int32_t value;
};

constexpr std::array<ValueRow, 4> UNMANAGED_VALUES{{
    {"true", 0},
    {"yes", 0},
    {"false", 1},
    {"no", 1},
}};

constexpr std::array<ValueRow, 6> ACTIVATION_VALUES{{
    {"down", 0},
    {"always-down", 0},
    {"up", 1},
    {"always-up", 1},
    {"manual", 1},
    {"bound", 1},
}};

/// Stores the table's value for `text`, ignoring case; ignores an unknown text.
template <std::size_t N>
void store_value(const std::array<ValueRow, N> &table, const char *text, std::int32_t *stored) {
    const auto *row = std::find_if(table.begin(), table.end(),
                                   [text](const ValueRow &entry) { return strcasecmp(entry.text, text) == 0; });
    if (row != table.end()) {
        *stored = row->value;
    }
}

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
        store_value(UNMANAGED_VALUES, value, &lan_managed);
    } else if (strcasecmp(name, "ActivationPolicy") == 0) {
        store_value(ACTIVATION_VALUES, value, &lan_activation);
    }
    return 1;
}

std::int32_t network_decide_wifi(const char *text, const JsonToken *tokens, std::int32_t count) {
    if (count <= 0 || tokens[0].type != JSON_OBJECT) {
        return 1;
    }
    for (std::int32_t i = 1; i < count; ++i) {
        // Kept: compares up to the end of the text, not of the token.
        if (strcasecmp(text + tokens[i].start, "enabled") == 0) {
            return i + 1 < count && strcasecmp(text + tokens[i + 1].start, "true") == 0 ? 1 : 0;
        }
    }
    return 0;
}

namespace {

/// Whether networkd has changed state since the last check; true if unknown.
bool network_changed() {
    const int opened = system_bus_open();
    if (opened < 0) {
        trace_as("network_check_daemon", TRACE_TRACE, "bus_default FAILED: ret : %d (%s)", opened,
                 std::strerror(-opened));
        return true;
    }
    UnitError error;
    std::uint64_t timestamp = 0;
    const int read = system_bus_read_number(NETWORKD_UNIT, "StateChangeTimestampMonotonic", &timestamp, &error);
    if (read < 0) {
        trace_as("network_check_daemon", TRACE_TRACE, "get_property FAILEd: ret : %d (%s)", read, std::strerror(-read));
        return true;
    }
    const bool changed = timestamp != networkd_timestamp;
    networkd_timestamp = timestamp;
    return changed;
}

constexpr off_t LAN_FILE_MAX_SIZE = 65536; // bytes; a thousand times the usual size

/// Whether the file is a regular one within the size limit.
bool is_readable_to_its_end(const Descriptor &file) {
    struct stat status {};
    return fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size <= LAN_FILE_MAX_SIZE;
}

/// Whether the stream's position is within the limit: files may grow, and files in /proc report no size.
bool is_within_limit(std::FILE *file) {
    const off_t position = ftello(file);
    return position >= 0 && position <= LAN_FILE_MAX_SIZE;
}

/// Reads a line like ini_read_line; null once the position is past the limit.
char *read_line_within_limit(char *buffer, int size, void *stream) {
    return is_within_limit(static_cast<std::FILE *>(stream)) ? ini_read_line(buffer, size, stream) : nullptr;
}

/// Passes all pairs of the file to the handler; false unless it is an INI file that can be read to the end.
bool read_lan_file() {
    Descriptor descriptor = open_nonblocking(LAN_FILE, O_RDONLY);
    if (!descriptor || !is_readable_to_its_end(descriptor)) {
        return false;
    }
    const FileHandle file = stream_on(std::move(descriptor), "r");
    return file && ini_parse_stream(read_line_within_limit, file.get(), network_lan_handler) == 0 &&
           is_within_limit(file.get()) && ferror(file.get()) == 0;
}

void network_check_lan() {
    trace(TRACE_TRACE, " ");
    lan_available = read_lan_file() ? network_decide_lan(lan_managed, lan_activation) : 1;
}

void network_check_wifi() {
    constexpr std::size_t most = 2048;
    constexpr std::int32_t max_tokens = 32;
    // Kept: not cleared between reads, so the comparison includes the rest of an earlier, longer file.
    static constinit std::array<char, most + 1> text{};

    trace(TRACE_TRACE, " ");
    const Descriptor file(open_nonblocking(WIFI_FILE, O_RDONLY));
    if (!file) {
        wifi_available = 0;
        return;
    }
    const ssize_t length = read(file.get(), text.data(), most);
    std::array<JsonToken, max_tokens> tokens{};
    JsonParser parser{};
    json_init(&parser, tokens.data(), max_tokens);
    const std::int32_t count = json_parse(&parser, text.data(), static_cast<std::int32_t>(length));
    wifi_available = network_decide_wifi(text.data(), tokens.data(), count);
}

void network_check_mobile() {
    trace(TRACE_TRACE, " ");
    mobile_available = 0;
}

void network_check() {
    trace(TRACE_TRACE, " ");
    network_check_lan();
    network_check_wifi();
    network_check_mobile();
}

} // namespace

int network_check_daemon() {
    trace(TRACE_DEBUG, " ");
    if (network_first_run == 0 && !network_changed()) {
        return 0;
    }
    network_check();
    network_first_run = 0;
    return 0;
}
