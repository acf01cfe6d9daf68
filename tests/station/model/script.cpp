#include "script.h"

namespace model {

namespace {

constexpr std::int64_t START_TIMES[] = {
    1709294407, // 2024-03-01 12:00:07 UTC
    1711846800, // 2024-03-31 01:00:00 UTC, when summer time begins
    1729983605, // 2024-10-26 23:00:05 UTC, before it ends
    2147400001, // 2038-01-18 04:00:01 UTC, a day before 2^31 seconds
    4294900001, // 2106-02-06 11:46:41 UTC, a day before 2^32
};

// Values out of range are clamped, other words leave the default.
constexpr OptionForms LOG_SIZE{"-S", "--logfilesize"};
const std::vector<OptionValue> LOG_SIZES{
    {"10", 10240}, {"11", 11264},   {"12kB", 12288}, {"64", 65536},         {"1000", 1024000},    {"5", 10240},
    {"-3", 10240}, {"much", 10240}, {"+64", 65536},  {"102400", 104857600}, {"200000", 104857600}};
constexpr OptionForms LOG_COUNT{"-C", "--logfilecount"};
const std::vector<OptionValue> LOG_COUNTS{{"0", 0},  {"1", 1},   {"2", 2},    {"3", 3},    {"5", 5},
                                          {"-5", 0}, {"2nd", 2}, {"none", 0}, {"500", 128}};
constexpr OptionForms RECORD_LEVEL{"-l", "--loglevel"};
const std::vector<OptionValue> RECORD_LEVELS{{"OK", 3},      {"ok", 3},      {"oK", 3},   {"all", 3},  {"1", 3},
                                             {"WARNING", 2}, {"warning", 2}, {"fail", 1}, {"Fail", 1}, {"failed", 3}};
constexpr OptionForms SEVERITY{"-s", "--severitylevel"};
const std::vector<OptionValue> SEVERITIES{{"OK", 5},      {"ok", 5},     {"fail", 5},   {"all", 5},
                                          {"warning", 4}, {"Failed", 3}, {"failed", 3}, {"CRITICAL", 2}};

std::int64_t next_multiple(std::int64_t now, std::int64_t of) { return now - now % of + of; }

} // namespace

Script::Script(std::uint64_t seed, const std::string &load_logger) : random_(seed) {
    setup_.load_logger = load_logger;
    setup_.has_bus = !random_.once_in(4);
    pace_ = random_.of<std::int64_t>({10, 10, 60, 180, 900, 900});
    setup_.clock = random_.of(std::vector<std::int64_t>(std::begin(START_TIMES), std::end(START_TIMES)));
    choose_options();
    add_sources();
    choose_board();
}

/// Gives an option in one of its forms.
void Script::give(const OptionForms &option, const std::string &value) {
    std::vector<std::string> *arguments = &settings_.arguments;
    switch (random_.below(4)) {
    case 0:
        arguments->push_back(std::string(option.letter) + value);
        break;
    case 1:
        arguments->push_back(std::string(option.name) + "=" + value);
        break;
    case 2:
        arguments->insert(arguments->end(), {option.name, value});
        break;
    default:
        arguments->insert(arguments->end(), {option.letter, value});
        break;
    }
}

/// Gives an option one of the values; returns the value that the daemon uses.
std::int64_t Script::choose(const OptionForms &option, const std::vector<OptionValue> &values) {
    const OptionValue value = random_.of(values);
    give(option, value.text);
    return value.taken_for;
}

void Script::choose_options() {
    settings_.log_size = choose(LOG_SIZE, LOG_SIZES);
    settings_.log_count = static_cast<int>(choose(LOG_COUNT, LOG_COUNTS));
    settings_.record_level = static_cast<int>(choose(RECORD_LEVEL, RECORD_LEVELS));
    settings_.severity = static_cast<int>(choose(SEVERITY, SEVERITIES));
    setup_.arguments = settings_.arguments;
    if (random_.once_in(3)) { // an existing log, perhaps a full one
        setup_.old_log =
            std::string(static_cast<std::size_t>(random_.of<std::int64_t>({100, 9000, 20000})), '#') + "\n";
    }
}

void Script::choose_board() {
    setup_.inputs = healthy_board();
    for (const std::string &unit : units()) {
        setup_.inputs.push_back(any_load_state(&random_, unit));
    }
    if (random_.once_in(2)) {
        setup_.inputs.push_back(any_lan_configuration(&random_));
    }
    if (random_.once_in(3)) { // with a random beginning
        for (const Input &input : board_inputs(setup_.clock)) {
            setup_.inputs.push_back(input);
        }
    }
}

void Script::add(std::int64_t period, int delay, std::function<Input()> draw) {
    sources_.push_back(
        {.period = period, .delay = delay, .draw = [draw = std::move(draw)] { return std::vector<Input>{draw()}; }});
}

void Script::add_sources() {
    Random *random = &random_;
    add(10, 5, [random] { return any_temperature(random); });
    add(10, 5, [random] { return any_memory(random); });
    add(3600, 1, [random] { return any_emmc(random); });
    for (const std::string &path : mount_points()) {
        add(900, 5, [random, path] { return any_disk(random, path); });
    }
    add(60, 10, [random] { return any_bluetooth(random); });
    add(60, 10, [random] { return any_link(random, ETHERNET_FILE); });
    add(60, 10, [random] { return any_link(random, WIFI_FILE); });
    add(60, 10, [this] {
        lan_traffic_ = any_traffic(&random_, "eth0");
        return traffic();
    });
    add(60, 10, [this] {
        wifi_traffic_ = any_traffic(&random_, "wlan0sta");
        return traffic();
    });
    add(60, 10, [this] {
        quality_ = any_quality(&random_);
        return wireless_file(&random_, quality_, strength_);
    });
    add(10, 4, [this] {
        strength_ = any_strength(&random_);
        return wireless_file(&random_, quality_, strength_);
    });
    for (const std::string &unit : units()) {
        add(10, 70, [random, unit] { return any_active_state(random, unit); });
    }
    add(180, 1, [this] {
        if (random_.once_in(4)) {
            load_ = any_load(&random_);
        }
        return any_cpu(&random_, load_, counters_);
    });
    add(300, 5, [random] { return any_lan_configuration(random); });
    add(300, 5, [random] { return any_wifi_configuration(random); });
    sources_.push_back({.period = 100, .delay = 5, .draw = [this] { return any_networkd(&random_, &networkd_time_); }});
}

/// A number of samples close to the confirmation delay.
std::int64_t Script::samples(int delay) {
    switch (random_.below(6)) {
    case 0:
        return 1;
    case 1:
        return delay - 1;
    case 2:
        return delay + 1;
    case 3:
        return random_.between(1, 3 * static_cast<std::int64_t>(delay));
    default:
        return delay;
    }
}

std::vector<Input> Script::inputs(std::int64_t now) {
    std::vector<Input> all = rare_inputs();
    for (Input &input : board_inputs(now)) {
        all.push_back(std::move(input));
    }
    return all;
}

std::vector<Input> Script::board_inputs(std::int64_t now) {
    std::vector<Input> all;
    for (Source &source : sources_) {
        if (now >= source.until) {
            for (Input input : source.draw()) {
                if (input.kind == Input::Kind::write && random_.once_in(40)) {
                    garble(&random_, &input);
                }
                all.push_back(input);
            }
            source.until = now - now % source.period + samples(source.delay) * source.period;
        }
    }
    return all;
}

std::vector<Input> Script::rare_inputs() {
    std::vector<Input> rare;
    if (random_.once_in(100)) {
        rare.push_back({.kind = Input::Kind::sigusr1, .target = "", .text = ""});
    }
    for (const char *issue : {"CB31[0]", "CB32[0]"}) {
        if (random_.once_in(60)) {
            rare.push_back({.kind = Input::Kind::child_ends, .target = issue, .text = ""});
        }
    }
    if (random_.once_in(300)) {
        rare.push_back({.kind = Input::Kind::generation_lost, .target = std::to_string(random_.below(3)), .text = ""});
    }
    if (random_.once_in(beats_with_bus_)) {
        rare.push_back({.kind = Input::Kind::bus_lost, .target = "", .text = ""});
    }
    if (random_.once_in(10)) {
        rare.push_back({.kind = Input::Kind::bus_back, .target = "", .text = ""});
    }
    return rare;
}

std::vector<Input> Script::questions() {
    if (random_.once_in(15)) {
        return {{.kind = Input::Kind::ask_listing, .target = "", .text = ""}};
    }
    if (random_.once_in(100)) {
        return {{.kind = Input::Kind::ask_availability,
                 .target = random_.text_of({"WiFi", "WiFi0", "LAN", "LANxyz", "Cell", "wifi", "Bluetooth", ""}),
                 .text = random_.text_of({"0", "1"})}};
    }
    return {};
}

std::int64_t Script::next_beat(std::int64_t now) {
    const std::int64_t dice = random_.below(1000);
    if (dice < 850) {
        return next_multiple(now, pace_);
    }
    if (dice < 910) {
        return next_multiple(now, random_.of<std::int64_t>({10, 60}));
    }
    if (dice < 980) {
        return next_multiple(now, random_.of<std::int64_t>({20, 180, 180, 900, 900, 3600}));
    }
    if (dice < 988) {
        return now; // twice in the same second
    }
    if (dice < 996) {
        return now + random_.between(1, 19);
    }
    return now - random_.of<std::int64_t>({1, 9, 10, 60, 100, 600}); // the clock was set back
}

} // namespace model
