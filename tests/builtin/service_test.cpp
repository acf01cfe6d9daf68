#include "builtin/service.h"

#include "builtin.h"
#include "captured_syslog.h"
#include "captured_traces.h"
#include "fake_systemd.h"
#include "in_child.h"
#include "logger.h"
#include "memory_fault.h"
#include "private_bus.h"
#include "probe_test.h"
#include "sample_task.h"
#include "signals.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <gmock/gmock.h>
#include <string>
#include <systemd/sd-bus.h>
#include <unistd.h>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constinit bool answer_without_text = false;
constinit const Task *asking_task = nullptr;
constinit bool asked_with_a_valid_value = false;

} // namespace

extern "C" {
int __real_sd_bus_get_property_string(sd_bus *bus, const char *destination, const char *path, const char *interface,
                                      const char *member, sd_bus_error *error, char **text);

int __wrap_sd_bus_get_property_string(sd_bus *bus, const char *destination, const char *path, const char *interface,
                                      const char *member, sd_bus_error *error, char **text) {
    asked_with_a_valid_value = asking_task != nullptr && task_has(asking_task, TASK_VALUE_VALID);
    return answer_without_text
               ? 1
               : __real_sd_bus_get_property_string(bus, destination, path, interface, member, error, text);
}
}

namespace {

constexpr int FAILED = 3;
constexpr int NOTICE = 5;

Task service_task(const char *parameter, std::int32_t index = 0) {
    Task task = probe_task(parameter);
    task.id = 23;
    task.index = index;
    return task;
}

/// Units that tasks watch, on a bus with systemd.
class Services {
  public:
    Services() {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
        logger_init();
    }

    /// Loads the units and starts to watch them.
    Task watch(const std::vector<std::string> &units, const char *parameter, std::int32_t index = 0) {
        for (const std::string &unit : units) {
            systemd.load(unit);
        }
        Task task = service_task(parameter, index);
        EXPECT_EQ(service_init(&task), 0);
        return task;
    }

    PrivateBus bus;
    FakeSystemd systemd{bus};
    CapturedSyslog syslog;
    CapturedTraces traces;
};

/// Runs the task, which never fails; returns its value.
std::int32_t run(Task &task) {
    task.value = STALE_VALUE;
    task.flags &= ~std::uint32_t{TASK_VALUE_VALID};
    EXPECT_EQ(service_exec(&task), 0);
    EXPECT_TRUE(task_has(&task, TASK_VALUE_VALID));
    EXPECT_EQ(task.error, STALE_ERROR);
    expect_others_marks_untouched(task);
    return task.value;
}

/// The one line that the logger writes in `state`.
SyslogMessage line_of(Task task, int state) {
    task.state = static_cast<std::int8_t>(state);
    task.do_log = 1;
    const CapturedSyslog syslog;
    EXPECT_EQ(service_logger(&task), 0);
    EXPECT_EQ(task.do_log, 0);
    return syslog.messages().size() == 1 ? syslog.messages().front() : SyslogMessage{.priority = -99, .text = ""};
}

// --- pure decisions

TEST(UnitPathEscape, CopiesLettersAndEscapesTheRest) {
    for (int byte = 1; byte < 256; ++byte) {
        const bool letter = (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z');
        const bool digit = byte >= '0' && byte <= '9';
        std::array<char, 4> escape{};
        std::snprintf(escape.data(), escape.size(), "_%02x", static_cast<unsigned>(byte));
        const std::string self(1, static_cast<char>(byte));
        const std::string first = letter ? self : escape.data();
        const std::string later = letter || digit ? self : escape.data();
        EXPECT_EQ(unit_path_escape(self.c_str()).get(), first);
        EXPECT_EQ(unit_path_escape(("a" + self).c_str()).get(), "a" + later);
    }
}

TEST(UnitPathEscape, WritesWhatSystemdExpects) {
    EXPECT_STREQ(unit_path_escape("wpa_supplicant").get(), "wpa_5fsupplicant");
    EXPECT_STREQ(unit_path_escape("corvana-portapi").get(), "corvana_2dportapi");
    EXPECT_STREQ(unit_path_escape("0x").get(), "_30x");
    EXPECT_STREQ(unit_path_escape("00").get(), "_300");
    EXPECT_STREQ(unit_path_escape("a1-2").get(), "a1_2d2");
    EXPECT_STREQ(unit_path_escape("\xc3\xa4").get(), "_c3_a4");
    EXPECT_STREQ(unit_path_escape("").get(), "");
    EXPECT_EQ(unit_path_escape(nullptr), nullptr);
}

TEST(UnitPathEscape, IsNullWhenOutOfMemory) {
    const MemoryFault fault(1);
    EXPECT_EQ(unit_path_escape("a"), nullptr);
    EXPECT_TRUE(MemoryFault::happened());
}

TEST(ServiceStates, AnyLoadStateButFourBeginningsIsLoaded) {
    for (const char *state : {"masked", "stub", "not-found", "merged", "masked-runtime", "stubborn", "not-foundling"}) {
        EXPECT_FALSE(service_counts_as_loaded(state)) << state;
    }
    for (const char *state :
         {"loaded", "error", "bad-setting", "", "mask", "not-foun", "Masked", "stu", "merge", "x"}) {
        EXPECT_TRUE(service_counts_as_loaded(state)) << state;
    }
}

TEST(ServiceStates, OnlyActivatingAndActiveRun) {
    for (const char *state : {"active", "activating", "active (running)", "activatingly"}) {
        EXPECT_TRUE(service_counts_as_running(state)) << state;
    }
    for (const char *state :
         {"deactivating", "inactive", "failed", "reloading", "maintenance", "", "activ", "activated", "Active"}) {
        EXPECT_FALSE(service_counts_as_running(state)) << state;
    }
}

TEST(ServiceRetryPause, GrowsFromTheFourthRetryToOneSecond) {
    const std::vector<int> expected{0, 0, 0, 100, 200, 400, 800, 1000, 1000, 1000};
    for (std::size_t repeat = 0; repeat < expected.size(); ++repeat) {
        EXPECT_EQ(service_retry_pause_ms(static_cast<int>(repeat) + 1), expected[repeat]) << repeat + 1;
    }
    EXPECT_EQ(service_retry_pause_ms(2147483647), 1000);
}

// --- exec

TEST(ServiceExec, IsGoodWithNothingToWatch) {
    in_child([] {
        Services rig;
        Task task = service_task("");
        EXPECT_EQ(run(task), 0);
        EXPECT_EQ(rig.systemd.total(), 0);
        task = rig.watch({}, "nowhere");
        EXPECT_EQ(run(task), 0);
        EXPECT_EQ(rig.systemd.count("nowhere_2eservice", ACTIVE_STATE), 0);
    });
}

TEST(ServiceExec, FollowsTheActiveState) {
    in_child([] {
        Services rig;
        Task task = rig.watch({"nginx_2eservice"}, "nginx");
        for (const char *state : {"active", "activating"}) {
            rig.systemd.activate("nginx_2eservice", state);
            EXPECT_EQ(run(task), 0) << state;
        }
        for (const char *state : {"deactivating", "inactive", "failed", "reloading", ""}) {
            rig.systemd.activate("nginx_2eservice", state);
            EXPECT_EQ(run(task), 1) << state;
        }
        EXPECT_EQ(rig.systemd.count("nginx_2eservice", ACTIVE_STATE), 7) << "once a run";
        EXPECT_EQ(rig.systemd.count("nginx_2eservice", LOAD_STATE), 1) << "at init only";
    });
}

TEST(ServiceExec, ClearsTheValidMarkBeforeItAsks) {
    in_child([] {
        Services rig;
        Task task = rig.watch({"a_2eservice"}, "a");
        task.flags |= TASK_VALUE_VALID;
        asking_task = &task;
        asked_with_a_valid_value = true;
        EXPECT_EQ(service_exec(&task), 0);
        EXPECT_FALSE(asked_with_a_valid_value);
        EXPECT_TRUE(task_has(&task, TASK_VALUE_VALID));
    });
}

TEST(ServiceExec, AsksForAllUnitsTheNewestFirst) {
    in_child([] {
        Services rig;
        Task task = rig.watch({"a_2eservice", "b_2eservice"}, "a b");
        rig.systemd.activate("a_2eservice");
        const CapturedTraces traces;
        EXPECT_EQ(run(task), 1) << "b does not run";
        EXPECT_THAT(traces.texts_of("service_exec"), ElementsAre(" "));
        EXPECT_THAT(traces.texts_of("service_read"),
                    ElementsAre("service: b", "service: b - not running (inactive)", "DONE", "service: a",
                                "service: a - running (active)", "DONE"));
        EXPECT_EQ(traces.all().front().line.substr(0, 4), "(2) ");
        EXPECT_EQ(traces.all().front().code_file, "CODE_FILE=builtin/service.c");
        rig.systemd.activate("b_2eservice");
        EXPECT_EQ(run(task), 0);
    });
}

TEST(ServiceExec, RepeatsOnlyAnInterruptedCall) {
    in_child([] {
        Services rig;
        Task task = rig.watch({"a_2eservice"}, "a");
        rig.systemd.activate("a_2eservice");
        rig.systemd.fail("a_2eservice", ACTIVE_STATE, "System.Error.EINTR", 3);
        EXPECT_EQ(run(task), 0);
        EXPECT_EQ(rig.systemd.count("a_2eservice", ACTIVE_STATE), 4);
        int asked = 4;
        for (const char *error : {"EINVAL", "EHOSTUNREACH", "ETIMEDOUT", "ENOTCONN", "EACCES", "EAGAIN"}) {
            rig.systemd.fail("a_2eservice", ACTIVE_STATE, std::string("System.Error.") + error, 1);
            EXPECT_EQ(run(task), 1) << error;
            EXPECT_EQ(rig.systemd.count("a_2eservice", ACTIVE_STATE), ++asked) << error;
            EXPECT_EQ(line_of(task, 2).text, "[failed] ID: CB23[0]: value: 1 Services: are not running") << error;
            EXPECT_EQ(run(task), 0) << "and it recovers";
            ++asked;
        }
        EXPECT_TRUE(rig.traces.has("service_read", "GET PROPERTY FAILED: ret : -113 (No route to host) -- err.name: "
                                                   "System.Error.EHOSTUNREACH err.message: as told"));
    });
}

TEST(ServiceExec, TreatsAUnitWithoutAStateTextAsStopped) {
    in_child([] {
        Services rig;
        Task task = rig.watch({"a_2eservice"}, "a");
        answer_without_text = true;
        const CapturedTraces traces;
        EXPECT_EQ(run(task), 1);
        EXPECT_THAT(traces.texts_of("service_read"), ElementsAre("service: a", "FAILED"));
        EXPECT_EQ(line_of(task, 2).text, "[failed] ID: CB23[0]: value: 1 Services: are not running");
    });
}

TEST(ServiceInit, DoesNotWatchAUnitWithoutAStateText) {
    in_child([] {
        Services rig;
        answer_without_text = true;
        Task task = rig.watch({"a_2eservice"}, "a");
        EXPECT_THAT(rig.traces.texts_of("service_is_loaded"), ElementsAre(" ", "FAILED"));
        EXPECT_EQ(rig.syslog.messages().back().text, "[warning] service \"a\" not loaded/installed");
        EXPECT_EQ(run(task), 0) << "nothing is watched";
    });
}

TEST(ServiceExec, WatchesTheUnitsOfItsOwnTask) {
    in_child([] {
        Services rig;
        Task first = rig.watch({"a_2eservice"}, "a", 1);
        Task second = rig.watch({"b_2eservice"}, "b", 2);
        Task third = service_task("", 3);
        rig.systemd.activate("a_2eservice");
        EXPECT_EQ(run(first), 0);
        EXPECT_EQ(rig.systemd.count("b_2eservice", ACTIVE_STATE), 0);
        EXPECT_EQ(run(second), 1);
        EXPECT_EQ(rig.systemd.count("a_2eservice", ACTIVE_STATE), 1);
        EXPECT_EQ(run(third), 0);
        rig.systemd.activate("a_2eservice", "failed");
        EXPECT_EQ(run(first), 1);
        EXPECT_EQ(line_of(first, 2).text, "[failed] ID: CB23[1]: value: 1 Services: b, a are not running");
        EXPECT_EQ(line_of(second, 2).text, "[failed] ID: CB23[2]: value: 1 Services: b, a are not running");
        rig.systemd.activate("b_2eservice");
        EXPECT_EQ(run(second), 0);
        EXPECT_EQ(line_of(second, 2).text, "[failed] ID: CB23[2]: value: 0 Service: a is not running")
            << "those of the other task are counted too";
    });
}

constinit bool signal_was_handled = false;

void note_signal(int /*signo*/) { signal_was_handled = true; }

TEST(ServiceExec, TakesASignalBetweenItsUnits) {
    in_child([] {
        signals_block(); // also for the rig's threads
        Services rig;
        Task task = rig.watch({"a_2eservice", "b_2eservice"}, "a b");
        std::signal(SIGTERM, note_signal);
        rig.systemd.strike(getpid(), SIGTERM, 1);
        EXPECT_EQ(run(task), 1);
        EXPECT_TRUE(signal_was_handled); // after the first, before the last
    });
}

TEST(ServiceExec, RecoversFromABusThatDies) {
    in_child([] {
        Services rig;
        Task task = rig.watch({"a_2eservice", "b_2eservice"}, "a b");
        rig.systemd.activate("a_2eservice");
        rig.systemd.activate("b_2eservice");
        EXPECT_EQ(run(task), 0);
        const auto before = open_descriptors();
        rig.systemd.strike(rig.bus.pid(), SIGKILL, 1); // while b, the newest, waits for its answer
        const CapturedTraces traces;
        EXPECT_EQ(run(task), 1);
        EXPECT_THAT(traces.texts_of("service_read"),
                    ElementsAre("service: b", testing::StartsWith("GET PROPERTY FAILED: ret : -104 "), "service: a",
                                testing::StartsWith("GET PROPERTY FAILED: ret : -")));
        EXPECT_EQ(line_of(task, 2).text, "[failed] ID: CB23[0]: value: 1 Services: are not running");
        EXPECT_EQ(run(task), 1) << "still away";
        rig.bus.stop();
        rig.bus.start();
        rig.systemd.connect();
        EXPECT_EQ(run(task), 0);
        rig.systemd.activate("b_2eservice", "failed");
        EXPECT_EQ(run(task), 1);
        EXPECT_EQ(line_of(task, 2).text, "[failed] ID: CB23[0]: value: 1 Service: b is not running");
        EXPECT_EQ(open_descriptors(), before);
    });
}

TEST(ServiceExec, TracesNoBusErrorWithoutABus) {
    in_child([] {
        Services rig;
        Task task = rig.watch({"a_2eservice"}, "a");
        rig.bus.stop();
        EXPECT_EQ(run(task), 1); // finds the connection dead
        const CapturedTraces traces;
        EXPECT_EQ(run(task), 1);
        EXPECT_THAT(traces.texts_of("service_read"),
                    ElementsAre("service: a", "GET PROPERTY FAILED: ret : -111 (Connection refused) -- err.name:  "
                                              "err.message: "));
    });
}

TEST(ServiceExec, AsksOverANewConnectionAtOnceWhenTheBusIsBack) {
    in_child([] {
        Services rig;
        Task task = rig.watch({"a_2eservice"}, "a");
        rig.systemd.activate("a_2eservice");
        rig.systemd.strike(rig.bus.pid(), SIGKILL, 1);
        EXPECT_EQ(run(task), 1);
        rig.bus.stop();
        rig.bus.start();
        rig.systemd.connect();
        EXPECT_EQ(run(task), 0);
    });
}

TEST(ServiceExec, LeaksNothingBetweenRuns) {
    in_child([] {
        Services rig;
        Task task = rig.watch({"a_2eservice"}, "a");
        rig.systemd.activate("a_2eservice");
        rig.systemd.obey("noise 2");
        expect_no_descriptor_kept(service_exec, task, 0);
        std::uint64_t unread = 99;
        sd_bus *bus = nullptr;
        ASSERT_GE(sd_bus_default_system(&bus), 0);
        EXPECT_EQ(sd_bus_get_n_queued_read(bus, &unread), 0);
        EXPECT_EQ(unread, 0U);
        sd_bus_unref(bus);
    });
}

// --- logger

TEST(ServiceLogger, WritesNothingUnlessMarked) {
    in_child([] {
        const Services rig;
        for (const int mark : {0, 2, 255}) {
            Task task = service_task("");
            task.state = 2;
            task.do_log = static_cast<std::uint8_t>(mark);
            EXPECT_EQ(service_logger(&task), 0);
            EXPECT_EQ(task.do_log, mark);
        }
        EXPECT_THAT(rig.syslog.messages(), IsEmpty());
    });
}

TEST(ServiceLogger, NamesTheStoppedUnits) {
    in_child([] {
        Services rig;
        Task task = rig.watch({"nginx_2eservice", "ocppd_2eservice", "rauc_2eservice"}, "nginx ocppd rauc");
        EXPECT_EQ(line_of(task, 2).text, "[failed] ID: CB23[0]: value: 77 Services: are not running")
            << "not yet asked";
        rig.systemd.activate("rauc_2eservice");
        EXPECT_EQ(run(task), 1);
        EXPECT_EQ(line_of(task, 2),
                  (SyslogMessage{FAILED, "[failed] ID: CB23[0]: value: 1 Services: ocppd, nginx are not running"}));
        rig.systemd.activate("ocppd_2eservice");
        EXPECT_EQ(run(task), 1);
        for (const int state : {-2, -1, 1, 2}) {
            EXPECT_EQ(line_of(task, state),
                      (SyslogMessage{FAILED, "[failed] ID: CB23[0]: value: 1 Service: nginx is not running"}));
        }
        rig.systemd.fail("ocppd_2eservice", ACTIVE_STATE, "System.Error.EACCES");
        EXPECT_EQ(run(task), 1);
        EXPECT_EQ(line_of(task, 2).text, "[failed] ID: CB23[0]: value: 1 Service: nginx is not running")
            << "what could not be asked is not named";
        rig.systemd.activate("nginx_2eservice");
        rig.systemd.activate("ocppd_2eservice");
        EXPECT_EQ(run(task), 0);
        EXPECT_EQ(line_of(task, 0),
                  (SyslogMessage{NOTICE, "[notice] ID: CB23[0]: value: 0 all services are up and running"}));
    });
}

/// A task that watches stopped units with these names, in the order of the log line.
Task watch_stopped(Services &rig, const std::vector<std::string> &names) {
    std::string parameter;
    std::vector<std::string> units;
    const std::vector<std::string> in_order_of_watch(names.rbegin(), names.rend());
    for (const std::string &name : in_order_of_watch) {
        parameter += (parameter.empty() ? "" : " ") + name;
        units.push_back(name + "_2eservice");
    }
    Task task = rig.watch(units, parameter.c_str());
    task.parameter = "";
    EXPECT_EQ(run(task), 1);
    return task;
}

// "ID: CB23[0]: value: 1 Services:" has 31 characters; each name adds two for ", ", the first one for " ".

TEST(ServiceLogger, AddsNoNameFrom2024CharactersOn) {
    in_child([] {
        Services rig;
        // 31 + (1 + 900) + (2 + 900) = 1834; then 2 + 188 make 2024.
        const std::string a(900, 'a');
        const std::string b(900, 'b');
        const std::string c(188, 'c');
        const Task task = watch_stopped(rig, {a, b, c, "d"});
        std::string expected =
            "[failed] ID: CB23[0]: value: 1 Services: " + a + ", " + b + ", " + c + " are not running";
        EXPECT_EQ(line_of(task, 2).text, expected);
    });
}

TEST(ServiceLogger, CutsTheNamesAt2024CharactersAndAlwaysEndsTheSentence) {
    in_child([] {
        Services rig;
        // 31 + 901 + 902 = 1834; 2 + 188 of the 900 make 2024.
        const std::string a(900, 'a');
        const std::string b(900, 'b');
        const Task task = watch_stopped(rig, {a, b, std::string(900, 'c'), "d"});
        EXPECT_EQ(line_of(task, 2).text, "[failed] ID: CB23[0]: value: 1 Services: " + a + ", " + b + ", " +
                                             std::string(188, 'c') + " are not running");
    });
}

TEST(ServiceLogger, AddsTheStartOfANameBelow2024Characters) {
    in_child([] {
        Services rig;
        // 1834, then 2 + 185 make 2021; 2 + 1 of the last name make 2024.
        const std::string a(900, 'a');
        const std::string b(900, 'b');
        const std::string c(185, 'c');
        const Task task = watch_stopped(rig, {a, b, c, "dd"});
        EXPECT_EQ(line_of(task, 2).text,
                  "[failed] ID: CB23[0]: value: 1 Services: " + a + ", " + b + ", " + c + ", d are not running");
    });
}

} // namespace
