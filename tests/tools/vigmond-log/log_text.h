#pragma once

// Writes status logs for tests and reads them back.

#include "station_log.h"

#include <gmock/gmock.h>
#include <string>
#include <vector>

/// A header block with two checks.
inline std::string header(const std::string &stamp, const std::string &occasion,
                          const std::string &command_line = "vigmond") {
    return "##\n##\t" + stamp + "\t" + occasion + "\t" + command_line +
           "\n##\n"
           "##\tname        \t    ID\t    ID\tinter-\t   min\t   min\t   max\t   max\tparam\n"
           "##\t            \t      \t index\t   val\t  fail\t  warn\t  warn\t  fail\t\n"
           "##\ttemperature \t  CB20\t     0\t    10\t   -40\t   -30\t    70\t    80\t/sys/temp\n"
           "##\tmemoryusage \t  CB21\t     0\t    10\t    10\t    25\t   NaN\t   NaN\n"
           "## date    time    \tstate\tID\tindex\tvalue\n";
}

inline std::string finished(const std::string &stamp) { return "##\n##\t" + stamp + "\tFINISHED\tvigmond\n##\n"; }

inline std::string record(const std::string &stamp, const std::string &state, const std::string &check,
                          const std::string &value) {
    return stamp + "\t" + state + "\t" + check + "\t0\t" + value + "\n";
}

/// The content of a log, one line per event.
struct ReadLog {
    std::vector<std::string> events;
    std::vector<std::string> problems;
    std::vector<vlog::Definition> checks;
    vlog::LogCounts counts;
};

inline std::string text_of(const vlog::Event &event, const vlog::StationLog &log) {
    std::string text = vlog::iso_text(event.time) + " ";
    if (event.is_set_back) {
        text += "set back by " + std::to_string(event.set_back) + " ";
    }
    switch (event.kind) {
    case vlog::EventKind::start:
        return text + (event.is_unclean ? "unclean start" : "start");
    case vlog::EventKind::rotate:
        return text + "rotate";
    case vlog::EventKind::finished:
        return text + "finished";
    default:
        break;
    }
    const vlog::CheckId check = log.checks()[event.check].check;
    return text + vlog::state_label(event.state) + " " + vlog::issue_text(check.issue) + "[" +
           std::to_string(check.index) + "] " + (event.readable ? std::to_string(event.value) : "NaN");
}

inline ReadLog read_log(const std::vector<std::string> &paths, unsigned threads = 2) {
    ReadLog read;
    vlog::StationLog log({.name = "station", .paths = paths}, threads, nullptr,
                         [&read](const std::string &path, const std::string &problem) {
                             read.problems.push_back(path.substr(path.rfind('/') + 1) + " " + problem);
                         });
    vlog::Event event;
    while (log.next(&event)) {
        read.events.push_back(text_of(event, log));
        event = {};
    }
    read.checks = log.checks();
    read.counts = log.counts();
    return read;
}
