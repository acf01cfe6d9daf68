#include "paths.h"

#include "readings.h"

#include <algorithm>
#include <cctype>
#include <optional>
#include <strings.h>
#include <utility>

namespace model {

namespace {

// --- the LAN's configuration

struct KeyRow {
    const char *value;
    int stored;
};

constexpr KeyRow UNMANAGED[] = {{"true", 0}, {"yes", 0}, {"false", 1}, {"no", 1}};
constexpr KeyRow ACTIVATION[] = {{"down", 0},      {"always-down", 0}, {"up", 1},
                                 {"always-up", 1}, {"manual", 1},      {"bound", 1}};

template <std::size_t size> void look_up(const KeyRow (&rows)[size], const std::string &value, int *stored) {
    for (const KeyRow &row : rows) {
        if (strcasecmp(row.value, value.c_str()) == 0) {
            *stored = row.stored;
            return;
        }
    }
}

bool is_space(char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; }

std::string without_trailing_space(std::string text) {
    while (!text.empty() && is_space(text.back())) {
        text.pop_back();
    }
    return text;
}

std::string without_leading_space(const std::string &text) {
    return {std::find_if_not(text.begin(), text.end(), is_space), text.end()};
}

/// The position of the first character of `set` or of a comment after white space; the end without either.
std::size_t find_or_comment(const std::string &text, const std::string &set) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (set.find(text[i]) != std::string::npos || (text[i] == ';' && i > 0 && is_space(text[i - 1]))) {
            return i;
        }
    }
    return text.size();
}

bool is_one_of(const std::string &text, std::size_t at, const std::string &set) {
    return at < text.size() && set.find(text[at]) != std::string::npos;
}

} // namespace

void Paths::take_key(const std::string &section, const std::string &name, const std::string &value) {
    if (strcasecmp(section.c_str(), "Link") != 0) {
        return;
    }
    if (strcasecmp(name.c_str(), "Unmanaged") == 0) {
        look_up(UNMANAGED, value, &managed_);
    } else if (strcasecmp(name.c_str(), "ActivationPolicy") == 0) {
        look_up(ACTIVATION, value, &activation_);
    }
}

/// False at the first invalid line; the lines before it still count.
bool Paths::read_lan(const std::string &text) {
    constexpr std::size_t longest = 4095;
    constexpr std::size_t longest_section = 49;
    std::string section;
    for (const std::string &piece : lines_of(text, longest)) {
        const std::string line = without_leading_space(without_trailing_space(piece));
        if (line.empty() || line[0] == ';' || line[0] == '#') {
            continue;
        }
        const bool is_header = line[0] == '[';
        const std::string rest = is_header ? line.substr(1) : line;
        const std::string ends = is_header ? "]" : "=:";
        const std::size_t end = find_or_comment(rest, ends);
        if (!is_one_of(rest, end, ends)) {
            return false;
        }
        if (is_header) {
            section = rest.substr(0, std::min(end, longest_section));
            continue;
        }
        const std::string value = without_leading_space(rest.substr(end + 1));
        take_key(section, without_trailing_space(rest.substr(0, end)),
                 without_trailing_space(value.substr(0, find_or_comment(value, ""))));
    }
    return true;
}

bool Paths::lan_in_use(const File &configuration) {
    if (configuration.kind != File::Kind::regular || !read_lan(configuration.content)) {
        return true;
    }
    if (activation_ == -1) {
        return managed_ == 1;
    }
    return activation_ == 1 && managed_ != 0;
}

// --- the WiFi's configuration

namespace {

/// The elements of a simplified JSON text: objects, strings and primitives. Tracks their nesting, not their
/// contents.
class Elements {
  public:
    /// Reads at most `room` elements; false for an invalid or truncated text.
    bool read(const std::string &text, std::size_t room);
    [[nodiscard]] bool begin_with_object() const { return !all_.empty() && all_[0].kind == Kind::object; }
    [[nodiscard]] bool is_empty() const { return all_.empty(); }

  private:
    enum class Kind { object, string, primitive };
    struct Element {
        Kind kind;
        int parent;
        bool open;
        int children = 0;
    };

    bool take(char c);
    bool take_string();
    bool take_primitive();
    bool open_object();
    bool close_object();
    bool add(Kind kind);
    [[nodiscard]] bool may_be_value() const;
    [[nodiscard]] char next() const { return at_ < text_.size() ? text_[at_] : '\0'; }

    std::string text_;
    std::size_t at_ = 0;
    std::size_t room_ = 0;
    std::vector<Element> all_;
    int inside_ = -1; ///< the parent of the next element
};

bool Elements::read(const std::string &text, std::size_t room) {
    text_ = text.substr(0, std::min(text.find('\0'), text.size()));
    room_ = room;
    while (at_ < text_.size()) {
        if (!take(text_[at_])) {
            return false;
        }
    }
    return std::none_of(all_.begin(), all_.end(), [](const Element &each) { return each.open; });
}

bool Elements::take(char c) {
    if (std::string("+-0123456789FNTfnt").find(c) != std::string::npos) {
        return take_primitive();
    }
    ++at_;
    switch (c) {
    case '\t':
    case '\n':
    case '\r':
    case ' ':
        return true;
    case '{':
        return open_object();
    case '}':
        return close_object();
    case '"':
        return take_string();
    case ':':
        inside_ = static_cast<int>(all_.size()) - 1;
        return true;
    case ',':
        if (inside_ != -1 && all_[static_cast<std::size_t>(inside_)].kind != Kind::object) {
            inside_ = all_[static_cast<std::size_t>(inside_)].parent;
        }
        return true;
    default:
        return false;
    }
}

bool Elements::add(Kind kind) {
    if (all_.size() == room_) {
        return false;
    }
    if (inside_ != -1) {
        ++all_[static_cast<std::size_t>(inside_)].children;
    }
    all_.push_back({.kind = kind, .parent = inside_, .open = kind == Kind::object});
    return true;
}

bool Elements::open_object() {
    if (inside_ != -1 && all_[static_cast<std::size_t>(inside_)].kind == Kind::object) {
        return false;
    }
    const bool added = add(Kind::object);
    inside_ = static_cast<int>(all_.size()) - 1;
    return added;
}

bool Elements::close_object() {
    int each = static_cast<int>(all_.size()) - 1;
    while (each != -1 && !all_[static_cast<std::size_t>(each)].open) {
        each = all_[static_cast<std::size_t>(each)].parent;
    }
    if (each == -1) {
        return false;
    }
    all_[static_cast<std::size_t>(each)].open = false;
    inside_ = all_[static_cast<std::size_t>(each)].parent;
    return true;
}

bool Elements::take_string() {
    for (; next() != '"'; ++at_) {
        if (next() == '\0') {
            return false;
        }
        if (next() != '\\') {
            continue;
        }
        ++at_;
        if (next() == '\0' || std::string("\"/\\bfnrtu").find(next()) == std::string::npos) {
            return false;
        }
        for (int digits = next() == 'u' ? 4 : 0; digits > 0; --digits) {
            ++at_;
            if (std::isxdigit(static_cast<unsigned char>(next())) == 0) {
                return false;
            }
        }
    }
    ++at_;
    return add(Kind::string);
}

bool Elements::may_be_value() const {
    if (inside_ == -1) {
        return true;
    }
    const Element &owner = all_[static_cast<std::size_t>(inside_)];
    return owner.kind != Kind::object && (owner.kind != Kind::string || owner.children == 0);
}

bool Elements::take_primitive() {
    const std::string ends = "\t\n\r ,:]}";
    if (!may_be_value()) {
        return false;
    }
    for (; ends.find(next()) == std::string::npos; ++at_) {
        if (std::isprint(static_cast<unsigned char>(next())) == 0) { // includes the end of the text
            return false;
        }
    }
    return add(Kind::primitive);
}

} // namespace

// The key is compared with the rest of the text, closing quote included, and never matches: any object takes
// the WiFi out of use. Kept.
bool wifi_in_use(const File &configuration) {
    constexpr std::size_t size = 2048;
    constexpr std::size_t room = 32;
    if (configuration.kind == File::Kind::missing) {
        return false;
    }
    Elements elements;
    const bool well_formed = elements.read(configuration.content.substr(0, size), room);
    return !well_formed || elements.is_empty() || !elements.begin_with_object();
}

// --- both

bool Paths::is_unchanged(BoardState *board) {
    std::string now;
    std::string error;
    if (first_ || std::exchange(board->connection_is_dead, false) || !board->has_bus() ||
        !ask(&board->networkd, &now, &error)) {
        return false;
    }
    const bool unchanged = now == networkd_time_;
    networkd_time_ = now;
    return unchanged;
}

void Paths::look(BoardState *board) {
    if (is_unchanged(board)) {
        return;
    }
    lan_ = lan_in_use(board->file(LAN_CONFIGURATION));
    wifi_ = wifi_in_use(board->file(WIFI_CONFIGURATION));
    first_ = false;
}

} // namespace model
