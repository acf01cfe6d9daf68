// Calls to systemd with a late reply, with no reply, and while another process floods the connection.

#include "system_bus.h"

#include "child_process.h"
#include "fake_systemd.h"
#include "in_child.h"
#include "private_bus.h"
#include "scratch_folder.h"
#include "signals.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char *UNIT = "a_2eservice";
constexpr const char *UNIT_PATH = "/org/freedesktop/systemd1/unit/a_2eservice";

/// The bus with systemd on it, and one unit.
struct Rig {
    Rig() {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
        systemd.activate(UNIT);
        systemd.obey(std::string("set ") + UNIT + " Number t 7");
    }

    PrivateBus bus;
    FakeSystemd systemd{bus};
};

struct Answer {
    int result = 0;
    std::string text;
    std::string error;
};

Answer ask_text(const char *property = ACTIVE_STATE) {
    UnitError error;
    UnitText text;
    int result = system_bus_open();
    if (result >= 0) {
        result = system_bus_read_text(UNIT_PATH, property, &text, &error);
    }
    return {.result = result,
            .text = text.get() == nullptr ? "" : text.get(),
            .error = std::string(error.name()) + ": " + error.message()};
}

struct NumberAnswer {
    int result = 0;
    std::uint64_t number = 0;
};

NumberAnswer ask_number(const char *property = "Number") {
    UnitError error;
    std::uint64_t number = 0;
    int result = system_bus_open();
    if (result >= 0) {
        result = system_bus_read_number(UNIT_PATH, property, &number, &error);
    }
    return {.result = result, .number = number};
}

// --- late answers

constexpr const char *LATER_THAN_THE_LIBRARY_WAITS = "delay 200";

TEST(SystemBusLateAnswer, IsHandledLikeAnyOther) {
    in_child([] {
        Rig rig;
        rig.systemd.obey(LATER_THAN_THE_LIBRARY_WAITS);
        rig.systemd.obey("noise 20");
        for (int i = 0; i < 2; ++i) {
            const Answer text = ask_text();
            EXPECT_GE(text.result, 0);
            EXPECT_EQ(text.text, "active");
            EXPECT_EQ(text.error, ": ");
            const NumberAnswer number = ask_number();
            EXPECT_GE(number.result, 0);
            EXPECT_EQ(number.number, 7U);
        }
        EXPECT_EQ(rig.systemd.total(), 4) << "each call is sent once";
    });
}

TEST(SystemBusLateAnswer, MayBeAnErrorOrOfTheWrongType) {
    in_child([] {
        Rig rig;
        rig.systemd.obey(LATER_THAN_THE_LIBRARY_WAITS);
        rig.systemd.fail(UNIT, ACTIVE_STATE, "System.Error.EACCES", 2);
        const Answer refused = ask_text();
        EXPECT_EQ(refused.result, -EACCES);
        EXPECT_EQ(refused.error, "System.Error.EACCES: as told");
        EXPECT_EQ(ask_number(ACTIVE_STATE).result, -EACCES);
        EXPECT_EQ(ask_text("Number").result, -ENXIO);
        EXPECT_EQ(ask_number(ACTIVE_STATE).result, -ENXIO);
        EXPECT_EQ(ask_text().text, "active");
    });
}

TEST(SystemBusLateAnswer, IsNotAwaitedFromABusThatDies) {
    in_child([] {
        Rig rig;
        EXPECT_EQ(ask_text().text, "active");
        rig.systemd.obey("hold");
        rig.systemd.strike(rig.bus.pid(), SIGKILL, 1);
        EXPECT_EQ(ask_text().result, -ECONNRESET);
    });
}

TEST(SystemBusLateAnswer, DoesNotDelayATermination) {
    constexpr int taken_while_waiting = 77;
    const ScratchFolder folder; // removed here, because the child ends without cleaning up
    const int status = run_child([&folder] {
        setenv("TMPDIR", folder.path().c_str(), 1);
        signals_block(); // also for the rig's threads
        Rig rig;
        std::signal(SIGTERM, [](int /*signo*/) { _exit(taken_while_waiting); });
        rig.systemd.obey("hold");
        rig.systemd.strike(getpid(), SIGTERM, 1);
        ask_text();
    });
    EXPECT_EQ(WEXITSTATUS(status), taken_while_waiting);
}

// --- floods

constexpr const char *SIGNAL_SIZE = "4000";
#ifdef SANITIZED
constexpr long MOST_KB = 1'000'000; // the sanitizer keeps freed memory for a while
#else
constexpr long MOST_KB = 16'000; // the flood brings several times that in a second
#endif

/// A field of this process's status, in kB.
long status_kb(const std::string &field) {
    std::ifstream status("/proc/self/status");
    std::string word;
    while (status >> word && word != field) {
    }
    long kilobytes = 0;
    status >> kilobytes;
    return kilobytes;
}

/// The largest resident size since `forget_peak`, in kB.
long peak_kb() { return status_kb("VmHWM:"); }

void forget_peak() { std::ofstream("/proc/self/clear_refs") << 5; }

std::vector<std::string> flood_command() {
    std::vector<std::string> words;
    std::istringstream line(BUS_FLOOD);
    for (std::string word; std::getline(line, word, '|');) {
        words.push_back(word);
    }
    std::erase(words, "");
    words.insert(words.end(), {std::to_string(getpid()), SIGNAL_SIZE});
    return words;
}

struct FloodedRig : Rig {
    FloodedRig() {
        EXPECT_EQ(ask_number().number, 7U); // over the connection that is flooded first
        forget_peak();
        before_kb = peak_kb();
        flood.emplace(flood_command(), std::vector{bus.variable()});
        EXPECT_TRUE(flood->output().wait_for("40 MB sent to"));
    }
    [[nodiscard]] long grown_kb() const { return peak_kb() - before_kb; }

    std::optional<ChildProcess> flood;
    long before_kb = 0;
};

TEST(SystemBusFlood, LosesNoAnswerAndUsesNoMemory) {
    in_child([] {
        FloodedRig rig;
        for (int i = 0; i < 10; ++i) {
            ASSERT_EQ(ask_number().number, 7U);
            ASSERT_EQ(ask_text().text, "active");
        }
        EXPECT_LT(rig.grown_kb(), MOST_KB);
    });
}

TEST(SystemBusFlood, UsesNoMemoryWhileNothingIsAnswered) {
    in_child([] {
        FloodedRig rig;
        rig.systemd.obey("hold");
        EXPECT_EQ(ask_text().result, -ETIMEDOUT);
        EXPECT_LT(rig.grown_kb(), MOST_KB);
        rig.systemd.obey("release");
        EXPECT_EQ(ask_text().text, "active") << "not the reply to the previous call";
    });
}

// Too few for a new connection.
TEST(SystemBusFlood, LeavesNoMemoryOfDiscardedMessages) {
    in_child([] {
        Rig rig;
        EXPECT_EQ(ask_number().number, 7U);
        const long before_kb = status_kb("VmRSS:");
        rig.systemd.obey("noise 20 64000");
        EXPECT_EQ(ask_number().number, 7U);
        EXPECT_LT(status_kb("VmRSS:"), before_kb + 512);
    });
}

} // namespace
