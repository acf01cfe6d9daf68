#include "init.h"

#include "analyzer.h"
#include "captured_traces.h"
#include "dbus-srv.h"
#include "gdata.h"
#include "in_child.h"
#include "logfile.h"
#include "logger.h"
#include "notifier.h"
#include "sample_task.h"
#include "signals.h"

#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

std::vector<std::string> calls;
std::string raise_in; ///< the module whose initialisation raises SIGUSR1

int record(const char *what) {
    calls.emplace_back(what);
    if (raise_in == what) {
        raise(SIGUSR1);
    }
    return -1; // results are ignored
}

int init_first(Task * /*task*/) { return record("first"); }
int init_second(Task * /*task*/) { return record("second"); }
int init_third(Task * /*task*/) { return record("third"); }

} // namespace

// Linked instead of the modules' own.
int analyzer_init() { return record("analyzer"); }
int notifier_init() { return record("notifier"); }
int logger_init() { return record("logger"); }
int logfile_init() { return record("logfile"); }
int d_bus_srv_init() { return record("bus"); }

namespace {

class InitTest : public testing::Test {
  public:
    ~InitTest() override { gdata_set_tasks({.first = nullptr, .last = nullptr, .count = 0}); }

  protected:
    InitTest() {
        tasks[0].init = init_first;
        tasks[0].name = "one";
        tasks[1].init = init_second;
        tasks[1].name = "two";
        tasks[2].init = init_third;
        tasks[2].name = "three";
        tasks[0].next = &tasks[1];
        tasks[1].next = &tasks[2];
        gdata_set_tasks({.first = tasks, .last = &tasks[2], .count = 3});
        calls.clear();
        raise_in.clear();
    }

    Task tasks[3]{sample_task(), sample_task(), sample_task()};
};

TEST_F(InitTest, InitialisesTheModulesThenTheTasksInOrderWhateverTheyReturn) {
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(calls, (std::vector<std::string>{"analyzer", "notifier", "logger", "logfile", "bus", "first", "second",
                                               "third"}));
}

TEST_F(InitTest, SkipsATaskThatIsNotRunnable) {
    tasks[1].flags &= ~std::uint32_t{TASK_RUNNABLE};
    const CapturedTraces traces;
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(calls, (std::vector<std::string>{"analyzer", "notifier", "logger", "logfile", "bus", "first", "third"}));
    EXPECT_TRUE(traces.has("init", "init two"));
}

TEST_F(InitTest, TracesEveryTask) {
    const CapturedTraces traces;
    init();
    EXPECT_EQ(traces.texts_of("init"), (std::vector<std::string>{" ", "init one", "init two", "init three", "DONE"}));
    std::string levels;
    for (const CapturedTrace &trace : traces.all()) {
        if (trace.function == "init") {
            EXPECT_EQ(trace.code_file, "CODE_FILE=init.c");
            levels += trace.line.at(1);
        }
    }
    EXPECT_EQ(levels, "13333");
}

TEST_F(InitTest, NeedsNoTasks) {
    gdata_set_tasks({.first = nullptr, .last = nullptr, .count = 0});
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(calls.back(), "bus");
}

TEST_F(InitTest, TakesASignalBeforeTheNextStep) {
    const std::vector<std::string> steps{"analyzer", "notifier", "logger", "logfile",
                                         "bus",      "first",    "second", "third"};
    for (const std::string &step : steps) {
        in_child([&] {
            signals_block();
            std::signal(SIGUSR1, [](int) { calls.emplace_back("signal"); });
            raise_in = step;
            init();
            std::vector<std::string> expected;
            for (const std::string &each : steps) {
                expected.push_back(each);
                if (each == step) {
                    expected.emplace_back("signal");
                }
            }
            EXPECT_EQ(calls, expected);
        });
    }
}

} // namespace
