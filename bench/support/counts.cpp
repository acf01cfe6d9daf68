#include "counts.h"

#include <cstdlib>
#include <sstream>
#include <sys/wait.h>

CallCounts counts_of(const std::string &report) {
    CallCounts counts;
    for (const std::string &line : lines_of(report)) {
        std::istringstream words(line);
        std::string ignored;
        double calls = 0;
        if (words >> ignored >> ignored >> ignored >> calls) {
            counts[line.substr(line.rfind(' ') + 1)] = calls;
        }
    }
    return counts;
}

double instructions_of(const Command &command, const std::string &report) {
    Command words{"valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", "--log-file=" + report};
    words.insert(words.end(), command.begin(), command.end());
    waitpid(start(words), nullptr, 0);
    double count = 0;
    for (const std::string &line : lines_of(report)) {
        const std::size_t at = line.find("Collected : ");
        count = at == std::string::npos ? count : std::strtod(line.c_str() + line.rfind(' '), nullptr);
    }
    return count;
}
