#pragma once

#include <filesystem>
#include <string>

/// A temporary folder for a test, removed with its contents at the end.
class ScratchFolder {
  public:
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder &) = delete;
    ScratchFolder &operator=(const ScratchFolder &) = delete;

    [[nodiscard]] const std::filesystem::path &path() const { return path_; }
    /// The path of `name` in it.
    [[nodiscard]] std::string operator/(const std::string &name) const { return path_ / name; }
    /// Writes a file in it and returns its path.
    std::string write(const std::string &name, const std::string &content) const; // NOLINT(modernize-use-nodiscard)

  private:
    std::filesystem::path path_;
};

/// The whole content of a file; empty when there is none.
std::string read_file(const std::string &path);
