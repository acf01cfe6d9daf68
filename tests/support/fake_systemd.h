#pragma once

// A fake systemd (see fake_systemd_main.cpp) in its own process. Programs that use it are built with FAKE_SYSTEMD, its
// command line with the words separated by "|".

#include "child_process.h"
#include "private_bus.h"

#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

inline constexpr const char *LOAD_STATE = "LoadState";
inline constexpr const char *ACTIVE_STATE = "ActiveState";
inline constexpr const char *CHANGE_TIME = "StateChangeTimestampMonotonic";
inline constexpr const char *NETWORKD = "systemd_2dnetworkd_2eservice";

class FakeSystemd {
  public:
    /// Is on the bus when constructed.
    explicit FakeSystemd(const PrivateBus &bus) : child_(command(), {bus.variable()}) { connect(); }

    /// Connects to the bus, again if necessary.
    void connect() { EXPECT_EQ(obey("connect"), 1) << "no connection to the bus"; }
    /// Sends one command and waits until it was executed; returns the number in the answer, -1 without one.
    int obey(const std::string &line) {
        child_.write(line + "\n");
        const auto answer = child_.output().wait_for("ok", seen_);
        if (!answer) {
            ADD_FAILURE() << "no answer to " << line;
            return -1;
        }
        seen_ = *answer + 1;
        return std::stoi(child_.output().line(*answer).substr(3));
    }

    // A unit is the last part of its object path, "nginx_2eservice".

    void load(const std::string &unit, const std::string &state = "loaded") {
        obey("set " + unit + " LoadState s " + state);
    }
    void activate(const std::string &unit, const std::string &state = "active") {
        obey("set " + unit + " ActiveState s " + state);
    }
    void change_time(const std::string &number) {
        obey(std::string("set ") + NETWORKD + " " + CHANGE_TIME + " t " + number);
    }
    /// "System.Error.EINTR" makes the caller's call fail with -4, and so on; `times` -1 is for ever.
    void fail(const std::string &unit, const std::string &property, const std::string &error, int times = -1) {
        obey("error " + unit + " " + property + " " + error + " " + std::to_string(times));
    }
    /// Sends a process a signal while the n-th call from now waits for its reply.
    void strike(pid_t pid, int signo, int nth) {
        obey("strike " + std::to_string(pid) + " " + std::to_string(signo) + " " + std::to_string(nth));
    }
    int count(const std::string &unit, const std::string &property) { return obey("count " + unit + " " + property); }
    /// The number of calls so far.
    int total() { return obey("total"); }

  private:
    static std::vector<std::string> command() {
        std::vector<std::string> words;
        std::istringstream line(FAKE_SYSTEMD);
        for (std::string word; std::getline(line, word, '|');) {
            if (!word.empty()) {
                words.push_back(word);
            }
        }
        return words;
    }

    ChildProcess child_;
    std::size_t seen_ = 0;
};
