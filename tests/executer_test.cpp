#include "executer.h"

#include "captured_traces.h"
#include "sample_task.h"

#include <gtest/gtest.h>

namespace {

TEST(Executer, ReturnsTheProbesResult) {
    Task task = sample_task();
    task.exec = [](Task *given) {
        given->value = 7;
        return given->id;
    };
    task.id = -22;
    EXPECT_EQ(executer(&task), -22);
    EXPECT_EQ(task.value, 7);
}

TEST(Executer, ReturnsMinusOneWithoutAProbe) {
    Task task = sample_task();
    EXPECT_EQ(executer(&task), -1);
}

TEST(Executer, TracesItsEntryAtLevel2WhateverFollows) {
    const CapturedTraces traces;
    Task task = sample_task();
    executer(&task);
    task.exec = [](Task *) { return 0; };
    executer(&task);
    ASSERT_EQ(traces.all().size(), 2U);
    for (const CapturedTrace &entry : traces.all()) {
        EXPECT_TRUE(entry.line.starts_with("(2) [")) << entry.line;
        EXPECT_EQ(entry.code_file, "CODE_FILE=executer.c");
        EXPECT_EQ(entry.function, "executer");
        EXPECT_EQ(entry.text, " ");
    }
}

} // namespace
