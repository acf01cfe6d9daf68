#include "contents.h"

#include <algorithm>
#include <array>

namespace model {

namespace {

using Kind = Input::Kind;

std::string text(std::int64_t number) { return std::to_string(number); }

/// The number in one of the notations that a text may use.
std::string spelled(Random *random, std::int64_t number) {
    switch (random->below(12)) {
    case 0:
        return " \t" + text(number);
    case 1:
        return number >= 0 ? "+" + text(number) : text(number);
    case 2:
        return text(number) + "mC";
    case 3:
        return text(number) + ".000";
    case 4:
        return text(number) + "\r";
    default:
        return text(number);
    }
}

std::string no_number(Random *random) {
    return random->text_of({"", "\n", " \n", "cold\n", "-\n", "inf\n", "-inf\n", "nan\n", "1e300\n", "-1e12", "n/a",
                            "\t", "#42\n", "\n42000\n"});
}

} // namespace

Input written(const std::string &path, const std::string &content) {
    return {.kind = Input::Kind::write, .target = path, .text = content};
}

Input removed(const std::string &path) { return {.kind = Input::Kind::remove, .target = path, .text = ""}; }

Input made_folder(const std::string &path) { return {.kind = Input::Kind::folder, .target = path, .text = ""}; }

std::int64_t near_limits(Random *random, const std::vector<std::int64_t> &limits, std::int64_t hysteresis,
                         std::int64_t well) {
    const std::int64_t limit = random->of(limits);
    const std::int64_t step = random->between(-1, 1);
    switch (random->below(5)) {
    case 0:
        return well;
    case 1:
        return limit + hysteresis + step;
    case 2:
        return limit - hysteresis + step;
    default:
        return limit + step;
    }
}

std::vector<std::string> mount_points() {
    return {"/rw-root", "/", "/tmp", "/run", "/var/lib/evse", "/var/lib/persistent", "/var/lib/parameter"};
}

std::vector<std::string> units() {
    return {"hostapd", "nginx", "ocppd", "rauc", "stationd", "wpa_supplicant", "corvana-portapi"};
}

// 1000 packets without losses count as 1.
std::vector<Input> healthy_board() {
    std::vector<Input> inputs{
        written(TEMPERATURE_FILE, "42000\n"),
        written(MEMORY_FILE, meminfo(512000, 256000)),
        written(EMMC_DEVICE, ""),
        written(BLUETOOTH_FILE, "active\n"),
        written(ETHERNET_FILE, "up\n"),
        written(WIFI_FILE, "up\n"),
        traffic_file("  eth0: 90000 900 0 0 0 0 0 0 10000 100 0 0 0 0 0 0\n",
                     "wlan0sta: 90000 900 0 0 0 0 0 0 10000 100 0 0 0 0 0 0\n"),
        written(WIRELESS_FILE, "wlan0sta: 0000   70.  -20.  -256        0      0      0      0      0        0\n"),
        written(CPU_FILE, "cpu  1000 0 1000 8000 0 0 0 0 0 0\n"),
        written(WIFI_CONFIGURATION, "in use\n"),
        {.kind = Kind::emmc, .target = EMMC_DEVICE, .text = "7 1 1"},
    };
    for (const std::string &path : mount_points()) {
        inputs.push_back(made_folder(path));
        inputs.push_back({.kind = Kind::disk, .target = path, .text = "1000 500 500"});
    }
    for (const std::string &unit : units()) {
        inputs.push_back({.kind = Kind::load_state, .target = unit, .text = "loaded"});
        inputs.push_back({.kind = Kind::active_state, .target = unit, .text = "active"});
    }
    inputs.push_back({.kind = Kind::networkd_time, .target = "networkd", .text = "1000"});
    return inputs;
}

// A degree steps at 499 thousandths, truncated towards 0.
Input any_temperature(Random *random) {
    if (random->once_in(12)) {
        switch (random->below(4)) {
        case 0:
            return removed(TEMPERATURE_FILE);
        case 1:
            return made_folder(TEMPERATURE_FILE);
        case 2:
            return written(TEMPERATURE_FILE, std::string(4000, random->of({'1', ' ', '0'})) + "42000\n");
        default:
            return written(TEMPERATURE_FILE, no_number(random));
        }
    }
    const std::int64_t degrees = near_limits(random, {-40, -30, 70, 80, 0}, 5, 42);
    const auto fraction = random->of<std::int64_t>({0, 0, 1, -499, -500, 499, 500, 501, 999, -1499});
    const std::string line = spelled(random, degrees * 1000 + fraction);
    return written(TEMPERATURE_FILE, line + (random->once_in(5) ? "" : "\n"));
}

Input any_memory(Random *random) {
    const auto total = random->of<std::int64_t>({1, 3, 100, 200, 999, 1000, 512000, 512000, 4611686018427387904});
    const std::int64_t percent = std::max<std::int64_t>(0, near_limits(random, {10, 25}, 10, 50));
    const std::int64_t half = total / 200;
    const std::int64_t near = total / 100 * percent + total % 100 * percent / 100;
    const std::int64_t free =
        std::max<std::int64_t>(0, near + random->of<std::int64_t>({0, 0, 1, -1, half, half + 1, half - 1, -half}));
    const std::string whole = "MemTotal: " + text(total) + " kB\n";
    const std::string part = "MemFree: " + text(free) + " kB\n";
    switch (random->below(30)) {
    case 0:
        return written(MEMORY_FILE, part + whole);
    case 1:
        return written(MEMORY_FILE, "memtotal:\t" + text(total) + "\nMEMFREE: " + text(free));
    case 2:
        return written(MEMORY_FILE, whole);
    case 3:
        return written(MEMORY_FILE, part);
    case 4:
        return written(MEMORY_FILE,
                       random->text_of({"", "\n", "MemTotal:\nMemFree:\n", "MemTotal: 0 kB\nMemFree: 0 kB\n",
                                        "MemTotal: many kB\nMemFree: 5 kB\n", "no such thing"}));
    case 5:
        return written(MEMORY_FILE, "MemTotal:1 kB\n" + part + whole + "MemFree:" + text(free) + " kB\n"); // no blanks
    case 6:
        return written(MEMORY_FILE, "MemTotal: 5 kB\nMemFree: 5 kB\n" + whole + part); // the later ones count
    case 7:
        return written(MEMORY_FILE, whole + std::string(random->of({1022U, 1023U, 2046U}), 'x') + part +
                                        part.substr(0, random->below(8) > 4 ? 3 : 30));
    case 8:
        return written(MEMORY_FILE, whole + "MemFree: -" + text(free) + " kB\n");
    case 9:
        return written(MEMORY_FILE, " " + whole + part + "MemFreeX: 7 kB\n" + whole);
    default:
        return written(MEMORY_FILE, meminfo(static_cast<std::uint64_t>(total), static_cast<std::uint64_t>(free)));
    }
}

Input any_emmc(Random *random) {
    if (random->once_in(12)) {
        return random->once_in(2) ? removed(EMMC_DEVICE)
                                  : Input{.kind = Kind::emmc_error, .target = EMMC_DEVICE, .text = "5"};
    }
    if (random->once_in(4)) {
        return written(EMMC_DEVICE, "");
    }
    const std::int64_t revision = random->once_in(10) ? random->of<std::int64_t>({0, 6, 8, 255}) : 7;
    const auto estimate = [random] {
        return random->of<std::int64_t>({0, 1, 3, 4, 5, 5, 8, 9, 9, 10, 11, 15}) + 16 * random->below(16);
    };
    return {.kind = Kind::emmc,
            .target = EMMC_DEVICE,
            .text = text(revision) + " " + text(estimate()) + " " + text(random->once_in(2) ? 0 : estimate())};
}

Input any_disk(Random *random, const std::string &path) {
    const bool may_change = path == "/rw-root" || path == "/var/lib/persistent" || path == "/var/lib/parameter";
    const auto total = random->of<std::int64_t>(
        {3, 99, 100, 100, 200, 1000, 1000, 1000, 12345, 42949673, 4294967295, 4294967296, 4294968296});
    const std::int64_t percent = std::max<std::int64_t>(0, near_limits(random, {10, 25}, 5, 50));
    const std::int64_t near = total * percent / 100;
    const std::int64_t half = total / 200;
    const std::int64_t available =
        std::max<std::int64_t>(0, near + random->of<std::int64_t>({0, 0, 0, 1, -1, half, -half, -half - 1}));
    const std::int64_t free = random->once_in(4) ? total + random->between(0, 900) : available;
    if (may_change && random->once_in(6)) {
        const std::string counts = text(std::min<std::int64_t>(total, 4294967295)) + " " +
                                   text(std::min<std::int64_t>(free, 4294967295)) + "\t" +
                                   text(std::min<std::int64_t>(available, 4294967295));
        switch (random->below(6)) {
        case 0:
            return removed(path);
        case 1:
            return written(path,
                           random->text_of({"", "\n", "fs x 1000 500\n", "fs x 0 0 0 0\n", "fs x no such thing\n"}));
        case 2:
            return written(path, "fs x " + counts);
        case 3:
            return written(path, "fs x " + counts + " 7 8 9\nfs x 1 1 1\n");
        default:
            return made_folder(path);
        }
    }
    if (random->once_in(15)) {
        return random->once_in(2) ? Input{.kind = Kind::disk_error, .target = path, .text = "5"}
                                  : Input{.kind = Kind::disk, .target = path, .text = "0 500 500"};
    }
    return {.kind = Kind::disk, .target = path, .text = text(total) + " " + text(free) + " " + text(available)};
}

Input any_bluetooth(Random *random) {
    switch (random->below(5)) {
    case 0:
        return written(BLUETOOTH_FILE, random->text_of({"active\n", "suspended\n", "", "error\n"}));
    case 1:
        return made_folder(BLUETOOTH_FILE);
    case 2:
        return written(BLUETOOTH_FILE, "active\n");
    default:
        return removed(BLUETOOTH_FILE);
    }
}

Input any_link(Random *random, const char *path) {
    switch (random->below(10)) {
    case 0:
    case 1:
        return removed(path);
    case 2:
        return made_folder(path);
    case 3:
        return written(path, random->text_of({"", "\n", " up\n", "u\n", "UP", "Up\n", "upside down\n", "uP"}));
    case 4:
    case 5:
        return written(path, random->text_of({"down\n", "unknown\n", "dormant\n", "lowerlayerdown\n", "DOWN"}));
    default:
        return written(path, "up\n");
    }
}

std::int64_t any_load(Random *random) { return near_limits(random, {75, 90}, 5, 20); }

Input any_cpu(Random *random, std::int64_t load, std::int64_t *counters) {
    const auto total = random->of<std::int64_t>({0, 50, 99, 100, 101, 199, 1000, 18000, 72000, 18000, 18000, 18000});
    const std::int64_t hair = random->once_in(3) ? random->between(-1, 1) : 0;
    const std::int64_t idle = std::max<std::int64_t>(0, total * (100 - load) / 100 + hair);
    const std::int64_t user = (total - idle) * random->below(4) / 3;
    const std::array<std::int64_t, 3> steps{user, total - idle - user, idle};
    for (std::size_t i = 0; i < steps.size(); ++i) {
        counters[i] += steps[i];
        if (random->once_in(200)) {
            counters[i] += random->of<std::int64_t>({2147483648, 4294967296, -5000, -200, 1000000000});
        }
    }
    const std::string line = text(counters[0]) + (random->once_in(20) ? ".75 " : " ") + text(random->below(1000)) +
                             " " + text(counters[1]) + " " + text(counters[2]);
    switch (random->below(40)) {
    case 0:
        return written(CPU_FILE, random->text_of({"", "\n", "cpu 1 2 3\n", "cpu nan 0 5 7 8\n", "cpu 1 2 1e300 9\n",
                                                  "cpu 1 2 3 99999999999999999999\n", "cpu"}));
    case 1:
        return written(CPU_FILE, "cpu  " + line);
    case 2:
        return written(CPU_FILE, "cpu x y z w\n"); // words count as 0
    default:
        return written(CPU_FILE, "cpu  " + line + " 12 0 3 0 0 0\ncpu0 1 2 3 4\n");
    }
}

std::vector<Input> any_networkd(Random *random, std::int64_t *time) {
    switch (random->below(6)) {
    case 0:
        return {{.kind = Kind::networkd_error,
                 .target = "networkd",
                 .text = random->text_of({"System.Error.EIO 1", "System.Error.EINTR 1",
                                          "org.freedesktop.DBus.Error.UnknownObject 3", "System.Error.EACCES 30"})}};
    case 1:
        return {{.kind = Kind::networkd_time, .target = "networkd", .text = "0"}};
    default:
        *time += random->below(3);
        return {{.kind = Kind::networkd_time, .target = "networkd", .text = text(*time)}};
    }
}

void garble(Random *random, Input *input) {
    const std::vector<char> bytes{'\0', '\n', '\r', '\t', '\v', ' ', ':', '=', ';',    '"',   '{',
                                  '}',  '-',  '.',  '0',  '9',  'e', 'x', 'U', '\x7f', '\xff'};
    std::string &text = input->text;
    for (std::int64_t changes = random->between(1, 4); changes > 0 && !text.empty(); --changes) {
        const auto at = static_cast<std::size_t>(random->below(static_cast<std::int64_t>(text.size())));
        switch (random->below(4)) {
        case 0:
            text.erase(at, 1);
            break;
        case 1:
            text.insert(at, text, at, 3);
            break;
        case 2:
            text.resize(at);
            break;
        default:
            text[at] = random->of(bytes);
            break;
        }
    }
}

Input any_load_state(Random *random, const std::string &unit) {
    if (random->once_in(6)) {
        return {.kind = Kind::load_error,
                .target = unit,
                .text = random->text_of(
                    {"System.Error.EINVAL 1", "System.Error.EINTR 2", "System.Error.EIO 3", "System.Error.EACCES 1"})};
    }
    return {.kind = Kind::load_state,
            .target = unit,
            .text = random->text_of({"loaded", "loaded", "loaded", "loaded", "loaded", "error", "bad-setting", "masked",
                                     "masked-runtime", "stub", "not-found", "merged", "mask", "not", ""})};
}

Input any_active_state(Random *random, const std::string &unit) {
    if (random->once_in(8)) {
        return {.kind = Kind::active_error,
                .target = unit,
                .text = random->text_of({"System.Error.EINTR 1", "System.Error.EINTR 3", "System.Error.EINVAL 1",
                                         "System.Error.EIO 12", "org.freedesktop.DBus.Error.NoSuchUnit 2"})};
    }
    return {.kind = Kind::active_state,
            .target = unit,
            .text = random->text_of({"active", "active", "active", "active", "activating", "inactive", "deactivating",
                                     "failed", "reloading", "active-ish", "Active", "maintenance", ""})};
}

} // namespace model
