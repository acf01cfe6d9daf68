#include "textfile.h"

#include "raised_issues.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <set>
#include <sys/stat.h>

namespace vlog {

namespace {

constexpr off_t HEADER_SIZE = 16384;      // every file starts with the table of checks, about 3 kB
constexpr off_t TAIL_SIZE = 131072;       // more than an hour of records, so that it contains every check
constexpr std::size_t PIECE_SIZE = 16384; // of both; a page less to touch saves more time than it takes to read it
constexpr std::size_t MOST_BEFORE = 262144;
constexpr std::int64_t MOST_SILENCE = 60; // six heartbeats

constexpr const char *VALUE = "vigmond_check_value";
constexpr const char *STATE = "vigmond_check_state";
constexpr const char *LAST = "vigmond_check_last_record_timestamp_seconds";
constexpr const char *RAISED = "vigmond_issue_raised";

/// Up to `most` bytes of the file.
std::string begin_of(const Descriptor &file, std::size_t most) {
    struct stat status {};
    if (fstat(file.get(), &status) != 0) {
        return {};
    }
    std::string text(std::min(most, static_cast<std::size_t>(status.st_size)), '\0');
    std::size_t count = 0;
    while (count < text.size()) {
        const ssize_t more = pread(file.get(), text.data() + count, text.size() - count, static_cast<off_t>(count));
        if (more <= 0) {
            break;
        }
        count += static_cast<std::size_t>(more);
    }
    text.resize(count);
    return text;
}

/// Whole lines of a part of a file, piece by piece.
class Pieces {
  public:
    Pieces(const Descriptor &file, off_t begin, off_t end) : file_(file), at_(begin), end_(end), in_line_(begin > 0) {}

    /// Reads on; false at the end.
    bool read() {
        const auto most = std::min<std::uint64_t>(bytes_.size() - size_, static_cast<std::uint64_t>(end_ - at_));
        const ssize_t more = pread(file_.get(), bytes_.data() + size_, static_cast<std::size_t>(most), at_);
        if (more <= 0) {
            return false;
        }
        at_ += more;
        size_ += static_cast<std::size_t>(more);
        if (in_line_) {
            const std::size_t line_end = text().find('\n');
            in_line_ = line_end == std::string_view::npos;
            drop(in_line_ ? size_ : line_end + 1);
        }
        return true;
    }

    [[nodiscard]] std::string_view text() const { return {bytes_.data(), size_}; }

    /// Keeps the rest, which has no line feed, before the next piece. Skips a line that is longer than a piece.
    void drop(std::size_t used) {
        size_ -= used;
        std::memmove(bytes_.data(), bytes_.data() + used, size_);
        if (size_ == bytes_.size()) {
            in_line_ = true;
            size_ = 0;
        }
    }

  private:
    const Descriptor &file_;
    off_t at_;
    off_t end_;
    std::array<char, PIECE_SIZE> bytes_{};
    std::size_t size_ = 0;
    bool in_line_; ///< whose beginning is not read
};

class Tail {
  public:
    void read(const Descriptor &file, off_t begin, off_t end) {
        TextReader reader;
        for (Pieces pieces(file, begin, end); pieces.read();) {
            for (std::size_t used = 1; used > 0;) {
                used = reader.read(pieces.text(), &chunk_);
                pieces.drop(used);
                for (const Item &item : chunk_.items) {
                    take(item, chunk_);
                }
                chunk_.clear();
            }
        }
    }

    PresentLog finish() {
        found_.last = before_.value_or(0);
        for (const Present &each : found_.checks) {
            std::string &names = found_.issues[each.check.check.issue];
            if (("," + names + ",").find("," + each.check.name + ",") == std::string::npos) {
                names += (names.empty() ? "" : ",") + each.check.name;
            }
        }
        std::erase_if(found_.checks, [](const Present &each) { return each.time == 0; });
        return std::move(found_);
    }

  private:
    Present *find(CheckId check) {
        for (Present &each : found_.checks) {
            if (each.check.check == check) {
                return &each;
            }
        }
        if (found_.checks.size() == MOST_CHECKS) {
            return nullptr;
        }
        found_.checks.emplace_back();
        found_.checks.back().check.check = check;
        return &found_.checks.back();
    }

    void take(const Item &item, const Chunk &chunk) {
        if (item.kind() == ItemKind::definition) {
            const Definition &definition = chunk.definitions[item.place()];
            if (Present *present = find(definition.check)) {
                present->check = definition;
            }
        } else if (item.kind() == ItemKind::record) {
            take_record(item);
        } else {
            found_.is_running =
                item.kind() != ItemKind::finished && (found_.is_running || item.kind() == ItemKind::start);
        }
    }

    void take_record(const Item &item) {
        Present *present = find(item.check());
        if (present == nullptr || item.local() == NO_TIME) {
            return;
        }
        before_ = clock_.moment_of(item.local(), before_);
        found_.is_running = true;
        present->time = *before_;
        present->value = item.readable() ? std::optional(item.value()) : std::nullopt;
        present->state = item.readable() ? std::optional(item.state()) : present->state;
    }

    Chunk chunk_;
    PresentLog found_;
    LocalClock clock_;
    std::optional<Moment> before_;
};

/// The family of the raised issues. The other issues of the log are 0, so that alerts resolve.
std::string raised_lines(std::map<std::int16_t, std::string> issues, const std::set<std::int16_t> &raised) {
    std::string text = std::string("# HELP ") + RAISED + " Whether an issue is raised.\n# TYPE " + RAISED + " gauge\n";
    for (const std::int16_t issue : raised) {
        issues.try_emplace(issue);
    }
    for (const auto &[issue, names] : issues) {
        text += std::string(RAISED) + "{issue=\"" + issue_text(issue) + "\",label=\"" + quoted_label(names) + "\"} " +
                (raised.contains(issue) ? "1" : "0") + "\n";
    }
    return text;
}

/// The old lines of a family, for checks whose labels are not among `labels`.
std::string kept_lines(const std::string &before, const std::string &family, const std::set<std::string> &labels) {
    std::string kept;
    for (std::size_t at = 0; at < before.size();) {
        const std::size_t end = std::min(before.find('\n', at), before.size());
        const std::string line = before.substr(at, end - at);
        at = end + 1;
        const std::size_t close = line.rfind("} ");
        if (line.starts_with(family + "{") && close != std::string::npos &&
            !labels.contains(line.substr(family.size() + 1, close - family.size() - 1))) {
            kept += line + "\n";
        }
    }
    return kept;
}

} // namespace

std::optional<PresentLog> read_present(const std::string &path, std::string *problem) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) {
        *problem = path + ": " + std::strerror(errno);
        return std::nullopt;
    }
    if (!S_ISREG(status.st_mode)) {
        *problem = path + ": not a regular file";
        return std::nullopt;
    }
    Tail tail;
    const off_t begin = std::max<off_t>(status.st_size - TAIL_SIZE, 0);
    tail.read(file, 0, std::min(HEADER_SIZE, begin));
    tail.read(file, begin, status.st_size);
    return tail.finish();
}

std::string textfile_text(const PresentLog &log, const std::string &before, Moment now,
                          const std::optional<std::set<std::int16_t>> &raised) {
    std::string values =
        std::string("# HELP ") + VALUE + " The value of a check, in its own unit.\n# TYPE " + VALUE + " gauge\n";
    std::string states = std::string("# HELP ") + STATE + " The state of a check: 0 is OK, 1 WARN, 2 FAIL.\n# TYPE " +
                         STATE + " gauge\n";
    std::string times = std::string("# HELP ") + LAST + " When a check was last recorded.\n# TYPE " + LAST + " gauge\n";
    std::set<std::string> labels;
    for (const Present &present : log.checks) {
        const std::string label = label_text("", present.check);
        labels.insert(label);
        values +=
            std::string(VALUE) + "{" + label + "} " + (present.value ? std::to_string(*present.value) : "NaN") + "\n";
        times += std::string(LAST) + "{" + label + "} " + std::to_string(present.time) + "\n";
        if (present.state) {
            states += std::string(STATE) + "{" + label + "} " + std::to_string(static_cast<int>(*present.state)) + "\n";
        }
    }
    const bool is_up = log.is_running && (log.level != Level::all || now - log.last <= MOST_SILENCE);
    return values + kept_lines(before, VALUE, labels) + states + kept_lines(before, STATE, labels) + times +
           kept_lines(before, LAST, labels) + (raised ? raised_lines(log.issues, *raised) : "") +
           "# HELP vigmond_up Whether the daemon runs, according to its log.\n# TYPE vigmond_up gauge\nvigmond_up " +
           (is_up ? "1" : "0") + "\n";
}

int export_textfile(Session *session, Moment now) {
    const std::string &path = session->arguments().textfile;
    std::string problem;
    const std::optional<PresentLog> log = read_present(session->stations().front().paths.back(), &problem);
    if (!log) {
        session->complain(problem);
        return session->status();
    }
    std::optional<std::set<std::int16_t>> raised;
    if (session->arguments().bus && !(raised = raised_issues(&problem))) {
        session->complain(problem);
    }
    const Descriptor old(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    Output output(path);
    output.write(textfile_text(*log, old ? begin_of(old, MOST_BEFORE) : "", now, raised));
    session->note_read();
    return session->finish(&output);
}

} // namespace vlog
