#include "log_folder.h"

#include "handle.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <dirent.h>
#include <map>
#include <memory>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

namespace vlog {

namespace {

struct CloseFolder {
    void operator()(DIR *folder) const { closedir(folder); }
};

/// The number in "logfile.012.bz2" and the name before it.
struct Generation {
    std::string log;
    int number;
};

std::optional<Generation> generation_of(const std::string &name) {
    constexpr std::string_view suffix = ".bz2";
    if (!name.ends_with(suffix)) {
        return std::nullopt;
    }
    const std::size_t end = name.size() - suffix.size();
    const std::size_t dot = name.rfind('.', end - 1);
    if (dot == std::string::npos || dot == 0 || end - dot < 4 || end - dot > 7 ||
        !std::all_of(name.begin() + static_cast<std::ptrdiff_t>(dot) + 1,
                     name.begin() + static_cast<std::ptrdiff_t>(end),
                     [](char each) { return each >= '0' && each <= '9'; })) {
        return std::nullopt;
    }
    int number = 0;
    std::from_chars(name.data() + dot + 1, name.data() + end, number);
    return Generation{.log = name.substr(0, dot), .number = number};
}

/// The numbers of the generations by log name; the log itself is -1.
using Logs = std::map<std::string, std::set<int>>;

std::optional<Logs> logs_in(const std::string &path) {
    const std::unique_ptr<DIR, CloseFolder> folder(opendir(path.c_str()));
    if (folder == nullptr) {
        return std::nullopt;
    }
    Logs logs;
    std::set<std::string> names;
    while (const dirent *entry = readdir(folder.get())) {
        names.insert(entry->d_name);
        if (const std::optional<Generation> generation = generation_of(entry->d_name)) {
            logs[generation->log].insert(generation->number);
        }
    }
    if (names.contains("logfile")) {
        logs["logfile"];
    }
    for (auto &[log, numbers] : logs) {
        if (names.contains(log)) {
            numbers.insert(-1);
        }
    }
    return logs;
}

bool is_folder(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

bool exists(const std::string &path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0;
}

/// The name of a station: the last part of the path.
std::string name_of(std::string path) {
    const std::unique_ptr<char, FreeMemory> real(realpath(path.c_str(), nullptr));
    if (real != nullptr) {
        path = real.get();
    }
    while (path.size() > 1 && path.ends_with('/')) {
        path.pop_back();
    }
    return path.substr(path.rfind('/') + 1);
}

/// Whether labels, file names and commands can use the name without quotes.
bool is_station_name(const std::string &name) {
    return !name.empty() && std::none_of(name.begin(), name.end(), [](char each) {
        return static_cast<unsigned char>(each) <= ' ' || each == 127 || std::strchr("\"'\\<>&", each) != nullptr;
    });
}

class NamedPaths {
  public:
    bool take(const std::string &argument) {
        const std::size_t equals = argument.find('=');
        if (equals == std::string::npos || exists(argument)) {
            return is_folder(argument) ? add_folder(name_of(argument), argument) : add_file(argument);
        }
        const std::string name = argument.substr(0, equals);
        const std::string path = argument.substr(equals + 1);
        if (!is_station_name(name)) {
            problem_ = "'" + name + "' is not a station name: it must not be empty or contain blanks or quotes";
            is_usage_ = true;
            return false;
        }
        if (is_folder(path) ? !add_folder(name, path) : !is_readable(path)) {
            return false;
        }
        if (!is_folder(path)) {
            stations_.push_back({.name = name, .paths = {path}});
        }
        stations_.back().is_named = true;
        return true;
    }

    [[nodiscard]] const std::vector<StationFiles> &stations() const { return stations_; }
    [[nodiscard]] const std::string &problem() const { return problem_; }
    [[nodiscard]] bool is_usage() const { return is_usage_; }

  private:
    bool add_folder(const std::string &name, const std::string &folder) {
        const std::optional<std::vector<std::string>> paths = log_paths(folder, &problem_);
        if (!paths) {
            return false;
        }
        stations_.push_back({.name = name, .paths = *paths});
        return std::all_of(paths->begin(), paths->end(), [this](const std::string &path) { return is_readable(path); });
    }

    bool add_file(const std::string &path) {
        if (!is_readable(path)) {
            return false;
        }
        struct stat status {};
        if (path != "-" && stat(path.c_str(), &status) == 0 && !seen_.insert({status.st_dev, status.st_ino}).second) {
            return true;
        }
        if (!files_) {
            files_ = stations_.size();
            stations_.push_back({.name = path == "-" ? "-" : name_of(path), .paths = {}});
        }
        stations_[*files_].paths.push_back(path);
        return true;
    }

    bool is_readable(const std::string &path) {
        if (path != "-" && access(path.c_str(), R_OK) != 0) {
            problem_ = path + ": " + std::strerror(errno);
            return false;
        }
        return true;
    }

    std::vector<StationFiles> stations_;
    std::string problem_;
    bool is_usage_ = false;
    std::set<std::pair<dev_t, ino_t>> seen_;
    std::optional<std::size_t> files_; ///< the station of all files without a name
};

} // namespace

std::optional<std::vector<std::string>> log_paths(const std::string &folder, std::string *problem) {
    std::string ignored;
    std::string &text = problem == nullptr ? ignored : *problem;
    const std::optional<Logs> logs = logs_in(folder);
    if (!logs) {
        text = folder + ": " + std::strerror(errno);
        return std::nullopt;
    }
    auto log = logs->find("logfile");
    if (log == logs->end() && logs->size() == 1) {
        log = logs->begin();
    }
    if (log == logs->end()) {
        text = folder + (logs->empty() ? ": there is no status log in this folder"
                                       : ": there are several logs in this folder; name the files of one");
        return std::nullopt;
    }
    std::vector<std::string> paths;
    for (auto number = log->second.rbegin(); number != log->second.rend(); ++number) {
        std::array<char, 32> suffix{};
        if (*number >= 0) {
            std::snprintf(suffix.data(), suffix.size(), ".%03d.bz2", *number);
        }
        paths.push_back(folder + "/" + log->first + suffix.data());
    }
    return paths;
}

std::optional<std::vector<StationFiles>> stations_of(const std::vector<std::string> &arguments, std::string *problem,
                                                     bool *is_usage) {
    NamedPaths all;
    for (const std::string &argument : arguments) {
        if (!all.take(argument)) {
            *problem = all.problem();
            *is_usage = all.is_usage();
            return std::nullopt;
        }
    }
    return all.stations();
}

} // namespace vlog
