// The logger before and at its start, which happens once per process.

#include "logger.h"

#include "captured_syslog.h"
#include "captured_traces.h"
#include "sample_task.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int OPTION_PID = 1;
constexpr int OPTION_CONSOLE = 2;
constexpr int FACILITY_DAEMON = 24;

void expect_silence_before_start() {
    const CapturedSyslog syslog;
    const CapturedTraces traces;
    Task task = sample_task();
    task.state = 2;
    task.do_log = 1;
    logger_syslog(2, "too early");
    logger_syslog(7, "too early");
    EXPECT_EQ(threshold_logger(&task), 0);
    EXPECT_EQ(task.do_log, 0);
    EXPECT_THAT(syslog.messages(), IsEmpty());
    EXPECT_THAT(syslog.openings(), IsEmpty());
    EXPECT_FALSE(traces.has("logger_syslog", "======= 2: too early ======="));
}

void expect_opened_by_first_start() {
    const CapturedSyslog syslog;
    const CapturedTraces traces;
    EXPECT_EQ(logger_init(), 0);
    ASSERT_EQ(syslog.openings().size(), 1U);
    EXPECT_STREQ(syslog.openings()[0].identity, "vigmond");
    EXPECT_EQ(syslog.openings()[0].options, OPTION_PID | OPTION_CONSOLE);
    EXPECT_EQ(syslog.openings()[0].facility, FACILITY_DAEMON);
    EXPECT_THAT(syslog.messages(), IsEmpty());
    EXPECT_THAT(traces.texts_of("logger_init"), ElementsAre(" ", "severity_level: unknown", "DONE"));
}

void expect_second_start_opens_nothing() {
    const CapturedSyslog syslog;
    EXPECT_EQ(logger_init(), 0);
    EXPECT_THAT(syslog.openings(), IsEmpty());
    logger_syslog(2, "now");
    EXPECT_THAT(syslog.messages(), ElementsAre(SyslogMessage{3, "[failed] now"}));
}

// One test, since each step depends on the one before.
TEST(LoggerStart, WritesNothingUntilSyslogIsOpenedOnce) {
    expect_silence_before_start();
    expect_opened_by_first_start();
    expect_second_start_opens_nothing();
}

} // namespace
