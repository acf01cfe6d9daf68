#pragma once

// A board laid out in a folder: the root of the daemon's namespace. The test changes files in it while
// the daemon runs.

#include "board.h"
#include "sandbox.h"

#include <cstddef>
#include <map>
#include <string>
#include <vector>

class BoardFolder {
  public:
    /// Lays the board out below `scratch`, an empty folder, which is seen under its own name inside too.
    BoardFolder(const Board &board, std::string scratch);

    /// Where a path of the board is on this machine.
    [[nodiscard]] std::string host_path(const std::string &path) const;
    /// Replaces a file, or makes it; one in /proc has to exist from the start and is rewritten in place.
    void write(const std::string &path, const std::string &content) const;
    void remove(const std::string &path) const;
    /// Makes a FIFO in a file's place.
    void make_fifo(const std::string &path) const;
    /// A folder inside and outside under the same name, for what is given to the daemon as an argument.
    [[nodiscard]] const std::string &scratch() const { return scratch_; }

    /// The root: the host's programs and libraries, the folders in which `programs` lie, and the board's
    /// files over the host's. The working directory is "work" in scratch().
    [[nodiscard]] Sandbox sandbox(const std::vector<std::string> &programs) const;

  private:
    void lay_out(const Board &board) const;
    [[nodiscard]] bool has_files_below(const std::string &folder) const;
    void show_host_folder(const std::string &folder, std::vector<Mount> *mounts) const;
    void show_at_same_path(const std::string &folder, std::vector<Mount> *mounts) const;
    void show_host_files(std::vector<Mount> *mounts) const;
    void show_devices(std::vector<Mount> *mounts) const;
    void show_proc(std::vector<Mount> *mounts) const;

    std::string scratch_;
    std::string root_;
    std::vector<std::string> faked_; ///< all faked paths
    std::vector<std::string> read_only_;
    std::map<std::string, std::size_t> small_disks_;
};
