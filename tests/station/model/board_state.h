#pragma once

// The inputs of a script and the board state that results from them.

#include "board.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace model {

/// One change of the station; `target` is the file, disk, unit or issue that it concerns.
struct Input {
    enum class Kind {
        write,         ///< a file's content
        remove,        ///< a file, or an empty folder
        folder,        ///< in place of a file
        disk,          ///< "blocks free available"
        disk_error,    ///< errno
        emmc,          ///< "revision type_a type_b"
        emmc_error,    ///< errno
        load_state,    ///< of a unit, before the start
        load_error,    ///< "error times", before the start
        active_state,  ///< of a unit
        active_error,  ///< "error times"
        networkd_time, ///< of its last state change
        networkd_error,
        bus_lost,
        bus_back,
        generation_lost, ///< removes the compressed status log with this number
        sigusr1,
        child_ends, ///< the load logger of that issue, if there is one
        ask_listing,
        ask_availability, ///< the word; "1" or "0"
    };
    Kind kind;
    std::string target;
    std::string text;
};

/// The input on one line, control characters escaped and long texts truncated.
std::string text_of(const Input &input);

struct File {
    enum class Kind { missing, folder, regular };
    Kind kind = Kind::missing;
    std::string content;
};

struct Emmc {
    int revision = 7;
    int type_a = 1;
    int type_b = 1;
    int error = 0; ///< of its commands; 0: none fails
};

/// An answer of systemd: a value after `errors_left` errors; -1 means errors only.
struct Property {
    std::string value;
    std::string error{};
    int errors_left = 0;
};

struct Unit {
    Property load_state{.value = "not-found"};
    Property active_state{.value = "inactive"};
};

/// The number at the beginning of a text.
int number_in(const std::string &text);
/// The words between blanks.
std::vector<std::string> words_of(const std::string &text);

/// The board after the inputs so far. Questions change it: they use up the failing answers.
struct BoardState {
    std::map<std::string, File> files;
    std::map<std::string, Disk> disks;
    Emmc emmc;
    std::map<std::string, Unit> units;
    Property networkd{.value = "0"};
    enum class Bus { none, up, lost };
    Bus bus = Bus::up;
    bool connection_is_dead = false; ///< to a bus that was lost; the first question notices

    /// Ignores inputs that do not affect the board.
    void take(const Input &input);
    [[nodiscard]] bool has_bus() const { return bus == Bus::up; }
    [[nodiscard]] const File &file(const std::string &path) const;
};

/// The board after these inputs, with or without a bus.
BoardState board_after(const std::vector<Input> &inputs, bool has_bus);

/// The next answer to a question for the property: its value, or the error with its name in `error`.
bool ask(Property *property, std::string *value, std::string *error);

inline constexpr const char *BLUETOOTH_FILE = "/sys/class/bluetooth/hci0/power/runtime_status";
inline constexpr const char *ETHERNET_FILE = "/sys/class/net/eth0/operstate";
inline constexpr const char *WIFI_FILE = "/sys/class/net/wlan0sta/operstate";
inline constexpr const char *TRAFFIC_FILE = "/proc/net/dev";
inline constexpr const char *WIRELESS_FILE = "/proc/net/wireless";
inline constexpr const char *CPU_FILE = "/proc/stat";
inline constexpr const char *LAN_CONFIGURATION = "/var/lib/evse/etc/systemd/network/eth0.network";
inline constexpr const char *WIFI_CONFIGURATION = "/var/lib/evse/portapi/wifi.conf";
/// The error that repeats a call at once at run time, and the one that means a missing unit at the start.
inline constexpr const char *INTERRUPTED = "System.Error.EINTR";
inline constexpr const char *INVALID = "System.Error.EINVAL";

} // namespace model
