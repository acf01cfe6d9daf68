#include "board_folder.h"

#include "rig_failure.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

constexpr const char *PROC = "/proc/";
constexpr const char *PROC_NET = "/proc/net/";
constexpr const char *HOST_FOLDERS[] = {"/bin", "/sbin", "/lib", "/lib32", "/lib64", "/libx32", "/usr", "/opt"};
constexpr const char *HOST_FILES[] = {"/etc/ld.so.cache", "/etc/passwd", "/etc/group", "/etc/nsswitch.conf"};
constexpr const char *DEVICES[] = {"/dev/null", "/dev/zero", "/dev/full", "/dev/random", "/dev/urandom"};

bool is_in_proc(const std::string &path) { return path.starts_with(PROC); }

void make_folders(const std::string &path) {
    std::error_code error;
    fs::create_directories(path, error);
    if (error) {
        rig_failure("folder " + path + ": " + error.message());
    }
}

void write_file(const std::string &path, const std::string &content) {
    std::ofstream file(path, std::ios::binary);
    file << content << std::flush;
    if (!file) {
        rig_failure_of("write " + path);
    }
}

} // namespace

BoardFolder::BoardFolder(const Board &board, std::string scratch)
    : scratch_(std::move(scratch)), root_(scratch_ + "/board"), small_disks_(board.small_disks()) {
    for (const auto &[path, content] : board.files()) {
        faked_.push_back(path);
    }
    std::copy(board.folders().begin(), board.folders().end(), std::back_inserter(faked_));
    read_only_.assign(board.read_only_folders().begin(), board.read_only_folders().end());
    lay_out(board);
}

void BoardFolder::lay_out(const Board &board) const {
    for (const char *folder : {"/dev", "/proc", "/run/systemd/journal", "/sys", "/tmp"}) {
        make_folders(root_ + folder);
    }
    make_folders(scratch_ + "/work");
    for (const std::string &folder : board.folders()) {
        make_folders(host_path(folder));
    }
    for (const auto &[path, content] : board.files()) {
        write(path, content);
    }
}

std::string BoardFolder::host_path(const std::string &path) const {
    return (is_in_proc(path) ? scratch_ : root_) + path;
}

void BoardFolder::write(const std::string &path, const std::string &content) const {
    const std::string file = host_path(path);
    make_folders(fs::path(file).parent_path());
    if (is_in_proc(path)) {
        write_file(file, content);
        return;
    }
    write_file(file + ".new", content);
    std::error_code error;
    fs::rename(file + ".new", file, error);
    if (error) {
        rig_failure("replace " + file + ": " + error.message());
    }
}

void BoardFolder::remove(const std::string &path) const {
    std::error_code error;
    if (!fs::remove(host_path(path), error)) {
        rig_failure("remove " + path + ": " + error.message());
    }
}

void BoardFolder::make_fifo(const std::string &path) const {
    const std::string file = host_path(path);
    make_folders(fs::path(file).parent_path());
    std::error_code ignored;
    fs::remove(file, ignored);
    if (mkfifo(file.c_str(), S_IRUSR | S_IWUSR) != 0) {
        rig_failure_of("mkfifo " + file);
    }
}

bool BoardFolder::has_files_below(const std::string &folder) const {
    return std::any_of(faked_.begin(), faked_.end(),
                       [&folder](const std::string &path) { return path.starts_with(folder + "/"); });
}

/// A folder that contains files of the board belongs to the board; only the host's other folders in it are
/// mounted.
// NOLINTNEXTLINE(misc-no-recursion): as deep as the faked paths
void BoardFolder::show_host_folder(const std::string &folder, std::vector<Mount> *mounts) const {
    std::error_code error;
    const std::string target = root_ + folder;
    if (fs::is_symlink(folder, error)) {
        fs::copy_symlink(folder, target, error); // fails in a second run, where it exists
    } else if (!fs::is_directory(folder, error)) {
        return;
    } else if (!has_files_below(folder)) {
        show_at_same_path(folder, mounts);
    } else {
        for (const auto &entry : fs::directory_iterator(folder, error)) {
            show_host_folder(entry.path(), mounts);
        }
    }
}

void BoardFolder::show_at_same_path(const std::string &folder, std::vector<Mount> *mounts) const {
    make_folders(root_ + folder);
    mounts->push_back({.source = folder, .target = root_ + folder});
}

void BoardFolder::show_devices(std::vector<Mount> *mounts) const {
    for (const char *device : DEVICES) {
        write_file(root_ + device, "");
        mounts->push_back({.source = device, .target = root_ + device});
    }
}

/// Of the host's /etc the board only sees what programs need to start, and the names of users.
void BoardFolder::show_host_files(std::vector<Mount> *mounts) const {
    for (const char *file : HOST_FILES) {
        std::error_code error;
        if (fs::is_regular_file(file, error)) {
            make_folders(fs::path(root_ + file).parent_path());
            write_file(root_ + file, "");
            mounts->push_back({.source = file, .target = root_ + file});
        }
    }
}

/// The host's /proc with the board's files mounted over it; /proc/net is the process's own folder.
void BoardFolder::show_proc(std::vector<Mount> *mounts) const {
    mounts->push_back({.source = "/proc", .target = root_ + "/proc"});
    if (has_files_below("/proc/net")) {
        mounts->push_back({.source = scratch_ + "/proc/net", .target = root_ + "/proc/self/net"});
    }
    for (const std::string &path : faked_) {
        if (is_in_proc(path) && !path.starts_with(PROC_NET)) {
            mounts->push_back({.source = host_path(path), .target = root_ + path});
        }
    }
}

Sandbox BoardFolder::sandbox(const std::vector<std::string> &programs) const {
    Sandbox result{.root = root_, .mounts = {}, .directory = scratch_ + "/work"};
    for (const char *folder : HOST_FOLDERS) {
        show_host_folder(folder, &result.mounts);
    }
    show_at_same_path(scratch_, &result.mounts);
    for (const std::string &program : programs) {
        show_at_same_path(fs::path(program).parent_path(), &result.mounts);
    }
    show_host_files(&result.mounts);
    show_devices(&result.mounts);
    show_proc(&result.mounts);
    for (const std::string &path : read_only_) {
        result.mounts.push_back({.source = "", .target = root_ + path});
    }
    for (const auto &[path, bytes] : small_disks_) {
        result.mounts.push_back({.source = "", .target = root_ + path, .memory = bytes});
    }
    return result;
}
