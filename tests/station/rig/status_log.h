#pragma once

// The text of the status log and of its blocks.

#include "scratch_folder.h"

#include <sstream>
#include <string>
#include <vector>

inline constexpr const char *STATUS_LOG = "/var/lib/evse/vigmond/logfile";

/// The header of the built-in checks; `occasion` is START or ROTATE.
inline std::string header_text(const std::string &stamp, const std::string &occasion, const std::string &command_line) {
    const std::string placeholder = "<time>\tSTART\t/usr/bin/vigmond \"-S\" \"200\"";
    std::string text = read_file(STATION_GOLDEN "/../../golden/logfile_header.txt");
    const std::size_t at = text.find(placeholder);
    if (at == std::string::npos) {
        return "no golden header";
    }
    return text.replace(at, placeholder.size(), stamp + "\t" + occasion + "\t" + command_line);
}

/// The built-in checks in their order, as traces name them: "temperature(CB20[0])".
inline std::vector<std::string> names_of_checks() {
    std::vector<std::string> names;
    std::istringstream header(header_text("", "START", ""));
    for (std::string line; std::getline(header, line);) {
        std::istringstream cells(line);
        std::string mark;
        std::string name;
        std::string label;
        std::string index;
        if (cells >> mark >> name >> label >> index && label.starts_with("CB")) {
            names.push_back(name.append("(").append(label).append("[").append(index).append("])"));
        }
    }
    return names;
}

inline std::string finished_text(const std::string &stamp, const std::string &command_line) {
    return "##\n##\t" + stamp + "\tFINISHED\t" + command_line + "\n##\n";
}

inline std::string text_of(const std::vector<std::string> &lines) {
    std::string text;
    for (const std::string &line : lines) {
        text += line + "\n";
    }
    return text;
}

/// The lines without comments; a last line may lack its line feed.
inline std::vector<std::string> records_in(const std::string &text) {
    std::vector<std::string> records;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (!line.starts_with("##")) {
            records.push_back(lines.eof() ? line + "<torn>" : line);
        }
    }
    return records;
}
