#include "line_tape.h"

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string_view>

namespace {

constexpr int SETTLED = 12; // passes: the longest delay is 10

std::string record_of(const std::string &line, const std::smatch &parts) {
    const std::string priority = parts[1] == "0" ? "5" : parts[1] == "1" ? "6" : "7";
    std::string record;
    for (const std::string &text :
         {priority, "CODE_FILE=" + parts[3].str(), "CODE_LINE=" + parts[5].str(), parts[4].str(), line}) {
        record += text + '\0';
    }
    return record;
}

} // namespace

LineTapes tapes_of(const std::vector<std::string> &lines) {
    const std::regex shape(R"(\((\d)\) \[(\d+)\] \d\d:\d\d:\d\d (\S+): (\w+)\((\d+)\) .*)");
    LineTapes tapes;
    std::string main_thread;
    std::string previous; ///< function
    int passes = 0;
    for (const std::string &line : lines) {
        std::smatch parts;
        if (!std::regex_match(line, parts, shape)) {
            continue;
        }
        main_thread = main_thread.empty() ? parts[2].str() : main_thread;
        if (parts[2] != main_thread) {
            continue;
        }
        passes += parts[4] == "network_check_daemon" && previous == "timer_suspend" ? 1 : 0; // each pass starts so
        previous = parts[4];
        if (passes == 0) {
            tapes.start += record_of(line, parts);
        } else if (passes == SETTLED) {
            tapes.pass += record_of(line, parts);
            ++tapes.lines_of_pass;
        }
    }
    return tapes;
}
