#include "rig.h"

#include "rig_failure.h"

#include <algorithm>
#include <array>
#include <bzlib.h>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

namespace model {

namespace {

constexpr const char *CALLS = "/var/lib/evse/vigmond/calls";
constexpr const char *LOAD_LOGGER = "/usr/bin/load_logger";
constexpr const char *INTERFACE = "com.corvana.State2.Issues";
constexpr const char *OBJECT = "/com/corvana/Monitoring1";
constexpr std::chrono::seconds PATIENCE{20};

Board board_of(const BoardState &state, const RigSetup &setup) {
    const Board healthy;
    Board board;
    for (const auto &[path, content] : healthy.files()) {
        if (path != ZONE_FILE) {
            board.without(path);
        }
    }
    for (const auto &[path, answer] : state.disks) {
        board.disk(path, answer);
    }
    for (const auto &[path, file] : state.files) {
        if (file.kind == File::Kind::regular) {
            board.file(path, file.content);
        } else if (file.kind == File::Kind::folder) {
            board.folder(path);
        }
    }
    if (!setup.old_log.empty()) {
        board.file(LOG, setup.old_log);
    }
    const Emmc &emmc = state.emmc;
    board.emmc(static_cast<std::uint8_t>(emmc.revision), static_cast<std::uint8_t>(emmc.type_a),
               static_cast<std::uint8_t>(emmc.type_b));
    if (emmc.error != 0) {
        board.emmc_fails(emmc.error);
    }
    return board.file(LOAD_LOGGER, read_file(setup.load_logger)).clock(setup.clock);
}

void put(const Emmc &emmc, StationMmc *device) {
    put_emmc(device, static_cast<std::uint8_t>(emmc.revision), static_cast<std::uint8_t>(emmc.type_a),
             static_cast<std::uint8_t>(emmc.type_b));
    device->result = emmc.error == 0 ? 0 : -1;
    device->error = emmc.error;
}

/// The unit's name as escaped in its object path.
std::string object_of(const std::string &unit) {
    std::string text;
    for (const char c : unit) {
        text += c == '_' ? "_5f" : c == '-' ? "_2d" : std::string(1, c);
    }
    return text + "_2eservice";
}

std::string signal_text(DBusMessage *message) {
    dbus_uint32_t time = 0;
    char **labels = nullptr;
    int count = 0;
    std::string text = std::string(" ") + dbus_message_get_member(message);
    if (dbus_message_get_args(message, nullptr, DBUS_TYPE_UINT32, &time, DBUS_TYPE_ARRAY, DBUS_TYPE_STRING,
                              static_cast<void *>(&labels), &count, DBUS_TYPE_INVALID) == 0 ||
        std::string(dbus_message_get_path(message)) != OBJECT) {
        return "a signal of another form:" + text;
    }
    for (int i = 0; i < count; ++i) {
        text += std::string(" ") + labels[i];
    }
    dbus_free_string_array(labels);
    return std::to_string(time) + text;
}

/// Reads an array of structs (time, label); nothing from an empty reply.
std::vector<std::string> listing_of(DBusMessage *reply) {
    std::vector<std::string> issues;
    DBusMessageIter body{};
    DBusMessageIter rows{};
    if (dbus_message_get_type(reply) != DBUS_MESSAGE_TYPE_METHOD_RETURN) {
        return {"no listing"};
    }
    if (dbus_message_iter_init(reply, &body) == 0) {
        return {};
    }
    if (std::string(dbus_message_get_signature(reply)) != "a(us)") {
        return {"a listing of another form"};
    }
    dbus_message_iter_recurse(&body, &rows);
    for (; dbus_message_iter_get_arg_type(&rows) == DBUS_TYPE_STRUCT; dbus_message_iter_next(&rows)) {
        DBusMessageIter fields{};
        dbus_uint32_t time = 0;
        const char *label = nullptr;
        dbus_message_iter_recurse(&rows, &fields);
        dbus_message_iter_get_basic(&fields, &time);
        dbus_message_iter_next(&fields);
        dbus_message_iter_get_basic(&fields, static_cast<void *>(&label));
        issues.push_back(std::to_string(time) + " " + label);
    }
    return issues;
}

std::string unpacked(const std::string &packed) {
    constexpr std::size_t most = std::size_t{16} * 1024 * 1024;
    static std::vector<char> buffer(most);
    unsigned size = most;
    std::string source = packed;
    const int result =
        BZ2_bzBuffToBuffDecompress(buffer.data(), &size, source.data(), static_cast<unsigned>(source.size()), 0, 0);
    return result == BZ_OK ? std::string(buffer.data(), size) : "no bzip2 file";
}

/// Signals that process, even if its id has been reused.
void send(const Descriptor &pidfd, int signo) { syscall(SYS_pidfd_send_signal, pidfd.get(), signo, nullptr, 0); }

} // namespace

Rig::Bus::Bus(const std::string &folder) : socket_(folder + "/bus"), door_(folder + "/door"), bus_(folder) {
    connect_clients();
    open();
}

void Rig::Bus::connect_clients() {
    caller_ = std::make_unique<BusClient>(bus_);
    listener_ = std::make_unique<BusClient>(bus_);
    listener_->watch(std::string("type='signal',interface='") + INTERFACE + "'");
}

void Rig::Bus::open() { fs::create_hard_link(socket_, door_); }

void Rig::Bus::lose() {
    fs::remove(door_);
    bus_.stop();
}

void Rig::Bus::come_back() {
    bus_.start();
    systemd_.connect();
    connect_clients();
    open();
}

Rig::Rig(const RigSetup &setup)
    : board_(board_after(setup.inputs, setup.has_bus)), station_(board_of(board_, setup)), arguments_(setup.arguments) {
    const BoardFolder &files = station_.files();
    // Drops the traces, which would take most of the time. A missing socket would take longer.
    files.write("/run/systemd/journal/socket", "");
    chmod(files.host_path(LOAD_LOGGER).c_str(), S_IRWXU);
    files.make_fifo(CALLS);
    calls_.reset(open(files.host_path(CALLS).c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    station_.environment = {"TZ=CET-1CEST,M3.5.0,M10.5.0/3"};
    if (setup.has_bus) {
        bus_ = std::make_unique<Bus>(files.scratch());
        station_.environment.push_back(bus_->variable());
    }
    for (const Input &input : setup.inputs) {
        if (input.kind == Input::Kind::remove) {
            take_away(input.target);
        } else {
            put_unit(input);
        }
    }
}

Rig::~Rig() {
    for (const LoadLogger &each : loggers_) {
        send(each.pidfd, SIGKILL);
    }
}

void Rig::start() {
    station_.start(arguments_);
    if (bus_) {
        bus_->caller().wait_for_owner(SERVICE_NAME);
    }
}

void Rig::beat(std::int64_t now) {
    station_.set_clock(now);
    station_.step(0);
}

int Rig::stop() { return station_.stop(); }

// --- inputs

void Rig::take_away(const std::string &path) const {
    std::error_code error;
    if (fs::exists(station_.files().host_path(path), error)) {
        station_.files().remove(path);
    }
}

void Rig::put_file(const Input &input) const {
    if (fs::is_directory(station_.files().host_path(input.target))) {
        take_away(input.target);
    }
    station_.files().write(input.target, input.text);
}

void Rig::put_folder(const std::string &path) const {
    const std::string host = station_.files().host_path(path);
    if (!fs::is_directory(host)) {
        take_away(path);
        fs::create_directories(host);
    }
}

/// Applies an input about a unit to the fake systemd; ignores others.
void Rig::put_unit(const Input &input) {
    struct Row {
        Input::Kind kind;
        const char *property;
        const char *command;
        const char *type;
    };
    using enum Input::Kind;
    static constexpr Row rows[] = {
        {load_state, LOAD_STATE, "set ", " s "},     {load_error, LOAD_STATE, "error ", " "},
        {active_state, ACTIVE_STATE, "set ", " s "}, {active_error, ACTIVE_STATE, "error ", " "},
        {networkd_time, CHANGE_TIME, "set ", " t "}, {networkd_error, CHANGE_TIME, "error ", " "},
    };
    for (const Row &row : rows) {
        if (bus_ && row.kind == input.kind) {
            const std::string unit = row.property == CHANGE_TIME ? NETWORKD : object_of(input.target);
            bus_->systemd().obey(row.command + unit + " " + row.property + row.type + input.text);
        }
    }
}

void Rig::lose_generation(int number) const {
    std::array<char, 16> ending{};
    std::snprintf(ending.data(), ending.size(), ".%03d.bz2", number);
    station_.files().remove(std::string(LOG) + ending.data());
}

void Rig::apply(const Input &input) {
    using enum Input::Kind;
    board_.take(input);
    switch (input.kind) {
    case write:
        put_file(input);
        break;
    case remove:
        take_away(input.target);
        break;
    case folder:
        put_folder(input.target);
        break;
    case disk:
    case disk_error:
        station_.disk(input.target, board_.disks[input.target]);
        break;
    case emmc:
    case emmc_error:
        put(board_.emmc, &station_.emmc());
        break;
    case generation_lost:
        lose_generation(number_in(input.target));
        break;
    case sigusr1:
        station_.signal(SIGUSR1);
        break;
    case child_ends:
        end_load_logger(input.target);
        break;
    case bus_lost:
        await_rest();
        bus_->lose();
        break;
    case bus_back:
        bus_->come_back();
        bus_->caller().wait_for_owner(SERVICE_NAME);
        break;
    default:
        put_unit(input);
        break;
    }
}

/// Waits until all threads sleep: a thread that has written a signal but not yet checked that the bus was still
/// there would send it again.
void Rig::await_rest() const {
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    const fs::directory_iterator threads("/proc/" + std::to_string(station_.pid()) + "/task");
    for (const auto &thread : threads) {
        while (read_file(thread.path() / "stat").find(") S ") == std::string::npos &&
               std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
    }
}

// --- output

std::vector<std::string> Rig::sentences() {
    std::vector<std::string> texts;
    for (const SyslogRecord &record : station_.syslog()) {
        texts.push_back(std::to_string(record.priority) + " " + record.text);
    }
    station_.forget();
    return texts;
}

std::vector<std::string> Rig::signals(std::size_t count) {
    if (!board_.has_bus()) {
        return {};
    }
    DBusConnection *connection = bus_->listener().connection();
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    for (int timeout = 0;; timeout = 100) {
        dbus_connection_read_write(connection, timeout);
        while (const BusMessage message{dbus_connection_pop_message(connection)}) {
            if (dbus_message_has_interface(message.get(), INTERFACE) != 0) {
                signals_.push_back(signal_text(message.get()));
            }
        }
        if (signals_.size() >= count || std::chrono::steady_clock::now() > deadline) {
            return std::exchange(signals_, {});
        }
    }
}

std::vector<std::string> Rig::listing() {
    return listing_of(bus_->caller().call(method_call(OBJECT, INTERFACE, "GetListing")).get());
}

std::string Rig::availability(const std::string &word, bool enable) {
    const BusMessage call = method_call(OBJECT, "com.corvana.Config1.Network", "ChangeInterfaceAvailability");
    const char *text = word.c_str();
    const dbus_bool_t flag = enable ? 1 : 0;
    dbus_message_append_args(call.get(), DBUS_TYPE_STRING, static_cast<const void *>(&text), DBUS_TYPE_BOOLEAN, &flag,
                             DBUS_TYPE_INVALID);
    return text_of(bus_->caller().call(call));
}

std::string Rig::log_from(std::size_t offset) const {
    const std::string path = station_.files().host_path(LOG);
    std::error_code error;
    const std::size_t size = fs::file_size(path, error);
    if (error || size < offset) {
        return "a log of another size\n";
    }
    std::string text(size - offset, '\0');
    std::ifstream file(path, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(offset));
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    return text;
}

std::map<int, std::string> Rig::generations() const {
    std::map<int, std::string> found;
    const std::string start = "logfile.";
    const std::string folder = fs::path(station_.files().host_path(LOG)).parent_path();
    for (const auto &entry : fs::directory_iterator(folder)) {
        const std::string name = entry.path().filename();
        if (name.starts_with(start)) {
            const bool is_packed = name.size() == start.size() + 7 && name.ends_with(".bz2");
            const int number = number_in(name.substr(start.size()));
            found[number] = is_packed ? unpacked(read_file(entry.path())) : "a file named " + name;
        }
    }
    return found;
}

// --- load loggers

std::vector<pid_t> Rig::children() const {
    const std::string pid = std::to_string(station_.pid());
    std::vector<pid_t> pids;
    const std::string thread = "/proc/" + pid + "/task/" + pid;
    for (const std::string &word : words_of(read_file(thread + "/children"))) {
        pids.push_back(number_in(word));
    }
    return pids;
}

/// Reads the next whole line; false when there is none yet.
bool Rig::read_call() {
    std::array<char, 4096> piece{};
    const ssize_t size = read(calls_.get(), piece.data(), piece.size());
    unread_.append(piece.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    const std::size_t end = unread_.find('\n');
    if (end == std::string::npos) {
        return false;
    }
    const std::string line = unread_.substr(0, end);
    unread_.erase(0, end + 1);
    const pid_t pid = number_in(line);
    told_.push_back(line.substr(line.find(' ') + 1));
    const std::size_t issue = line.find("CB");
    loggers_.push_back({.pid = pid,
                        .issue = issue == std::string::npos ? "" : line.substr(issue, std::string("CB31[0]").size()),
                        .pidfd = Descriptor(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)))});
    return true;
}

std::vector<std::string> Rig::started(std::size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while ((told_.size() < count || loggers_.size() < children().size()) &&
           std::chrono::steady_clock::now() < deadline) {
        if (!read_call()) {
            pollfd source{.fd = calls_.get(), .events = POLLIN, .revents = 0};
            poll(&source, 1, 100);
        }
    }
    std::sort(told_.begin(), told_.end()); // two that start in one pass report in any order
    return std::exchange(told_, {});
}

void Rig::end_load_logger(const std::string &issue) {
    const auto found = std::find_if(loggers_.begin(), loggers_.end(),
                                    [&issue](const LoadLogger &each) { return each.issue == issue; });
    if (found == loggers_.end()) {
        rig_failure("no load logger of " + issue);
    }
    const unsigned before = station_.waits();
    const pid_t pid = found->pid;
    send(found->pidfd, SIGTERM);
    station_.await("the end of a load logger", [this, before, pid] {
        const std::vector<pid_t> left = children();
        return station_.waits() > before && std::find(left.begin(), left.end(), pid) == left.end();
    });
    loggers_.erase(found);
}

bool Rig::load_loggers_end() const {
    return std::all_of(loggers_.begin(), loggers_.end(), [](const LoadLogger &each) {
        pollfd source{.fd = each.pidfd.get(), .events = POLLIN, .revents = 0};
        return poll(&source, 1, static_cast<int>(std::chrono::milliseconds(PATIENCE).count())) == 1;
    });
}

} // namespace model
