#include "cleanup.h"

#include "captured_traces.h"
#include "gdata.h"
#include "in_child.h"
#include "logfile.h"
#include "memory_fault.h"
#include "sample_task.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

std::vector<std::string> calls;

/// A handler: records the digit that its argument points to and returns it.
int note(void *argument) {
    const int number = *static_cast<int *>(argument);
    calls.push_back("handler " + std::to_string(number));
    return number;
}

int clean_up(Task *task) {
    calls.push_back(std::string("task ") + task->name);
    return 5;
}

int one = 1;
int two = 2;
int three = 3;

} // namespace

// Linked instead of the status log's.
int logfile_cleanup() {
    calls.emplace_back("status log");
    return 7;
}

namespace {

// Handlers cannot be removed, so every test that adds one runs in a child.
class CleanupTest : public testing::Test {
  public:
    ~CleanupTest() override { gdata_set_tasks({.first = nullptr, .last = nullptr, .count = 0}); }

  protected:
    CleanupTest() { calls.clear(); }
};

TEST_F(CleanupTest, ReturnsMinus1WithoutAHandlerAndClosesTheStatusLog) {
    EXPECT_EQ(cleanup(), -1);
    EXPECT_EQ(calls, std::vector<std::string>{"status log"});
}

TEST_F(CleanupTest, RunsHandlersMostRecentFirstAndReturnsTheResultOfTheLast) {
    in_child([] {
        EXPECT_EQ(cleanup_add(note, &one), 0);
        EXPECT_EQ(cleanup_add(note, &two), 0);
        EXPECT_EQ(cleanup_add(note, &three), 0);
        EXPECT_EQ(cleanup(), 1);
        EXPECT_EQ(calls, (std::vector<std::string>{"handler 3", "handler 2", "handler 1", "status log"}));
    });
}

TEST_F(CleanupTest, PassesANullArgumentOn) {
    in_child([] {
        EXPECT_EQ(cleanup_add([](void *argument) { return argument == nullptr ? 11 : 12; }, nullptr), 0);
        EXPECT_EQ(cleanup(), 11);
    });
}

TEST_F(CleanupTest, RunsTheCleanupOfTasksThatAreRunnableAndHaveOne) {
    struct Case {
        const char *name;
        std::uint32_t flags;
        TaskOperation cleanup;
    };
    const std::vector<Case> cases{
        {"both", TASK_RUNNABLE | TASK_HAS_CLEANUP, clean_up},
        {"no slot", TASK_RUNNABLE | TASK_HAS_CLEANUP, nullptr},
        {"not runnable", TASK_HAS_CLEANUP, clean_up},
        {"not marked", TASK_RUNNABLE, clean_up},
        {"neither", 0, clean_up},
        {"last", TASK_RUNNABLE | TASK_HAS_CLEANUP | TASK_REINIT, clean_up},
    };
    std::vector<Task> tasks(cases.size(), sample_task());
    for (std::size_t i = 0; i < cases.size(); ++i) {
        tasks[i].name = cases[i].name;
        tasks[i].flags = cases[i].flags;
        tasks[i].cleanup = cases[i].cleanup;
        tasks[i].next = i + 1 < cases.size() ? &tasks[i + 1] : nullptr;
    }
    gdata_set_tasks({.first = tasks.data(), .last = &tasks.back(), .count = static_cast<int>(tasks.size())});
    EXPECT_EQ(cleanup(), -1) << "the tasks' results do not count";
    EXPECT_EQ(calls, (std::vector<std::string>{"task both", "task last", "status log"}));
}

TEST_F(CleanupTest, RunsHandlersThenTasksThenTheStatusLog) {
    in_child([] {
        Task task = sample_task();
        task.flags |= TASK_HAS_CLEANUP;
        task.cleanup = clean_up;
        gdata_set_tasks({.first = &task, .last = &task, .count = 1});
        cleanup_add(note, &two);
        EXPECT_EQ(cleanup(), 2);
        EXPECT_EQ(calls, (std::vector<std::string>{"handler 2", "task sample", "status log"}));
    });
}

TEST_F(CleanupTest, TracesEveryTask) {
    Task first = sample_task();
    Task second = sample_task();
    first.name = "one";
    first.id = 7;
    first.flags = 0;
    second.name = "two";
    second.id = 22;
    second.index = 3;
    Task unset = sample_task();
    unset.name = "three";
    unset.id = TASK_ID_UNSET;
    first.next = &second;
    second.next = &unset;
    gdata_set_tasks({.first = &first, .last = &unset, .count = 3});
    const CapturedTraces traces;
    cleanup();
    EXPECT_EQ(traces.texts_of("cleanup"), (std::vector<std::string>{" ", "task: one(CB07[0])", "task: two(CB22[3])",
                                                                    "task: three(CB99[0])", "DONE"}));
    std::string levels;
    for (const CapturedTrace &trace : traces.all()) {
        if (trace.function == "cleanup") {
            EXPECT_EQ(trace.code_file, "CODE_FILE=cleanup.c");
            levels += trace.line.at(1);
        }
    }
    EXPECT_EQ(levels, "13333");
}

TEST_F(CleanupTest, AddTracesItsEntryAndItsEnd) {
    in_child([] {
        const CapturedTraces traces;
        cleanup_add(note, &one);
        EXPECT_EQ(traces.texts_of("cleanup_add"), (std::vector<std::string>{" ", "DONE"}));
        EXPECT_EQ(traces.all().front().function, "cleanup_add");
        EXPECT_EQ(traces.all().front().line.substr(0, 4), "(3) ");
    });
}

TEST_F(CleanupTest, AddLeaksNothingWhenOutOfMemory) {
    in_child([] {
        cleanup_add(note, &one);
        for (const int nth : {1, 2}) { // the node, then its entry
            const CapturedTraces traces;
            {
                const MemoryFault fault(nth);
                EXPECT_EQ(cleanup_add(note, &two), -1) << nth;
                EXPECT_TRUE(MemoryFault::happened()) << nth;
            }
            EXPECT_EQ(traces.texts_of("cleanup_add"), std::vector<std::string>{" "});
            EXPECT_EQ(traces.texts_of("d_list_delete").size(), nth == 1 ? 0U : 1U) << "the node is given back";
        }
        cleanup_add(note, &three);
        cleanup();
        EXPECT_EQ(calls, (std::vector<std::string>{"handler 3", "handler 1", "status log"}));
    });
}

} // namespace
