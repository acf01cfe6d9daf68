#include "in_child.h"

#include "ended_by_exception.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

int run_child(const std::function<void()> &body) {
    std::fflush(nullptr); // otherwise both processes write what is buffered now
    const pid_t child = fork();
    if (child == 0) {
        ended_by_exception(body); // it must not continue with its parent's tests
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? CHILD_FAILED : CHILD_DONE);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
}

void in_child(const std::function<void()> &body) {
    const int status = run_child(body);
    EXPECT_TRUE(WIFEXITED(status)) << "wait status " << status;
    EXPECT_EQ(WEXITSTATUS(status), CHILD_DONE) << "the child's own failures stand above";
}
