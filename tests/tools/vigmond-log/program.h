#pragma once

// Runs the program on files of the test.

#include "log_text.h"
#include "scratch_folder.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/wait.h>

struct Ran {
    int status;
    std::string out;
    std::string err;
};

struct Program : testing::Test {
    /// Runs the program in UTC with `words`, in shell syntax. `before` are shell words before it, `runner` starts it.
    [[nodiscard]] Ran run(const std::string &words, const std::string &before = "",
                          const std::string &runner = "") const {
        const std::string command = before + " TZ=UTC NO_COLOR= " + runner + " " VIGMOND_LOG " " + words + " >'" +
                                    (scratch / "out") + "' 2>'" + (scratch / "err") + "'";
        const int status = std::system(command.c_str()); // NOLINT(cert-env33-c): our own command line
        return {.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status),
                .out = read_file(scratch / "out"),
                .err = read_file(scratch / "err")};
    }
    ScratchFolder scratch;
};
