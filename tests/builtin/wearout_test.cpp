#include "builtin.h"
#include "call_results.h"
#include "capabilities.h"
#include "hang_guard.h"
#include "in_child.h"
#include "probe_test.h"
#include "scratch_folder.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/capability.h>
#include <linux/mmc/ioctl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr std::size_t REVISION = 192;
constexpr std::size_t ESTIMATE_A = 268;
constexpr std::size_t ESTIMATE_B = 269;
constexpr std::uint8_t WITH_ESTIMATE = 7;

/// Every register that does not matter holds `others`.
ExtCsd registers(std::uint8_t revision, std::uint8_t a, std::uint8_t b, std::uint8_t others = 0) {
    ExtCsd result{};
    result.fill(others);
    result[REVISION] = revision;
    result[ESTIMATE_A] = a;
    result[ESTIMATE_B] = b;
    return result;
}

struct Estimates {
    std::uint8_t a;
    std::uint8_t b;
    Reading expected;
};

} // namespace

TEST(WearoutDecode, TakesTheLargerEstimateInStepsOfTen) {
    const std::vector<Estimates> cases{
        {0x01, 0x03, Reading::of(30)},  {0x03, 0x01, Reading::of(30)},
        {0x00, 0x00, Reading::of(0)}, // no estimate reported
        {0x01, 0x00, Reading::of(10)},  {0x00, 0x09, Reading::of(90)},
        {0x0A, 0x0A, Reading::of(100)}, {0x0A, 0x01, Reading::of(100)},
    };
    for (const Estimates &item : cases) {
        EXPECT_EQ(wearout_decode(registers(WITH_ESTIMATE, item.a, item.b)), item.expected);
        EXPECT_EQ(wearout_decode(registers(WITH_ESTIMATE, item.a, item.b, 0xFF)), item.expected);
    }
}

TEST(WearoutDecode, RejectsAnExceededLife) {
    const std::vector<Estimates> cases{
        {0x0B, 0x00, {}}, {0x00, 0x0B, {}}, {0x0A, 0x0B, {}}, {0x0C, 0x01, {}}, {0x0F, 0x0F, {}},
    };
    for (const Estimates &item : cases) {
        EXPECT_EQ(wearout_decode(registers(WITH_ESTIMATE, item.a, item.b)), Reading::failed(EINVAL));
    }
}

TEST(WearoutDecode, ReadsOnlyTheLowFourBits) {
    const std::vector<Estimates> cases{
        {0x1A, 0x00, Reading::of(100)}, {0x1A, 0x21, Reading::of(100)}, // 10 and 1: masked before they are compared
        {0xF1, 0x02, Reading::of(20)},  {0xF0, 0xF0, Reading::of(0)},   {0x10, 0x1B, Reading::failed(EINVAL)},
    };
    for (const Estimates &item : cases) {
        EXPECT_EQ(wearout_decode(registers(WITH_ESTIMATE, item.a, item.b)), item.expected);
    }
}

TEST(WearoutDecode, NeedsARevisionAboveSix) {
    for (const std::uint8_t revision : std::vector<std::uint8_t>{0, 5, 6}) {
        EXPECT_EQ(wearout_decode(registers(revision, 1, 3)), Reading::failed(EINVAL)) << unsigned{revision};
    }
    for (const std::uint8_t revision : std::vector<std::uint8_t>{7, 8, 128, 255}) {
        EXPECT_EQ(wearout_decode(registers(revision, 1, 3)), Reading::of(30)) << unsigned{revision};
    }
}

namespace {

std::uint8_t *buffer_of(const mmc_ioc_cmd &command) {
    return reinterpret_cast<std::uint8_t *>(command.data_ptr); // NOLINT(performance-no-int-to-ptr): the kernel's way
}

class Wearout : public testing::Test {
  protected:
    /// The device answers with these registers.
    void device(const ExtCsd &answer) {
        calls.command([answer](int /*fd*/, unsigned long /*request*/, void *argument) {
            const auto *command = static_cast<mmc_ioc_cmd *>(argument);
            std::copy(answer.begin(), answer.end(), buffer_of(*command));
            return 0;
        });
    }

    ScratchFolder scratch;
    std::string path = scratch.write("mmcblk1", "");
    Task task = probe_task(path.c_str());
    CallResults calls;
};

} // namespace

TEST_F(Wearout, MeasuresTheUsedShare) {
    device(registers(WITH_ESTIMATE, 1, 3));
    expect_measured(wearout_exec, task, 30);
    device(registers(WITH_ESTIMATE, 0, 0));
    expect_measured(wearout_exec, task, 0);
}

TEST_F(Wearout, SendsOneCommandForTheRegisters) {
    mmc_ioc_cmd sent{};
    unsigned long sent_request = 0;
    std::vector<std::uint8_t> buffer;
    calls.command([&](int /*fd*/, unsigned long request, void *argument) {
        sent_request = request;
        sent = *static_cast<mmc_ioc_cmd *>(argument);
        const std::uint8_t *data = buffer_of(sent);
        buffer.assign(data, data + EXT_CSD_SIZE);
        return 0;
    });
    wearout_exec(&task);
    EXPECT_EQ(calls.count(Call::ioctl), 1);
    EXPECT_EQ(sent_request, 0xC048B300UL);
    EXPECT_EQ(sizeof sent, 72U);
    EXPECT_EQ(sent.write_flag, 0);
    EXPECT_EQ(sent.is_acmd, 0);
    EXPECT_EQ(sent.opcode, 8U);
    EXPECT_EQ(sent.arg, 0U);
    EXPECT_THAT(sent.response, testing::Each(0U));
    EXPECT_EQ(sent.flags, 0xB5U);
    EXPECT_EQ(sent.blksz, 512U);
    EXPECT_EQ(sent.blocks, 1U);
    EXPECT_EQ(sent.postsleep_min_us, 0U);
    EXPECT_EQ(sent.postsleep_max_us, 0U);
    EXPECT_EQ(sent.data_timeout_ns, 0U);
    EXPECT_EQ(sent.cmd_timeout_ms, 0U);
    EXPECT_EQ(buffer, std::vector<std::uint8_t>(512, 0));
}

TEST_F(Wearout, OpensTheDeviceReadOnlyAndCloseOnExecAndClosesIt) {
    int device = -1;
    calls.command([&](int fd, unsigned long /*request*/, void * /*argument*/) {
        device = fd;
        EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDONLY);
        EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
        return 0;
    });
    wearout_exec(&task);
    ASSERT_GE(device, 0);
    EXPECT_EQ(fcntl(device, F_GETFD), -1) << "still open";
    EXPECT_TRUE(calls.opened_close_on_exec());
}

TEST_F(Wearout, DoesNotBlockOnAPipeInPlaceOfTheDevice) {
    const HangGuard guard;
    const std::string pipe = scratch / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    expect_failed(wearout_exec, probe_task(pipe.c_str()), ENOTTY);
}

/// Whether the thread has the capability for raw device commands.
bool may_send_raw_commands() {
    __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets{};
    EXPECT_EQ(syscall(SYS_capget, &header, sets.data()), 0);
    return (sets[0].effective & CAP_TO_MASK(CAP_SYS_RAWIO)) != 0;
}

TEST_F(Wearout, MaySendRawCommandsForTheOneCommandOnly) {
    in_child([this] {
        const RaisedRawIo raised;
        EXPECT_TRUE(may_send_raw_commands());
        capabilities_lower_raw_io();
        EXPECT_FALSE(may_send_raw_commands());
        int commands = 0;
        calls.command([&](int /*fd*/, unsigned long /*request*/, void * /*argument*/) {
            ++commands;
            EXPECT_TRUE(may_send_raw_commands());
            errno = EIO;
            return -1;
        });
        expect_failed(wearout_exec, task, EIO);
        EXPECT_EQ(commands, 1);
        EXPECT_FALSE(may_send_raw_commands());
    });
}

TEST_F(Wearout, ClearsTheValidMarkBeforeItReads) {
    calls.command([&](int /*fd*/, unsigned long /*request*/, void * /*argument*/) {
        EXPECT_FALSE(task_has(&task, TASK_VALUE_VALID));
        return 0;
    });
    wearout_exec(&task);
    EXPECT_EQ(calls.count(Call::ioctl), 1);
}

TEST_F(Wearout, FailsWithoutAUsableEstimate) {
    device(registers(6, 1, 3));
    expect_failed(wearout_exec, task, EINVAL);
    device(registers(WITH_ESTIMATE, 0x0B, 0));
    expect_failed(wearout_exec, task, EINVAL);
    device(registers(0, 0, 0)); // as if the device had written nothing
    expect_failed(wearout_exec, task, EINVAL);
}

TEST_F(Wearout, FailsWithTheErrorOfTheOpen) {
    const std::string missing = scratch / "missing";
    expect_failed(wearout_exec, probe_task(missing.c_str()), ENOENT);
    calls.fail(Call::open, EACCES);
    expect_failed(wearout_exec, task, EACCES);
    EXPECT_EQ(calls.count(Call::ioctl), 0);
}

TEST_F(Wearout, FailsWithTheErrorOfTheCommand) {
    calls.fail(Call::ioctl, ENOTTY);
    expect_failed(wearout_exec, task, ENOTTY);
    calls.fail(Call::ioctl, ETIMEDOUT);
    expect_failed(wearout_exec, task, ETIMEDOUT);
}

TEST_F(Wearout, CountsAFailureWithoutErrorNumberAsZero) {
    calls.fail(Call::ioctl, 0);
    expect_measured(wearout_exec, task, 0);
    calls.fail(Call::open, 0);
    expect_measured(wearout_exec, task, 0);
}

TEST_F(Wearout, TracesTheMeasurement) {
    device(registers(WITH_ESTIMATE, 1, 3));
    const CapturedTraces traces;
    expect_measured(wearout_exec, task, 30);
    expect_traces(traces, "wearout", {path + ": 30%"});
}

TEST_F(Wearout, TracesTheFailure) {
    calls.fail(Call::ioctl, ENOTTY);
    const CapturedTraces traces;
    expect_failed(wearout_exec, task, ENOTTY);
    expect_traces(traces, "wearout", {"reading wearout FAILED!"});
}

TEST_F(Wearout, LeaksNoDescriptor) {
    expect_no_descriptor_kept(wearout_exec, task, -1); // the kernel knows no such command for a file
    device(registers(6, 1, 3));
    expect_no_descriptor_kept(wearout_exec, task, -1);
    device(registers(WITH_ESTIMATE, 1, 3));
    expect_no_descriptor_kept(wearout_exec, task, 0);
    expect_no_descriptor_kept(wearout_exec, probe_task("/nowhere"), -1);
}

TEST(WearoutInit, MarksTheTask) { expect_init_marks(wearout_init, "wearout_init"); }
