#pragma once

// Shared by the tests of the link probes.

#include "builtin.h"
#include "captured_syslog.h"
#include "captured_traces.h"
#include "logger.h"
#include "network.h"
#include "sample_task.h"

#include <cstdint>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vector>

inline constexpr std::int32_t STALE_VALUE = 77;
inline constexpr int SWITCHED_OFF = 64;

inline constexpr int PRIORITY_FAILED = 3;
inline constexpr int PRIORITY_NOTICE = 5;

/// Both paths switched on, syslog open; restored at the end.
class LinkProbeTest : public testing::Test {
  protected:
    void SetUp() override {
        lan_available = 1;
        wifi_available = 1;
        logger_init();
    }
    void TearDown() override { lan_available = wifi_available = mobile_available = 0; }

    /// A task with an earlier value, prepared as for each run: not valid, error 0.
    static Task link_task(std::int32_t id, const char *parameter) {
        Task task = sample_task();
        task.id = id;
        task.parameter = parameter;
        task.value = STALE_VALUE;
        task.flags &= ~std::uint32_t{TASK_VALUE_VALID};
        return task;
    }

    static void expect_measured(TaskOperation exec, Task task, std::int32_t value) {
        task.do_logfile = 0;
        EXPECT_EQ(exec(&task), 0);
        EXPECT_TRUE(task_has(&task, TASK_VALUE_VALID));
        EXPECT_EQ(task.value, value);
        EXPECT_EQ(task.error, 0);
        EXPECT_EQ(task.do_logfile, 1);
    }

    /// The run clears the valid mark of an earlier value.
    static void expect_failed(TaskOperation exec, Task task, std::int32_t error) {
        task.do_logfile = 0;
        task.flags |= TASK_VALUE_VALID;
        EXPECT_EQ(exec(&task), -1);
        EXPECT_FALSE(task_has(&task, TASK_VALUE_VALID));
        EXPECT_EQ(task.value, STALE_VALUE);
        EXPECT_EQ(task.error, error);
        EXPECT_EQ(task.do_logfile, 1);
    }

    /// The init operation sets the first flag, clears the second and touches no other.
    static void expect_init_marks(TaskOperation init, const char *name) {
        for (const std::uint32_t others : {0U, 0xfffffffcU}) {
            for (const std::uint32_t marks : {0U, 1U, 2U, 3U}) {
                Task task = sample_task();
                task.flags = others | marks;
                const CapturedTraces traces;
                EXPECT_EQ(init(&task), 0);
                EXPECT_EQ(task.flags, others | 1U);
                EXPECT_THAT(traces.texts_of(name), testing::ElementsAre(" "));
            }
        }
    }

    /// What the logger writes for a marked task with value 5; it clears the mark.
    static std::vector<SyslogMessage> written_by(TaskOperation logger, std::int32_t id, int state) {
        Task task = sample_task();
        task.id = id;
        task.index = 2;
        task.value = 5;
        task.state = static_cast<std::int8_t>(state);
        task.do_log = 1;
        const CapturedSyslog syslog;
        EXPECT_EQ(logger(&task), 0);
        EXPECT_EQ(task.do_log, 0);
        return syslog.messages();
    }

    /// Any mark but 1 logs nothing and is left to the dispatcher.
    static void expect_silent_unless_marked(TaskOperation logger, std::int32_t id) {
        for (const int mark : {0, 2, 255}) {
            Task task = sample_task();
            task.id = id;
            task.state = 2;
            task.do_log = static_cast<std::uint8_t>(mark);
            const CapturedSyslog syslog;
            EXPECT_EQ(logger(&task), 0);
            EXPECT_EQ(task.do_log, mark);
            EXPECT_TRUE(syslog.messages().empty());
        }
    }
};
