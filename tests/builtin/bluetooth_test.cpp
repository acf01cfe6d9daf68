#include "captured_traces.h"
#include "link_probe_test.h"
#include "scratch_folder.h"

#include <gmock/gmock.h>
#include <string>

namespace {

using testing::ElementsAre;
using testing::StartsWith;

constexpr std::int32_t ID = 5;

class BluetoothTest : public LinkProbeTest {
  protected:
    /// The run always succeeds and leaves the status log's mark alone.
    static void expect_presence(const std::string &file, std::int32_t value) {
        for (const int do_logfile : {0, 1}) {
            Task task = link_task(ID, file.c_str());
            task.do_logfile = static_cast<std::uint8_t>(do_logfile);
            EXPECT_EQ(bluetooth_exec(&task), 0);
            EXPECT_TRUE(task_has(&task, TASK_VALUE_VALID));
            EXPECT_EQ(task.value, value) << file;
            EXPECT_EQ(task.error, 0);
            EXPECT_EQ(task.do_logfile, do_logfile);
        }
    }

    ScratchFolder folder;
};

TEST_F(BluetoothTest, InitMarksTheTask) { expect_init_marks(bluetooth_init, "bluetooth_init"); }

TEST_F(BluetoothTest, IsPresentWhateverTheFileSays) {
    for (const char *content : {"active\n", "suspended\n", "unsupported\n", "error\n", "down\n", ""}) {
        expect_presence(folder.write("runtime_status", content), 0);
    }
    expect_presence(folder.path(), 0); // a folder
}

TEST_F(BluetoothTest, IsMissingWithoutTheFile) {
    expect_presence(folder / "runtime_status", 1);
    expect_presence(folder.write("file", "") + "/runtime_status", 1); // ENOTDIR
    expect_presence("", 1);
}

TEST_F(BluetoothTest, IsMeasuredWithAllPathsSwitchedOff) {
    lan_available = wifi_available = 0;
    expect_presence(folder.path(), 0);
}

TEST_F(BluetoothTest, TracesThePathAndTheValue) {
    const std::string file = folder / "runtime_status";
    Task task = link_task(ID, file.c_str());
    const CapturedTraces traces;
    bluetooth_exec(&task);
    EXPECT_THAT(traces.texts_of("bluetooth_exec"), ElementsAre(" ", file + ": 1"));
    EXPECT_THAT(traces.all()[0].line, StartsWith("(2) "));
    EXPECT_THAT(traces.all()[1].line, StartsWith("(3) "));
    EXPECT_EQ(traces.all()[1].code_file, "CODE_FILE=builtin/bluetooth.c");
}

// The logger knows two states: a warning is written as a failure.
TEST_F(BluetoothTest, LogsWhetherTheHardwareIsAvailable) {
    EXPECT_THAT(
        written_by(bluetooth_logger, ID, 0),
        ElementsAre(SyslogMessage{PRIORITY_NOTICE, "[notice] ID: CB05[2]: value: 5 Bluetooth hardware is available."}));
    for (const int state : {-2, -1, 1, 2, 4, 7}) {
        EXPECT_THAT(written_by(bluetooth_logger, ID, state),
                    ElementsAre(SyslogMessage{PRIORITY_FAILED,
                                              "[failed] ID: CB05[2]: value: 5 Bluetooth hardware is not available."}));
    }
}

TEST_F(BluetoothTest, LogsNothingUnlessMarked) { expect_silent_unless_marked(bluetooth_logger, ID); }

TEST_F(BluetoothTest, TracesTheEntryOfTheLogger) {
    Task task = sample_task();
    const CapturedTraces traces;
    bluetooth_logger(&task);
    EXPECT_THAT(traces.texts_of("bluetooth_logger"), ElementsAre(" "));
    EXPECT_THAT(traces.all()[0].line, StartsWith("(2) "));
}

} // namespace
