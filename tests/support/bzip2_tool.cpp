#include "bzip2_tool.h"

#include "scratch_folder.h"

#include <array>
#include <cstdio>
#include <random>

namespace {

std::string output_of(const std::string &command) {
    std::FILE *pipe = popen(command.c_str(), "re"); // NOLINT(cert-env33-c): our own command line
    if (pipe == nullptr) {
        return "not started: " + command;
    }
    std::string output;
    std::array<char, 4096> piece{};
    while (const std::size_t count = std::fread(piece.data(), 1, piece.size(), pipe)) {
        output.append(piece.data(), count);
    }
    const int status = pclose(pipe);
    return status == 0 ? output : "failed: " + command;
}

} // namespace

std::string bunzip2(const std::string &path) { return output_of("bunzip2 -c '" + path + "' 2>&1"); }

std::string bzip2(const std::string &text, const std::string &options) {
    const ScratchFolder folder;
    return output_of("bzip2 -c " + options + " '" + folder.write("text", text) + "'");
}

std::string log_text(std::size_t size) {
    std::mt19937 random(1); // NOLINT(cert-msc51-cpp): the same text every time
    std::string text;
    std::array<char, 64> line{};
    while (text.size() < size) {
        std::snprintf(line.data(), line.size(), "2024-05-01 10:%02u:%02u\tOK\tCB%02u\t0\t%u\n", unsigned(random() % 60),
                      unsigned(random() % 60), unsigned(random() % 33), unsigned(random() % 1000));
        text += line.data();
    }
    text.resize(size);
    return text;
}

std::string noise(std::size_t size) {
    std::mt19937 random(2); // NOLINT(cert-msc51-cpp): the same bytes every time
    std::string bytes(size, '\0');
    for (char &byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}
