// script/run as a person uses it: reads its output, types the commands that it prints, stops it with Ctrl-C.

#include "child_process.h"
#include "scratch_folder.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>

using testing::HasSubstr;
using testing::Not;

namespace {

std::string joined(const std::vector<std::string> &lines) {
    std::string text;
    for (const std::string &line : lines) {
        text += line + "\n";
    }
    return text;
}

constexpr std::array TERMINATIONS{SIGINT, SIGTERM, SIGHUP};

std::vector<std::string> with_script(std::vector<std::string> options) {
    options.insert(options.begin(), RUN_SCRIPT);
    return options;
}

class Run : public testing::Test {
  protected:
    Run() {
        prctl(PR_SET_CHILD_SUBREAPER, 1); // processes left by the script become children of the test
        for (const int signo : TERMINATIONS) {
            std::signal(signo, SIG_DFL); // a shell cannot trap a signal that was ignored at its start
        }
    }

    void start(const std::vector<std::string> &options, const std::string &variable = "LC_ALL=C") {
        script.emplace(with_script(options), std::vector<std::string>{std::string("VIGMOND_BUILD=") + BUILD_FOLDER,
                                                                      "VIGMOND_RUN=" + folder(), variable});
    }
    [[nodiscard]] std::string folder() const { return scratch / "run"; }
    /// Waits for a line with this text, from line `from` on; returns the line.
    std::string sees(const std::string &text, std::size_t from = 0) {
        const auto line = script->output().wait_for(text, from);
        EXPECT_TRUE(line) << "never seen: " << text << "\n" << seen() << joined(script->errors().lines());
        return line ? script->output().line(*line) : "";
    }
    std::string seen() { return joined(script->output().lines()); }
    /// Types a line into a second terminal; returns its output.
    static std::string types(const std::string &line) {
        const CommandResult result = run_command({"bash", "-c", line});
        EXPECT_EQ(result.status, 0) << line;
        return joined(result.output);
    }
    /// Types the printed line with this text after the printed address.
    std::string asks(const std::string &text) {
        sees("  on the bus as com.corvana.vigmond");
        return types(sees("export DBUS_SYSTEM_BUS_ADDRESS=") + "\n" + sees(text));
    }
    /// Presses Ctrl-C; returns the script's exit status.
    int interrupts() {
        script->kill(SIGINT);
        return script->wait();
    }
    void expect_nothing_left() const {
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a process is left"; // 0 or its number otherwise
        EXPECT_THAT(read_file("/proc/self/mounts"), Not(HasSubstr(scratch.path())));
        std::error_code none; // the folder is not made for a refused call
        for (const auto &entry : std::filesystem::directory_iterator(folder(), none)) {
            EXPECT_TRUE(entry.is_regular_file() && !entry.is_symlink()) << entry.path();
        }
    }

    ScratchFolder scratch;
    std::optional<ChildProcess> script;
};

std::string replaced(std::string line, const std::string &from, const std::string &to) {
    EXPECT_THAT(line, HasSubstr(from));
    return line.replace(line.find(from), from.size(), to);
}

std::size_t count_of(const std::string &part, const std::string &text) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
        ++count;
    }
    return count;
}

} // namespace

TEST_F(Run, ReactsToAHeatedStation) {
    start({"--station", "--speed", "100"});
    sees("  heartbeat");
    const std::string heat = sees("# heats the CPU");
    types(heat);
    sees("  syslog: ID: CB20[0]: value: 85 CPU temperature above 80 threshold.");
    sees("  issue raised: CB20");
    EXPECT_THAT(sees("  signal: NewIssues "), HasSubstr("[\"CB20\"]"));
    EXPECT_LT(seen().find("  issue raised: CB20"), seen().find("  signal: NewIssues ")) << "below its issue";
    EXPECT_THAT(asks(" GetListing"), HasSubstr("\"CB20\""));
    sees("FAIL\tCB20[0]\t85");
    EXPECT_EQ(count_of("OK\tCB20[0]\t85\n", seen()), 4U); // the fifth sample confirms

    types(replaced(heat, "85000", "42000"));
    sees("  syslog: ID: CB20[0]: value: 42 CPU temperature at normal threshold.");
    sees("  issue cleared: CB20");
    EXPECT_THAT(sees("  signal: ClearedIssues "), HasSubstr("[\"CB20\"]"));
    EXPECT_THAT(asks(" GetListing"), Not(HasSubstr("CB20")));
    EXPECT_EQ(interrupts(), 0);
    expect_nothing_left();
}

TEST_F(Run, ReactsToAStationsControls) {
    start({"--station", "--speed=100"});
    sees("  heartbeat");
    const std::string stop = sees("# stops a service");
    types(stop);
    sees("  syslog: ID: CB23[0]: value: 1 Service: nginx is not running");
    sees("  issue raised: CB23");
    types(replaced(stop, "inactive", "active"));
    types(sees("# loads the CPU"));
    sees("  syslog: ID: CB23[0]: value: 0 all services are up and running");
    sees("\tCB31[0]\t95");
    EXPECT_EQ(interrupts(), 0);
    expect_nothing_left();
}

TEST_F(Run, EndsWithTheStationsDaemon) {
    start({"--station", "--speed", "100"});
    sees("  heartbeat");
    types("kill $(cat " + folder() + "/station/board/var/lib/evse/vigmond/.lock)");
    EXPECT_EQ(script->wait(), 0);
    sees("  status log closed");
    sees("vigmond ended on a termination signal, with the usual status 1.");
    expect_nothing_left();
}

TEST_F(Run, IgnoresFurtherSignals) {
    start({"--station", "--speed", "100"});
    sees("  heartbeat");
    for (int burst = 0; burst < 5; ++burst) {
        for (const int signo : TERMINATIONS) {
            script->kill(signo);
        }
    }
    EXPECT_EQ(script->wait(), 0);
    sees("vigmond ended on a termination signal, with the usual status 1.");
    expect_nothing_left();
}

TEST_F(Run, WritesItsHintsToAFile) {
    start({"--station"});
    sees("These hints are also in " + folder() + "/HINTS.");
    sees("  heartbeat");
    const std::string hints = read_file(folder() + "/HINTS");
    EXPECT_THAT(seen(), HasSubstr(hints + "These hints are also in "));
    for (const char *hint : {"# heats the CPU", " GetListing\n", "no output means none"}) {
        EXPECT_THAT(hints, HasSubstr(hint));
    }
    EXPECT_EQ(interrupts(), 0);
    expect_nothing_left();
}

namespace {

constexpr const char *BUS_CONFIGURATION = "--config-file=" SUPPORT_FOLDER "/private_bus.conf";

/// A machine with systemd and with only this policy on its system bus.
class RunUnderSystemd : public Run {
  protected:
    RunUnderSystemd()
        : bus_({"dbus-daemon", BUS_CONFIGURATION, "--address=" + address(), "--nofork", "--nopidfile", "--nosyslog",
                "--print-address=1"}) {
        EXPECT_TRUE(bus_.output().wait_for("unix:"));
    }
    void start_with_policy(const std::string &policy) {
        const std::string machine = "set -e\n"
                                    "mount -t tmpfs none /run\n"
                                    "mkdir -p /run/systemd/system\n"
                                    "for folder in /usr/share/dbus-1/system.d /etc/dbus-1/system.d; do\n"
                                    "    [ -d $folder ] || continue\n"
                                    "    mount -t tmpfs none $folder\n"
                                    "    touch $folder/" +
                                    policy + "\ndone\nexec " RUN_SCRIPT;
        std::vector<std::string> command{"unshare", "--mount", "sh", "-c", machine};
        if (geteuid() != 0) {
            command.insert(command.begin() + 1, {"--user", "--map-root-user"});
        }
        script.emplace(command,
                       std::vector<std::string>{std::string("VIGMOND_BUILD=") + BUILD_FOLDER, "VIGMOND_RUN=" + folder(),
                                                "DBUS_SYSTEM_BUS_ADDRESS=" + address()});
    }
    void expect_bus(const std::string &choice) {
        sees("vigmond runs on this machine.");
        EXPECT_THAT(seen(), testing::StartsWith(choice + "\n"));
    }
    void expect_end() {
        sees("  on the bus as com.corvana.vigmond");
        EXPECT_EQ(interrupts(), 0);
        bus_.kill(SIGTERM);
        bus_.wait();
        expect_nothing_left();
    }

  private:
    [[nodiscard]] std::string address() const { return "unix:path=" + (scratch / "bus"); }

    ChildProcess bus_;
};

} // namespace

TEST_F(RunUnderSystemd, UsesTheSystemBusWithThePolicy) {
    start_with_policy("com.corvana.vigmond.conf");
    expect_bus("Using the system bus; --private-bus starts a private one.");
    expect_end();
}

TEST_F(RunUnderSystemd, UsesAPrivateBusWithoutThePolicy) {
    start_with_policy("another.conf");
    expect_bus("Using a private bus because the system bus policy (com.corvana.vigmond.conf) is not installed.");
    EXPECT_EQ(asks(" GetListing"), "");
    expect_end();
}

TEST_F(Run, ShowsThisMachine) {
    start({"--private-bus"});
    sees("  heartbeat");
    sees("\tCB21[0]\t");
    sees("  syslog: service \"nginx\" not loaded/installed");
    EXPECT_EQ(asks(" GetListing"), "");
    EXPECT_THAT(asks(" Introspect"), HasSubstr("com.corvana.State2.Issues"));
    EXPECT_EQ(asks(" ChangeInterfaceAvailability sb LAN false"), "s \"failed\"\n");
    EXPECT_EQ(interrupts(), 0);
    EXPECT_THAT(read_file(folder() + "/logfile"), HasSubstr("\tFINISHED\t"));
    expect_nothing_left();
}

TEST_F(Run, ShowsTheDaemonsOptionWarnings) {
    start({"--private-bus", "-x"});
    EXPECT_EQ(script->wait(), 255);
    sees("vigmond: WARNING: invalid option -x - ignored.");
    expect_nothing_left();
}

TEST_F(Run, RejectsInvalidUse) {
    const std::string path = "PATH=" + scratch.path().string() + ":" + std::getenv("PATH");
    const std::string no_unshare =
        scratch.write("unshare", "#!/bin/sh\necho \"unshare: unshare failed: Operation not permitted\" >&2\nexit 1\n");
    ASSERT_EQ(chmod(no_unshare.c_str(), S_IRWXU), 0);
    const std::pair<std::vector<std::string>, std::string> cases[]{
        {{"--station", "--speed", "0"}, "--speed takes a number from 1 to 9999"},
        {{"--station", "--speed"}, "--speed takes a number from 1 to 9999"},
        {{"--speed", "5"}, "--speed needs --station"},
        {{"--station"},
         "--station needs mount namespaces (root, or a user who may create user namespaces): unshare: unshare failed: "
         "Operation not permitted"},
    };
    for (const auto &[options, refusal] : cases) {
        start(options, path);
        EXPECT_EQ(script->wait(), 1);
        EXPECT_TRUE(script->errors().wait_for(refusal)) << refusal;
        EXPECT_EQ(seen(), "");
    }
    expect_nothing_left();
}
