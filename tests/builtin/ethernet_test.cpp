#include "captured_traces.h"
#include "link_probe_test.h"
#include "probe_read.h"
#include "redirected_open.h"
#include "scratch_folder.h"

#include <cerrno>
#include <gmock/gmock.h>
#include <string>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr std::int32_t HARDWARE = 11;
constexpr std::int32_t LINK = 12;

class EthernetTest : public LinkProbeTest {
  protected:
    ScratchFolder folder;
    std::string missing = folder / "nowhere";
};

TEST_F(EthernetTest, InitMarksTheTask) { expect_init_marks(ethernet_init, "ethernet_init"); }

// --- the text

TEST(OperstateParse, IsUpIfItBeginsWithUp) {
    for (const char *line : {"up\n", "up", "UP\n", "Up", "uP\r\n", "up and running", "upside"}) {
        EXPECT_EQ(operstate_parse(line).value, 0) << line;
        EXPECT_EQ(operstate_parse(line).error, 0) << line;
    }
}

TEST(OperstateParse, IsDownOtherwise) {
    for (const char *line : {"down\n", "unknown\n", "dormant\n", "lowerlayerdown\n", "notpresent\n", "testing\n", " up",
                             "u", "u p", "\n", "", "1"}) {
        EXPECT_EQ(operstate_parse(line).value, 1) << line;
        EXPECT_EQ(operstate_parse(line).error, 0) << line;
    }
}

// --- hardware

TEST_F(EthernetTest, HardwareIsFineWhenTheFileOpens) {
    for (const char *content : {"up\n", "down\n", ""}) {
        const std::string file = folder.write("operstate", content);
        expect_measured(ethernet_exec, link_task(HARDWARE, file.c_str()), 0);
    }
    expect_measured(ethernet_exec, link_task(HARDWARE, folder.path().c_str()), 0); // opens, cannot be read
}

TEST_F(EthernetTest, HardwareIsBadWhenTheFileDoesNotOpen) {
    expect_measured(ethernet_exec, link_task(HARDWARE, missing.c_str()), 1);
    for (const int error : {EACCES, EMFILE, 0}) {
        RedirectedOpen open;
        open.fail(error);
        expect_measured(ethernet_exec, link_task(HARDWARE, folder.path().c_str()), 1);
    }
}

// --- link

TEST_F(EthernetTest, LinkFollowsTheFirstLine) {
    struct Case {
        std::string content;
        std::int32_t value;
    };
    const Case cases[]{{"up\n", 0},
                       {"UP\n", 0},
                       {"up", 0},
                       {"down\n", 1},
                       {"unknown\n", 1},
                       {"dormant\n", 1},
                       {"\nup\n", 1},
                       {"down\nup\n", 1},
                       {std::string(5000, 'u'), 1},
                       {"up" + std::string(5000, 'x'), 0},
                       {std::string("\0up\n", 4), 1}};
    for (const Case &given : cases) {
        const std::string file = folder.write("operstate", given.content);
        expect_measured(ethernet_exec, link_task(LINK, file.c_str()), given.value);
    }
}

TEST_F(EthernetTest, LinkIsDownInAnEmptyFileWhateverErrnoWas) {
    const std::string file = folder.write("operstate", "");
    errno = EIO;
    expect_measured(ethernet_exec, link_task(LINK, file.c_str()), 1);
}

TEST_F(EthernetTest, LinkFailsWithTheErrorOfTheRead) {
    expect_failed(ethernet_exec, link_task(LINK, folder.path().c_str()), EISDIR);
}

TEST_F(EthernetTest, LinkFailsWith22WhenTheFileDoesNotOpen) {
    expect_failed(ethernet_exec, link_task(LINK, missing.c_str()), 22);
    for (const int error : {EACCES, EMFILE, 0}) {
        RedirectedOpen open;
        open.fail(error);
        expect_failed(ethernet_exec, link_task(LINK, folder.path().c_str()), 22);
    }
}

TEST_F(EthernetTest, AnyOtherIdFailsWith22) {
    const std::string file = folder.write("operstate", "up\n");
    for (const std::int32_t id : {0, 10, 13, 99}) {
        expect_failed(ethernet_exec, link_task(id, file.c_str()), 22);
        expect_failed(ethernet_exec, link_task(id, missing.c_str()), 22);
    }
}

// --- the path switched off

TEST_F(EthernetTest, SkipsItsRunWhileTheLanIsSwitchedOff) {
    const std::string file = folder.write("operstate", "up\n");
    for (const std::int32_t flag : {0, 2, -1}) {
        lan_available = flag;
        for (const std::int32_t id : {HARDWARE, LINK, 99}) {
            Task task = link_task(id, file.c_str());
            task.flags |= TASK_VALUE_VALID;
            const RedirectedOpen open;
            const CapturedTraces traces;
            EXPECT_EQ(ethernet_exec(&task), -1);
            EXPECT_EQ(task.error, SWITCHED_OFF);
            EXPECT_EQ(task.do_logfile, 0);
            EXPECT_EQ(task.value, STALE_VALUE);
            EXPECT_FALSE(task_has(&task, TASK_VALUE_VALID));
            EXPECT_EQ(open.count(), 0);
            EXPECT_THAT(traces.texts_of("ethernet_exec"), ElementsAre(" ")); // only the entry
        }
    }
}

TEST_F(EthernetTest, IgnoresTheWifi) {
    wifi_available = 0;
    const std::string file = folder.write("operstate", "up\n");
    expect_measured(ethernet_exec, link_task(LINK, file.c_str()), 0);
}

// --- traces

TEST_F(EthernetTest, TracesAFailureUnderTheIssue) {
    struct Case {
        std::int32_t id;
        const char *text;
    };
    for (const Case &given : {Case{LINK, "CB12 FAILED!"}, Case{10, "CB12 FAILED!"}, Case{99, "CB12 FAILED!"}}) {
        Task task = link_task(given.id, missing.c_str());
        const CapturedTraces traces;
        ethernet_exec(&task);
        EXPECT_THAT(traces.texts_of("ethernet_exec"), ElementsAre(" ", given.text));
        EXPECT_THAT(traces.all()[0].line, StartsWith("(2) "));
        EXPECT_THAT(traces.all()[1].line, StartsWith("(3) "));
        EXPECT_EQ(traces.all()[1].code_file, "CODE_FILE=builtin/ethernet.c");
    }
}

TEST_F(EthernetTest, TracesOnlyTheEntryOfASuccess) {
    Task task = link_task(HARDWARE, missing.c_str());
    const CapturedTraces traces;
    ethernet_exec(&task);
    EXPECT_THAT(traces.texts_of("ethernet_exec"), ElementsAre(" "));
}

// --- the logger

TEST_F(EthernetTest, LogsTheSentenceOfTheIssue) {
    struct Case {
        std::int32_t id;
        const char *good;
        const char *bad;
    };
    for (const Case &given : {Case{HARDWARE, "[notice] ID: CB11[2]: value: 5 Ethernet hardware available and usable.",
                                   "[failed] ID: CB11[2]: value: 5 Ethernet hardware not available or not usable."},
                              Case{LINK, "[notice] ID: CB12[2]: value: 5 Ethernet connection is established.",
                                   "[failed] ID: CB12[2]: value: 5 Ethernet connection could not be established."}}) {
        EXPECT_THAT(written_by(ethernet_logger, given.id, 0), ElementsAre(SyslogMessage{PRIORITY_NOTICE, given.good}));
        for (const int state : {-2, -1, 1, 2, 4, 7}) {
            EXPECT_THAT(written_by(ethernet_logger, given.id, state),
                        ElementsAre(SyslogMessage{PRIORITY_FAILED, given.bad}));
        }
    }
}

TEST_F(EthernetTest, LogsNothingForAnyOtherIdAndClearsTheMark) {
    for (const std::int32_t id : {0, 10, 13, 99}) {
        EXPECT_THAT(written_by(ethernet_logger, id, 2), IsEmpty());
    }
}

TEST_F(EthernetTest, TracesTheEntryOfTheLogger) {
    Task task = sample_task();
    const CapturedTraces traces;
    ethernet_logger(&task);
    EXPECT_THAT(traces.texts_of("ethernet_logger"), ElementsAre(" "));
    EXPECT_THAT(traces.all()[0].line, StartsWith("(2) "));
}

TEST_F(EthernetTest, LogsNothingUnlessMarked) {
    expect_silent_unless_marked(ethernet_logger, HARDWARE);
    expect_silent_unless_marked(ethernet_logger, LINK);
}

} // namespace
