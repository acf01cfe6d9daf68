#include "busy_station.h"

#include "bzip2_tool.h"
#include "fake_systemd.h"
#include "station_life.h"
#include "status_log.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <regex>

namespace fs = std::filesystem;

namespace {

constexpr std::int64_t SECONDS_A_BEAT = 180;
constexpr int HOT_BEATS = 5;

/// Leaves room for the header and the records of about five beats.
std::string old_records() {
    std::string text;
    for (int i = 0; i < 180; ++i) {
        text += "2024-02-29 12:00:00\tOK\tCB20\t0\t42\n";
    }
    return text;
}

std::string generation(const Station &station, int number) {
    return station.files().host_path(STATUS_LOG) + ".00" + std::to_string(number) + ".bz2";
}

std::string processor_ticks(int beats) {
    return "cpu  " + std::to_string(1000 + 950 * beats) + " 0 1000 " + std::to_string(8000 + 50 * beats) +
           " 0 0 0 0 0 0\n";
}

} // namespace

BusyWorld::BusyWorld(BusRules rules) : bus_(rules), systemd_(std::make_unique<FakeSystemd>(bus_)) {
    for (const char *unit : {"nginx_2eservice", "ocppd_2eservice"}) {
        systemd_->load(unit);
        systemd_->activate(unit);
    }
    systemd_->change_time("1000");
}

BusyWorld::~BusyWorld() = default;

Board busy_board() {
    return even_board().file("/var/lib/evse/etc/systemd/network/eth0.network", "[Link]\nActivationPolicy=up\n");
}

BusyStation::BusyStation(const BusyWorld &world, Board board) : Station(std::move(board)) {
    environment = {"TZ=UTC0", world.bus().variable()};
    shown = {{world.bus().folder(), world.bus().folder()}, {STATION_LOAD_LOGGER, "/usr/bin"}};
    files().write(STATUS_LOG, old_records());
    std::ofstream(generation(*this, 0), std::ios::binary) << bzip2("", "-1");
    files().write(TEMPERATURE_FILE, "75000\n");
}

void BusyStation::launch_busy(const std::vector<std::string> &further) {
    std::vector<std::string> arguments{"-S", "10", "-C", "3"};
    arguments.insert(arguments.end(), further.begin(), further.end());
    command_line_ = argv0;
    for (const std::string &argument : arguments) {
        command_line_ += " \"" + argument + "\"";
    }
    launch(arguments);
}

void BusyStation::prepare_beat() {
    ++beats_;
    files().write("/proc/stat", processor_ticks(beats_));
    temperature(beats_ < HOT_BEATS ? 75000 : 42000);
}

void BusyStation::beat() {
    prepare_beat();
    step(SECONDS_A_BEAT);
}

std::string BusyStation::recorded() const {
    std::string text;
    for (int number = 2; number >= 0; --number) {
        if (fs::exists(generation(*this, number))) {
            text += bunzip2(generation(*this, number));
        }
    }
    text += read(STATUS_LOG);
    const std::string old = old_records();
    for (std::size_t at = text.find(old); at != std::string::npos; at = text.find(old, at)) {
        text.erase(at, old.size());
    }
    return text;
}

bool BusyStation::is_locked() const {
    const Descriptor file(open(files().host_path(std::string(STATUS_FOLDER) + "/.lock").c_str(), O_RDWR | O_CLOEXEC));
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    return file && fcntl(file.get(), F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

namespace {

constexpr const char *ANY_STAMP = "<stamp>";
constexpr std::size_t STAMP_SIZE = 19;

/// Skips `block`, with any time stamp, at `at`; false, without a change, if it is not there.
bool skip(const std::string &block, const std::string &text, std::size_t *at) {
    const std::size_t stamp = block.find(ANY_STAMP);
    const std::string tail = block.substr(stamp + std::string(ANY_STAMP).size());
    if (text.compare(*at, stamp, block, 0, stamp) != 0 ||
        text.compare(std::min(*at + stamp + STAMP_SIZE, text.size()), tail.size(), tail) != 0) {
        return false;
    }
    *at += stamp + STAMP_SIZE + tail.size();
    return true;
}

bool skip_record(const std::string &text, std::size_t *at, std::vector<std::string> *records) {
    static const std::regex record(
        "(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d)\t(OK|WARN|FAIL)\t(CB\\d\\d)\t(\\d)\t(-?\\d+|NaN)\n");
    std::smatch found;
    const auto begin = text.begin() + static_cast<std::ptrdiff_t>(*at);
    if (!std::regex_search(begin, text.end(), found, record, std::regex_constants::match_continuous)) {
        return false;
    }
    records->push_back(found.str(1) + " " + found.str(3) + " " + found.str(4));
    *at += found.str().size();
    return true;
}

} // namespace

LogContent take_apart(const std::string &text, const std::string &command_line) {
    const std::string start = header_text(ANY_STAMP, "START", command_line);
    const std::string rotate = header_text(ANY_STAMP, "ROTATE", command_line);
    const std::string closing = finished_text(ANY_STAMP, command_line);
    LogContent content;
    for (std::size_t at = 0; at < text.size();) {
        if (skip_record(text, &at, &content.records)) {
            content.ends_closed = false;
        } else if (skip(start, text, &at)) {
            ++content.starts;
            content.ends_closed = false;
        } else if (skip(rotate, text, &at)) {
            ++content.rotations;
        } else if (skip(closing, text, &at)) {
            ++content.closings;
            content.ends_closed = true;
        } else {
            content.torn = text.substr(at, 200);
            break;
        }
    }
    return content;
}
