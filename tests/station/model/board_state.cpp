#include "board_state.h"

#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace model {

namespace {

using Kind = Input::Kind;

constexpr const char *NAMES[] = {"write",          "remove",       "folder",       "disk",
                                 "disk_error",     "emmc",         "emmc_error",   "load_state",
                                 "load_error",     "active_state", "active_error", "networkd_time",
                                 "networkd_error", "bus_lost",     "bus_back",     "generation_lost",
                                 "sigusr1",        "child_ends",   "ask_listing",  "ask_availability"};

std::string escaped(const std::string &text) {
    constexpr std::size_t enough = 400;
    std::string result;
    for (const char c : text.substr(0, enough)) {
        if (c == '\n') {
            result += "\\n";
        } else if (std::isprint(static_cast<unsigned char>(c)) != 0) {
            result += c;
        } else {
            std::array<char, 8> code{};
            std::snprintf(code.data(), code.size(), "\\x%02x", static_cast<unsigned char>(c));
            result += code.data();
        }
    }
    return text.size() <= enough ? result : result + "... (" + std::to_string(text.size()) + " bytes)";
}

void set_error(Property *property, const std::string &text) {
    const std::vector<std::string> words = words_of(text);
    property->error = words[0];
    property->errors_left = number_in(words[1]);
}

void set_value(Property *property, const std::string &text) {
    property->value = text;
    property->errors_left = 0;
}

Disk disk_of(const std::string &text) {
    const std::vector<std::string> words = words_of(text);
    return {.blocks = std::strtoull(words[0].c_str(), nullptr, 10),
            .free = std::strtoull(words[1].c_str(), nullptr, 10),
            .available = std::strtoull(words[2].c_str(), nullptr, 10)};
}

Emmc emmc_of(const std::string &text) {
    const std::vector<std::string> words = words_of(text);
    return {.revision = number_in(words[0]), .type_a = number_in(words[1]), .type_b = number_in(words[2])};
}

} // namespace

std::string text_of(const Input &input) {
    return std::string(NAMES[static_cast<int>(input.kind)]) + " " + input.target + " \"" + escaped(input.text) + "\"";
}

int number_in(const std::string &text) { return static_cast<int>(std::strtol(text.c_str(), nullptr, 10)); }

std::vector<std::string> words_of(const std::string &text) {
    std::istringstream stream(text);
    std::vector<std::string> words;
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    return words;
}

void BoardState::take(const Input &input) {
    switch (input.kind) {
    case Kind::write:
        files[input.target] = {.kind = File::Kind::regular, .content = input.text};
        break;
    case Kind::remove:
        files[input.target] = {};
        break;
    case Kind::folder:
        files[input.target] = {.kind = File::Kind::folder, .content = ""};
        break;
    case Kind::disk:
        disks[input.target] = disk_of(input.text);
        break;
    case Kind::disk_error:
        disks[input.target] = {.fails = true, .error = number_in(input.text)};
        break;
    case Kind::emmc:
        emmc = emmc_of(input.text);
        break;
    case Kind::emmc_error:
        emmc.error = number_in(input.text);
        break;
    case Kind::load_state:
        set_value(&units[input.target].load_state, input.text);
        break;
    case Kind::load_error:
        set_error(&units[input.target].load_state, input.text);
        break;
    case Kind::active_state:
        set_value(&units[input.target].active_state, input.text);
        break;
    case Kind::active_error:
        set_error(&units[input.target].active_state, input.text);
        break;
    case Kind::networkd_time:
        set_value(&networkd, input.text);
        break;
    case Kind::networkd_error:
        set_error(&networkd, input.text);
        break;
    case Kind::bus_lost:
        bus = Bus::lost;
        connection_is_dead = true;
        break;
    case Kind::bus_back:
        bus = Bus::up;
        break;
    default: // does not affect the board
        break;
    }
}

const File &BoardState::file(const std::string &path) const {
    static const File missing;
    const auto found = files.find(path);
    return found == files.end() ? missing : found->second;
}

BoardState board_after(const std::vector<Input> &inputs, bool has_bus) {
    BoardState board;
    board.bus = has_bus ? BoardState::Bus::up : BoardState::Bus::none;
    for (const Input &input : inputs) {
        board.take(input);
    }
    return board;
}

bool ask(Property *property, std::string *value, std::string *error) {
    if (property->errors_left == 0) {
        *value = property->value;
        return true;
    }
    property->errors_left -= property->errors_left > 0 ? 1 : 0;
    *error = property->error;
    return false;
}

} // namespace model
