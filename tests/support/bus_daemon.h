#pragma once

// The bus service in its own process (see bus_daemon_main.cpp), controlled by a test.

#include "child_process.h"
#include "private_bus.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

enum class Traces { none, to_stderr };

/// The command line: the emulator if there is one, then the program; empty words are dropped.
inline std::vector<std::string> bus_daemon_command(Traces traces, const std::string &argument) {
    std::vector<std::string> command;
    std::istringstream words(BUS_DAEMON);
    for (std::string word; std::getline(words, word, '|');) {
        if (!word.empty()) {
            command.push_back(word);
        }
    }
    if (traces == Traces::to_stderr) {
        command.emplace_back("trace");
    }
    command.push_back(argument);
    return command;
}

class BusDaemon {
  public:
    explicit BusDaemon(const PrivateBus &bus, Traces traces = Traces::none, const std::string &argument = "")
        : child_(bus_daemon_command(traces, argument), {bus.variable()}) {}
    /// Shows the last traces of a test that has failed.
    ~BusDaemon() {
        if (testing::Test::HasFailure()) {
            constexpr std::size_t most = 40;
            const std::vector<std::string> lines = child_.errors().lines();
            for (std::size_t i = lines.size() - std::min(most, lines.size()); i < lines.size(); ++i) {
                std::cerr << "traced: " << lines[i] << "\n";
            }
        }
    }
    BusDaemon(const BusDaemon &) = delete;
    BusDaemon &operator=(const BusDaemon &) = delete;

    /// Sends one command without waiting for it.
    void tell(const std::string &command) { child_.write(command + "\n"); }
    /// Sends one command and waits until it was executed.
    bool obey(const std::string &command) {
        tell(command);
        const auto answer = child_.output().wait_for("ok", seen_);
        seen_ = answer.value_or(seen_) + 1;
        return answer.has_value();
    }
    ChildProcess &process() { return child_; }
    /// Waits for a trace line with `text`.
    bool traced(const std::string &text) { return child_.errors().wait_for(text).has_value(); }
    /// Waits for a trace line of `function` with `text`; returns its number.
    std::optional<std::size_t> find_trace(const std::string &function, const std::string &text) {
        const std::string place = " " + function + "(";
        std::optional<std::size_t> line = child_.errors().wait_for(place);
        while (line && child_.errors().line(*line).find(text) == std::string::npos) {
            line = child_.errors().wait_for(place, *line + 1);
        }
        return line;
    }
    /// The number of trace lines so far with `text`.
    std::size_t count_traces(const std::string &text) {
        std::size_t found = 0;
        for (const std::string &line : child_.errors().lines()) {
            found += line.find(text) != std::string::npos ? 1 : 0;
        }
        return found;
    }

  private:
    ChildProcess child_;
    std::size_t seen_ = 0;
};
