#pragma once

// A board as a folder, the root of the daemon's namespace. Tests change files in it while the daemon runs.

#include "board.h"
#include "sandbox.h"

#include <cstddef>
#include <map>
#include <string>
#include <vector>

class BoardFolder {
  public:
    /// Creates the board below `scratch`, an empty folder that has the same path inside the namespace.
    BoardFolder(const Board &board, std::string scratch);

    /// The path on this machine of a path on the board.
    [[nodiscard]] std::string host_path(const std::string &path) const;
    /// Creates or replaces a file; a file in /proc must exist from the start and is rewritten in place.
    void write(const std::string &path, const std::string &content) const;
    void remove(const std::string &path) const;
    /// Creates a FIFO in place of a file.
    void make_fifo(const std::string &path) const;
    /// A folder with the same path inside and outside, for paths in the daemon's arguments.
    [[nodiscard]] const std::string &scratch() const { return scratch_; }

    /// The root: the host's programs and libraries, the folders of `programs`, and the board's files over the
    /// host's. The working directory is "work" in scratch().
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
