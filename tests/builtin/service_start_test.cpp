// The service probe's init operation: which units are watched, and the endless retry.

#include "builtin.h"
#include "captured_syslog.h"
#include "captured_traces.h"
#include "fake_systemd.h"
#include "hang_guard.h"
#include "in_child.h"
#include "logger.h"
#include "memory_fault.h"
#include "private_bus.h"
#include "probe_test.h"
#include "signals.h"

#include <csignal>
#include <cstdlib>
#include <gmock/gmock.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int WARNING = 4;

std::vector<int> pauses; // in milliseconds

} // namespace

extern "C" {
void __real__Z13signals_pausei(int milliseconds);

void __wrap__Z13signals_pausei(int milliseconds) {
    pauses.push_back(milliseconds);
    __real__Z13signals_pausei(milliseconds);
}
}

namespace {

class Start {
  public:
    Start() {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
        logger_init();
    }

    int init(const char *parameter, std::int32_t index = 0) {
        task = probe_task(parameter);
        task.index = index;
        return service_init(&task);
    }
    /// The unit names that a run of the task asks systemd about, in order.
    std::vector<std::string> watched() {
        const CapturedTraces run;
        EXPECT_EQ(service_exec(&task), 0);
        std::vector<std::string> names;
        for (const std::string &text : run.texts_of("service_read")) {
            if (text.starts_with("service: ") && text.find(" running (") == std::string::npos) {
                names.push_back(text.substr(9));
            }
        }
        return names;
    }

    PrivateBus bus;
    FakeSystemd systemd{bus};
    CapturedSyslog syslog;
    CapturedTraces traces;
    Task task{};
};

SyslogMessage not_loaded(const std::string &name) {
    return {.priority = WARNING, .text = "[warning] service \"" + name + "\" not loaded/installed"};
}

TEST(ServiceInit, FailsWithoutABusAndLeavesTheMarks) {
    in_child([] {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/bus", 1);
        const CapturedTraces traces;
        Task task = probe_task("nginx");
        task.flags |= TASK_REINIT;
        const std::uint32_t flags = task.flags;
        EXPECT_EQ(service_init(&task), -1);
        EXPECT_EQ(task.flags, flags);
        EXPECT_THAT(traces.texts_of("service_init"), ElementsAre(" ", "FAILED: ret : -2 (No such file or directory)"));
        EXPECT_EQ(traces.all().front().line.substr(0, 4), "(1) ");
        EXPECT_EQ(service_exec(&task), 0);
        EXPECT_EQ(task.value, 0) << "nothing is watched";
    });
}

TEST(ServiceInit, MarksTheTask) {
    in_child([] {
        const Start rig;
        for (const std::uint32_t others : {0U, 0xFFFFFFFCU}) {
            for (const std::uint32_t marks : {0U, 1U, 2U, 3U}) {
                Task task = probe_task(nullptr);
                task.flags = others | marks;
                EXPECT_EQ(service_init(&task), 0);
                EXPECT_EQ(task.flags, others | 1U);
            }
        }
    });
}

TEST(ServiceInit, WatchesTheLoadedUnitsAndReportsTheOthers) {
    in_child([] {
        Start rig;
        rig.systemd.load("a_2eservice");
        rig.systemd.load("b_2dc_2eservice", "masked");
        rig.systemd.load("_31_2eservice", "error");
        EXPECT_EQ(rig.init("a b-c d 1"), 0);
        EXPECT_THAT(rig.syslog.messages(), ElementsAre(not_loaded("b-c"), not_loaded("d")));
        EXPECT_THAT(
            rig.traces.texts_of("service_init"),
            ElementsAre(" ", "param: <a b-c d 1>", "service: a", "service: b-c", "service: d", "service: 1", "DONE"));
        EXPECT_THAT(rig.traces.texts_of("service_is_loaded"),
                    ElementsAre(" ", "DONE", " ", "DONE", " ", "DONE", " ", "DONE"));
        EXPECT_THAT(rig.traces.texts_of("service_add"),
                    ElementsAre("service: a", "service: a added", "service: 1", "service: 1 added"));
        EXPECT_TRUE(rig.traces.has("logger_syslog", "======= 3: service \"d\" not loaded/installed ======="));
        EXPECT_THAT(rig.watched(), ElementsAre("1", "a"));
        // Installed later: still not watched.
        rig.systemd.load("d_2eservice");
        EXPECT_THAT(rig.watched(), ElementsAre("1", "a"));
        EXPECT_EQ(rig.systemd.count("d_2eservice", LOAD_STATE), 1);
    });
}

TEST(ServiceInit, SplitsAtEachSingleBlank) {
    struct Case {
        const char *parameter;
        std::vector<std::string> watched; ///< the newest first
    };
    const std::vector<Case> cases{{"a b", {"b", "a"}}, {"a  b", {"b", "", "a"}}, {"", {""}},         {" ", {"", ""}},
                                  {"a ", {"", "a"}},   {" a", {"a", ""}},        {"a\tb", {"a\tb"}}, {nullptr, {}},
                                  {"a a", {"a", "a"}}};
    for (const Case &row : cases) {
        in_child([&row] {
            Start rig;
            for (const char *unit : {"a_2eservice", "b_2eservice", "a_09b_2eservice", "_2eservice"}) {
                rig.systemd.load(unit);
            }
            EXPECT_EQ(rig.init(row.parameter), 0);
            EXPECT_EQ(rig.watched(), row.watched) << (row.parameter == nullptr ? "none" : row.parameter);
            EXPECT_THAT(rig.syslog.messages(), IsEmpty());
        });
    }
}

TEST(ServiceInit, TreatsTheEmptyNameLikeAnyOther) {
    in_child([] {
        Start rig;
        EXPECT_EQ(rig.init("  "), 0);
        EXPECT_THAT(rig.syslog.messages(), ElementsAre(not_loaded(""), not_loaded(""), not_loaded("")));
        EXPECT_EQ(rig.systemd.count("_2eservice", LOAD_STATE), 3);
    });
}

TEST(ServiceInit, DoesNotAskForAUnitWhosePathIsTooLong) {
    in_child([] {
        Start rig;
        // 31 characters before and 10 after leave 982 of 1023.
        const std::string fits(982, 'a');
        rig.systemd.load(fits + "_2eservice");
        EXPECT_EQ(rig.init((fits + " a" + fits).c_str()), 0);
        EXPECT_EQ(rig.systemd.total(), 1);
        EXPECT_THAT(rig.traces.texts_of("service_path"), ElementsAre("FAILED"));
        EXPECT_EQ(service_exec(&rig.task), 0);
        EXPECT_EQ(rig.systemd.total(), 2) << "the first only";
        // The report has 9 characters for [service "], the name's 983 and 22 more: all of it fits.
        EXPECT_THAT(rig.syslog.messages(), ElementsAre(not_loaded("a" + fits)));
    });
}

TEST(ServiceInit, ReportsAUnitThatCannotBeStoredAndContinues) {
    // The copy of the parameter, then for each name: the node, the record, the copy.
    for (const int nth : {2, 3, 4}) {
        in_child([nth] {
            Start rig;
            rig.systemd.load("a_2eservice");
            rig.systemd.load("b_2eservice");
            int result = 0;
            {
                const MemoryFault fault(nth);
                result = rig.init("a b");
                EXPECT_TRUE(MemoryFault::happened());
            }
            EXPECT_EQ(result, -1);
            EXPECT_TRUE(task_has(&rig.task, TASK_INITIALISED));
            EXPECT_THAT(rig.traces.texts_of("service_add"),
                        ElementsAre("service: a", "FAILED", "service: b", "service: b added"))
                << nth;
            EXPECT_THAT(rig.watched(), ElementsAre("b"));
        });
    }
}

TEST(ServiceInit, WatchesNothingWhenTheNamesCannotBeCopied) {
    in_child([] {
        Start rig;
        rig.systemd.load("a_2eservice");
        {
            const MemoryFault copy(1);
            EXPECT_EQ(rig.init("a"), 0);
        }
        EXPECT_THAT(rig.watched(), IsEmpty());
        EXPECT_THAT(rig.syslog.messages(), IsEmpty());
        EXPECT_TRUE(task_has(&rig.task, TASK_INITIALISED));
    });
}

// --- the endless retry

TEST(ServiceInit, StopsAskingAtAnInvalidArgument) {
    in_child([] {
        const HangGuard guard;
        Start rig;
        rig.systemd.load("a_2eservice");
        rig.systemd.fail("a_2eservice", LOAD_STATE, "System.Error.EINVAL", 1);
        EXPECT_EQ(rig.init("a"), 0);
        EXPECT_EQ(rig.systemd.count("a_2eservice", LOAD_STATE), 1);
        EXPECT_THAT(rig.syslog.messages(), ElementsAre(not_loaded("a")));
        EXPECT_THAT(rig.traces.texts_of("service_is_loaded"),
                    ElementsAre(" ", "GET PROPERTY FAILED: ret : -22 (Invalid argument) -- err.name: "
                                     "System.Error.EINVAL err.message: as told"));
        EXPECT_THAT(rig.watched(), IsEmpty());
    });
}

TEST(ServiceInit, AsksAgainAfterAnyOtherError) {
    for (const char *error : {"EINTR", "EHOSTUNREACH", "ETIMEDOUT", "ENOTCONN", "EACCES", "ENOENT", "EBADR", "ENXIO"}) {
        in_child([error] {
            const HangGuard guard;
            Start rig;
            rig.systemd.load("a_2eservice");
            rig.systemd.fail("a_2eservice", LOAD_STATE, std::string("System.Error.") + error, 4);
            EXPECT_EQ(rig.init("a"), 0);
            EXPECT_EQ(rig.systemd.count("a_2eservice", LOAD_STATE), 5);
            EXPECT_THAT(pauses, ElementsAre(0, 0, 0, 100));
            EXPECT_THAT(rig.watched(), ElementsAre("a")) << error;
            EXPECT_THAT(rig.syslog.messages(), IsEmpty());
        });
    }
}

TEST(ServiceInit, KeepsAskingWhenTheBusDiesAndReturns) {
    in_child([] {
        const HangGuard guard;
        Start rig;
        rig.systemd.load("a_2eservice");
        rig.systemd.strike(rig.bus.pid(), SIGKILL, 1);
        // Another process restarts the bus while the probe asks.
        const pid_t probe = fork();
        if (probe == 0) {
            const bool good = rig.init("a") == 0 && rig.watched() == std::vector<std::string>{"a"};
            _exit(good ? CHILD_DONE : CHILD_FAILED);
        }
        siginfo_t ended{};
        EXPECT_EQ(waitid(P_PID, static_cast<id_t>(rig.bus.pid()), &ended, WEXITED | WNOWAIT), 0);
        rig.bus.stop();
        rig.bus.start();
        rig.systemd.connect();
        int status = 0;
        ASSERT_EQ(waitpid(probe, &status, 0), probe);
        EXPECT_EQ(WEXITSTATUS(status), CHILD_DONE);
        EXPECT_EQ(rig.systemd.count("a_2eservice", LOAD_STATE), 2);
    });
}

constexpr int ENDED_BY_HANDLER = 77;

void end_in_handler(int /*signo*/) { _exit(ENDED_BY_HANDLER); }

/// A start that gets a signal at its n-th call and is ended by the signal's handler. It runs in its own process, so
/// that the rig's destructors run.
void expect_end_of_start(const char *parameter, int signo, int nth) {
    in_child([parameter, signo, nth] {
        const HangGuard guard;
        Start rig;
        rig.systemd.fail("a_2eservice", LOAD_STATE, "System.Error.EHOSTUNREACH");
        const pid_t probe = fork();
        if (probe == 0) {
            signals_block();
            signal(signo, end_in_handler);
            raise(SIGSTOP);
            rig.init(parameter);
            _exit(CHILD_DONE);
        }
        int status = 0;
        EXPECT_EQ(waitpid(probe, &status, WUNTRACED), probe);
        rig.systemd.strike(probe, signo, nth);
        kill(probe, SIGCONT);
        EXPECT_EQ(waitpid(probe, &status, 0), probe);
        EXPECT_TRUE(WIFEXITED(status)) << status;
        EXPECT_EQ(WEXITSTATUS(status), ENDED_BY_HANDLER) << parameter << ": " << signo << " at " << nth;
    });
}

TEST(ServiceInit, TakesASignalBetweenItsQuestions) {
    for (const int nth : {1, 2, 4, 5}) {
        for (const int signo : {SIGTERM, SIGHUP}) {
            expect_end_of_start("a", signo, nth);
        }
    }
}

TEST(ServiceInit, TakesASignalBetweenItsUnits) {
    for (const int nth : {1, 2}) {
        expect_end_of_start("b c d", SIGTERM, nth);
    }
}

} // namespace
