// An interactive station: the daemon on the rig's board at a chosen speed. Changes of the board's files and of the
// controls next to them take effect at the next heartbeat. script/run --station starts it and shows its stderr:
// the daemon's traces and its status log.
//   station_main FOLDER SPEED SYSTEMD [OPTION...]
//     FOLDER    becomes a link to the station's files
//     SPEED     the factor by which the station's clock runs faster than real time
//     SYSTEMD   where fake_systemd reads its commands
//     OPTION    for the daemon

#include "builtin/service.h"
#include "station.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <thread>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::int64_t HEARTBEAT = 10; // seconds
constexpr const char *STATUS_LOG = "/var/lib/evse/vigmond/logfile";
constexpr const char *PROCESSOR_FILE = "/proc/stat";

volatile std::sig_atomic_t interrupted = 0;

void interrupt(int /*signo*/) { interrupted = 1; }

int number_in(const std::string &text) { return static_cast<int>(std::strtol(text.c_str(), nullptr, 10)); }

int percent_in(const std::string &text) { return std::clamp(number_in(text), 0, 100); }

std::string first_word(const std::string &text) { return text.substr(0, text.find_first_of(" \t\n")); }

Board connected_board() {
    return Board()
        .clock(std::time(nullptr))
        .file("/sys/class/bluetooth/hci0/power/runtime_status", "active\n")
        .file("/sys/class/net/eth0/operstate", "up\n")
        .file("/sys/class/net/wlan0sta/operstate", "up\n")
        .file("/var/lib/evse/etc/systemd/network/eth0.network", "[Match]\nName=eth0\n\n[Link]\nUnmanaged=no\n")
        .file("/var/lib/evse/portapi/wifi.conf", "on\n")
        .file("/proc/net/dev", "    eth0: 90000 900 0 0 0 0 0 0 10000 100 0 0 0 0 0 0\n"
                               "wlan0sta: 90000 900 0 0 0 0 0 0 10000 100 0 0 0 0 0 0\n")
        .file("/proc/net/wireless", "wlan0sta: 0000   70.  -20.  -256        0      0      0      0     45        0\n")
        .file(PROCESSOR_FILE, "cpu  0 0 0 0 0 0 0 0 0 0\n");
}

/// A file that controls a part of the board without a file of its own.
struct Control {
    std::string file;
    std::string content;
    std::function<void(const std::string &)> apply;
};

class Play {
  public:
    Play(std::string link, std::string systemd);
    ~Play();
    Play(const Play &) = delete;
    Play &operator=(const Play &) = delete;

    /// Runs until interrupted or until the daemon ends; returns the daemon's exit status.
    int live(const std::vector<std::string> &options, Clock::duration pace);

  private:
    void add_disks();
    void add_services();
    void add(const std::string &file, std::string content, std::function<void(const std::string &)> apply);
    void tell_systemd(const std::string &command) const { std::ofstream(systemd_) << command + "\n"; }
    void apply_controls();
    void work();
    void launch(std::vector<std::string> options);
    void beat();
    void show();
    void rest_until(Clock::time_point end);

    Station station_{connected_board()};
    fs::path link_;
    std::string systemd_;
    std::vector<Control> controls_;
    std::streamoff logged_ = 0; ///< bytes of the status log shown so far
    int load_ = 20;
    std::int64_t busy_ticks_ = 0;
    std::int64_t idle_ticks_ = 0;
};

Play::Play(std::string link, std::string systemd) : link_(std::move(link)), systemd_(std::move(systemd)) {
    std::error_code ignored;
    fs::remove(link_, ignored); // left by a station that was killed
    fs::create_directory_symlink(station_.files().scratch(), link_, ignored);
    station_.environment = {std::string("DBUS_SYSTEM_BUS_ADDRESS=") + std::getenv("DBUS_SYSTEM_BUS_ADDRESS")};
    add_disks();
    add_services();
    add("load", std::to_string(load_), [this](const std::string &text) { load_ = percent_in(text); });
    add("wearout", "10", [this](const std::string &text) {
        put_emmc(&station_.emmc(), 7, static_cast<std::uint8_t>(percent_in(text) / 10), 0);
    });
    add("networkd", "0", [this](const std::string &text) {
        tell_systemd("set systemd_2dnetworkd_2eservice StateChangeTimestampMonotonic t " +
                     std::to_string(number_in(text)));
    });
}

Play::~Play() {
    std::error_code ignored;
    fs::remove(link_, ignored);
}

void Play::add(const std::string &file, std::string content, std::function<void(const std::string &)> apply) {
    const std::string path = station_.files().scratch() + "/controls/" + file;
    std::error_code ignored;
    fs::create_directories(fs::path(path).parent_path(), ignored);
    std::ofstream(path) << content << "\n";
    controls_.push_back({.file = path, .content = std::move(content), .apply = std::move(apply)});
}

/// Adds a control for the free space of each disk in percent.
void Play::add_disks() {
    const std::pair<const char *, const char *> disks[]{{"rw-root", "/rw-root"},
                                                        {"root", "/"},
                                                        {"tmp", "/tmp"},
                                                        {"run", "/run"},
                                                        {"evse", "/var/lib/evse"},
                                                        {"persistent", "/var/lib/persistent"},
                                                        {"parameter", "/var/lib/parameter"}};
    for (const auto &[name, path] : disks) {
        add(std::string("disk/") + name, "50", [this, path = path](const std::string &text) {
            const auto free = static_cast<std::uint64_t>(percent_in(text));
            station_.disk(path, {.blocks = 100, .free = free, .available = free});
        });
    }
}

/// Adds a control for each unit's state, in systemd's words.
void Play::add_services() {
    for (const char *name : {"hostapd", "nginx", "ocppd", "rauc", "stationd", "wpa_supplicant", "corvana-portapi"}) {
        const std::string unit = std::string(unit_path_escape(name).get()) + "_2eservice";
        const auto apply = [this, unit](const std::string &state) {
            tell_systemd("set " + unit + " ActiveState s " + first_word(state));
        };
        tell_systemd("set " + unit + " LoadState s loaded");
        apply("active");
        add(std::string("service/") + name, "active", apply);
    }
}

void Play::apply_controls() {
    for (Control &control : controls_) {
        const std::string content = first_word(read_file(control.file));
        if (!content.empty() && content != control.content) { // empty while being written
            control.content = content;
            control.apply(content);
        }
    }
}

/// Adds ten seconds of CPU time at a hundred ticks a second.
void Play::work() {
    busy_ticks_ += HEARTBEAT * load_;
    idle_ticks_ += HEARTBEAT * (100 - load_);
    station_.files().write(PROCESSOR_FILE, "cpu  " + std::to_string(busy_ticks_) + " 0 0 " +
                                               std::to_string(idle_ticks_) + " 0 0 0 0 0 0\n");
}

void Play::launch(std::vector<std::string> options) {
    options.insert(options.begin(), "-D");
    station_.launch(options);
    station_.await("the first pass", [this] { return !station_.is_running() || station_.waits() > 0; });
}

/// A heartbeat, during which the user may end the daemon.
void Play::beat() {
    apply_controls();
    work();
    station_.advance(HEARTBEAT - station_.clock() % HEARTBEAT);
    const unsigned before = station_.waits();
    station_.send(SIGALRM);
    station_.await("the end of a pass", [this, before] { return !station_.is_running() || station_.waits() > before; });
}

/// Prints the new traces, then the new records, in whole lines.
void Play::show() {
    station_.await("what has come", [] { return true; });
    const std::string &traces = station_.trace().text();
    std::fwrite(traces.data(), 1, traces.rfind('\n') + 1, stderr);
    station_.forget();
    std::ifstream log(station_.files().host_path(STATUS_LOG), std::ios::binary | std::ios::ate);
    const std::streamoff size = log.tellg();
    log.seekg(size < logged_ ? 0 : logged_); // from the start in a new generation
    const std::string records{std::istreambuf_iterator<char>(log), {}};
    std::fwrite(records.data(), 1, records.size(), stderr);
    logged_ = std::max<std::streamoff>(size, 0);
}

void Play::rest_until(Clock::time_point end) {
    constexpr Clock::duration glance = std::chrono::milliseconds(100); // the delay until a call's traces are shown
    for (Clock::time_point now = Clock::now(); now < end && interrupted == 0; now = Clock::now()) {
        std::this_thread::sleep_for(std::min(glance, end - now));
        show();
    }
}

int Play::live(const std::vector<std::string> &options, Clock::duration pace) {
    launch(options);
    show();
    Clock::time_point next = Clock::now();
    while (interrupted == 0 && station_.is_running()) {
        next = std::max(next + pace, Clock::now());
        rest_until(next);
        if (interrupted == 0 && station_.is_running()) {
            beat();
            show();
        }
    }
    if (station_.is_running()) {
        station_.send(SIGTERM);
    }
    const int status = station_.await_exit();
    show();
    return status;
}

} // namespace

int main(int argc, char **argv) {
    constexpr int options = 4;
    const int speed = argc < options ? 0 : number_in(argv[2]);
    if (speed < 1 || std::getenv("DBUS_SYSTEM_BUS_ADDRESS") == nullptr) {
        std::fprintf(stderr, "usage: DBUS_SYSTEM_BUS_ADDRESS=... station_main FOLDER SPEED SYSTEMD [OPTION...]\n");
        return 2;
    }
    for (const int signo : {SIGHUP, SIGINT, SIGTERM}) {
        std::signal(signo, interrupt);
    }
    const Clock::duration pace = Clock::duration(std::chrono::seconds(HEARTBEAT)) / speed;
    return Play(argv[1], argv[3]).live({argv + options, argv + argc}, pace);
}
