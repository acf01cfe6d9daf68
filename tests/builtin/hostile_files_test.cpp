// The probes with an endless file, a huge file or a folder in place of the one they read.

#include "builtin.h"
#include "captured_traces.h"
#include "hang_guard.h"
#include "in_child.h"
#include "network.h"
#include "redirected_open.h"
#include "sample_task.h"
#include "scratch_folder.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

namespace {

struct Reader {
    const char *name;
    TaskOperation init;
    TaskOperation exec;
    std::int32_t id;
    const char *path;    ///< that it opens; null when the task's parameter is the path
    const char *endless; ///< outcome with a device that yields zero bytes
    const char *huge;    ///< outcome with 500 GB of zero bytes
    const char *text;    ///< outcome with 500 GB after 64 KiB of "a a a a ..."
    const char *folder;
};

constexpr std::array READERS = std::to_array<Reader>({
    {"temperature", temperature_init, temperature_exec, 20, nullptr, "error 22", "error 22", "error 22", "error 22"},
    {"memory", memoryusage_init, memoryusage_exec, 21, "/proc/meminfo", "error 22", "error 22", "error 22", "error 22"},
    {"wear", wearout_init, wearout_exec, 7, nullptr, "error 25", "error 25", "error 25", "error 25"},
    {"disk", diskusage_init, diskusage_exec, 22, nullptr, "a share", "error 22", "error 22", "a share"},
    {"bluetooth", bluetooth_init, bluetooth_exec, 5, nullptr, "value 0", "value 0", "value 0", "value 0"},
    {"Ethernet", ethernet_init, ethernet_exec, 11, nullptr, "value 0", "value 0", "value 0", "value 0"},
    {"EthernetLink", ethernet_init, ethernet_exec, 12, nullptr, "value 1", "value 1", "value 1", "error 21"},
    {"traffic", internet_init, internet_exec, 10, "/proc/net/dev", "error 2", "error 2", "error 2", "error 2"},
    {"WiFiLink", wireless_init, wireless_exec, 2, nullptr, "value 1", "value 1", "value 1", "error 22"},
    {"WiFiQuality", wireless_init, wireless_exec, 4, nullptr, "error 22", "error 22", "error 22", "error 22"},
    {"WiFiStrength", wireless_init, wireless_exec, 9, nullptr, "error 22", "error 22", "error 22", "error 22"},
    {"load", load_init, load_exec, 31, "/proc/stat", "error -1", "error -1", "value 0", "error -1"},
});

class HostileFile : public testing::TestWithParam<Reader> {
  protected:
    /// The outcome with `file` in place of the reader's own.
    static std::string outcome(const Reader &reader, const std::string &file) {
        RedirectedOpen open;
        Task task = sample_task();
        task.id = reader.id;
        task.parameter = file.c_str();
        if (reader.path != nullptr) {
            task.parameter = "eth0";
            open.redirect(reader.path, file);
        }
        EXPECT_EQ(reader.init(&task), 0);
        if (reader.exec(&task) != 0) {
            return "error " + std::to_string(task.error);
        }
        const bool is_share = reader.exec == diskusage_exec && task.value >= 0 && task.value <= 100;
        return is_share ? "a share" : "value " + std::to_string(task.value);
    }

    /// Replaces the reader's file.
    static void expect_outcome(const std::string &file, const char *expected) {
        in_child([&] {
            const HangGuard guard;
            const CapturedTraces traces;
            lan_available = wifi_available = 1;
            EXPECT_EQ(outcome(GetParam(), file), expected);
        });
    }

    ScratchFolder folder;
};

constexpr std::uintmax_t HUGE_SIZE = 500'000'000'000;

} // namespace

TEST_P(HostileFile, EndlessDoesNotBlock) { expect_outcome("/dev/zero", GetParam().endless); }

TEST_P(HostileFile, HugeDoesNotBlock) {
    const std::string file = folder.write("huge", "");
    std::filesystem::resize_file(file, HUGE_SIZE);
    expect_outcome(file, GetParam().huge);
}

TEST_P(HostileFile, WithAHugeLineDoesNotBlock) {
    std::string text;
    while (text.size() < 65536) {
        text += "a ";
    }
    const std::string file = folder.write("line", text);
    std::filesystem::resize_file(file, HUGE_SIZE);
    expect_outcome(file, GetParam().text);
}

TEST_P(HostileFile, FolderDoesNotBlock) { expect_outcome(folder.path(), GetParam().folder); }

INSTANTIATE_TEST_SUITE_P(Of, HostileFile, testing::ValuesIn(READERS),
                         [](const testing::TestParamInfo<Reader> &reader) { return std::string(reader.param.name); });

// For the eMMC device see the wearout test. The other files belong to the kernel: only root can put a pipe there.
TEST(Pipes, AreNotOpenedToMeasureADisk) {
    in_child([] {
        const HangGuard guard;
        const ScratchFolder folder;
        const std::string pipe = folder / "pipe";
        ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
        Task task = sample_task();
        task.parameter = pipe.c_str();
        EXPECT_EQ(diskusage_exec(&task), 0);
    });
}
