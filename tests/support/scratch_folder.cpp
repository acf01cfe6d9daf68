#include "scratch_folder.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

ScratchFolder::ScratchFolder() {
    std::string name = std::filesystem::temp_directory_path() / "vigmond-test-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        std::fprintf(stderr, "no scratch folder: %s\n", name.c_str());
        std::abort();
    }
    path_ = name;
}

ScratchFolder::~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string ScratchFolder::write(const std::string &name, const std::string &content) const {
    std::string file = *this / name;
    std::ofstream(file, std::ios::binary) << content;
    return file;
}

std::string read_file(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}
