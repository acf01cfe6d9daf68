// The load logger that the daemon starts under load: its start, and its end together with the daemon, at any
// instant.

#include "fake_systemd.h"
#include "from_environment.h"
#include "process_state.h"
#include "station.h"
#include "station_life.h"
#include "status_log.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <gmock/gmock.h>
#include <poll.h>
#include <set>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using testing::UnorderedElementsAreArray;

namespace {

using Texts = std::vector<std::string>;

constexpr const char *STAT = "/proc/stat";
constexpr const char *LOAD_LOGGER = "/usr/bin/load_logger";
constexpr const char *COMMAND = "/usr/bin/load_logger -t 10 -c 120 -d /var/lib/evse/vigmond/";
constexpr const char *WARNING = "4 [warning] ID: CB31[0]: value: 95 is above maximum warning threshold 75";
constexpr const char *FAILURE = "3 [failed] ID: CB32[0]: value: 95 is above maximum failure threshold 90";
constexpr std::array TERMINATIONS{SIGTERM, SIGQUIT, SIGHUP, SIGINT};
constexpr int A_MINUTE_MS = 60000;

/// A station whose load the test sets, with the reporting program in place of the load logger.
class LoadedStation : public Station {
  public:
    LoadedStation() : Station(even_board().file(LOAD_LOGGER, "")) {
        std::filesystem::copy_file(CHILD_REPORT, files().host_path(LOAD_LOGGER),
                                   std::filesystem::copy_options::overwrite_existing);
    }

    /// Advances to the next measurement, which finds this load.
    void measure(int percent) {
        put(percent);
        step(180 - clock() % 180);
    }
    void measure(int percent, int times) {
        for (int i = 0; i < times; ++i) {
            measure(percent);
        }
    }
    /// Like measure(), but returns after sending the heartbeat.
    void begin_to_measure(int percent) {
        put(percent);
        advance(180 - clock() % 180);
        send(SIGALRM);
    }
    /// Starts the daemon; the next measurement above the limits then starts a load logger.
    void bring_to_the_brink() {
        start();
        measure(95, 4);
    }

    /// The load loggers that the daemon has registered so far.
    [[nodiscard]] std::vector<pid_t> load_loggers() {
        std::vector<pid_t> pids;
        for (const std::string &message : trace().messages_of("process_add")) {
            EXPECT_THAT(message, EndsWith(std::string(", task: ") + COMMAND));
            pids.push_back(std::stoi(message.substr(sizeof "pid:")));
        }
        return pids;
    }
    /// Waits until `count` load loggers in all have been reaped.
    void await_reaped(int count) {
        await("the end of a load logger", [this, count] {
            const Texts texts = trace().messages_of("process_remove");
            return std::count(texts.begin(), texts.end(), "FOUND") >= count;
        });
    }
    /// What the load logger reported under `name`.
    [[nodiscard]] Texts reported(const std::string &name) const {
        std::istringstream report(read(std::string(STATUS_FOLDER) + "/report"));
        Texts found;
        for (std::string line; std::getline(report, line);) {
            if (line.starts_with(name)) {
                found.push_back(line.substr(name.size() + 1));
            }
        }
        return found;
    }
    /// Tells the load logger how to behave.
    void mark(const char *name) const { files().write(std::string(STATUS_FOLDER) + "/" + name, ""); }

  private:
    void put(int percent) {
        busy_ += 100L * percent;
        idle_ += 100L * (100 - percent);
        files().write(STAT, "cpu " + std::to_string(1000 + busy_) + " 0 1000 " + std::to_string(8000 + idle_) + "\n");
    }

    long busy_ = 0;
    long idle_ = 0;
};

/// Running load loggers; the pipe hangs up when the last one has ended.
class LivingLoggers {
  public:
    explicit LivingLoggers(const LoadedStation &station) {
        const std::string path = std::string(STATUS_FOLDER) + "/alive";
        station.files().make_fifo(path);
        pipe_.reset(open(station.files().host_path(path).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    }

    /// Waits for `count` more, their children included; returns their process ids.
    std::vector<pid_t> await(std::size_t count) {
        std::vector<pid_t> pids;
        while (pids.size() < count && await_event(POLLIN)) {
            std::array<char, 4096> text{};
            const ssize_t size = read(pipe_.get(), text.data(), text.size());
            std::istringstream lines(std::string(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0));
            for (pid_t pid = 0; lines >> pid;) {
                pids.push_back(pid);
            }
        }
        EXPECT_THAT(pids, SizeIs(count));
        return pids;
    }
    /// Waits until all have ended; false when some still run.
    [[nodiscard]] bool await_end() const { return await_event(POLLHUP); }

  private:
    [[nodiscard]] bool await_event(short event) const {
        pollfd source{.fd = pipe_.get(), .events = static_cast<short>(event & POLLIN), .revents = 0};
        return poll(&source, 1, A_MINUTE_MS) == 1 && (source.revents & event) != 0;
    }

    Descriptor pipe_;
};

/// Makes processes that the daemon leaves behind children of the test.
class Subreaper {
  public:
    Subreaper() { EXPECT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0); }
    ~Subreaper() { prctl(PR_SET_CHILD_SUBREAPER, 0); }
    Subreaper(const Subreaper &) = delete;
    Subreaper &operator=(const Subreaper &) = delete;
};

/// The signal that ended a process left behind; 0 when it exited, -1 when it still ran and was killed here.
int signal_that_ended(pid_t pid) {
    const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    pollfd end{.fd = process.get(), .events = POLLIN, .revents = 0};
    const bool ended = poll(&end, 1, A_MINUTE_MS) == 1;
    kill(pid, SIGKILL);
    int status = 0;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    if (!ended) {
        return -1;
    }
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

void await_end_of(pid_t pid) {
    const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    pollfd end{.fd = process.get(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(poll(&end, 1, A_MINUTE_MS), 1) << pid;
}

std::size_t count_of(const Texts &texts, const std::string &text) {
    return static_cast<std::size_t>(std::count(texts.begin(), texts.end(), text));
}

} // namespace

// --- start

TEST(LoadLogger, IsStartedOnceByTheFifthMeasurementAboveTheLimits) {
    LoadedStation station;
    station.bring_to_the_brink();
    EXPECT_THAT(sentences_of(station), IsEmpty());
    EXPECT_THAT(station.load_loggers(), IsEmpty());
    station.measure(95);
    EXPECT_THAT(sentences_of(station), ElementsAre(WARNING, FAILURE));
    ASSERT_THAT(station.load_loggers(), SizeIs(1)) << "one for both checks";
    station.await_reaped(1);
    EXPECT_THAT(station.trace().messages_of("load_logger"),
                Contains("fork: parent: pid: " + std::to_string(station.pid())));
    EXPECT_THAT(station.trace().messages_of("load_logger"),
                Contains("execve(\"/usr/bin/load_logger\", [\"load_logger\", \"-c\", \"120\", \"-t\", \"10\", \"-d\", "
                         "\"/var/lib/evse/vigmond/\", \"-i\", \"CB31[0]\"])"));
    station.measure(95, 6);
    EXPECT_THAT(station.load_loggers(), SizeIs(1)) << "no second sentence, no second start";
}

TEST(LoadLogger, GetsItsCommandLineAndPathAndNothingOfTheDaemon) {
    LoadedStation station;
    const PrivateBus bus(station.files().scratch());
    const FakeSystemd systemd(bus);
    station.environment = {bus.variable(), "HOME=/root", "LANG=C"};
    std::signal(SIGPIPE, SIG_IGN); // as systemd starts a service
    std::signal(SIGXFSZ, SIG_DFL);
    const std::vector<int> inherited = descriptors_open_over_exec();
    station.bring_to_the_brink();
    station.measure(95);
    station.await_reaped(1);
    EXPECT_THAT(station.reported("argument"),
                ElementsAre("load_logger", "-c", "120", "-t", "10", "-d", "/var/lib/evse/vigmond/", "-i", "CB31[0]"));
    EXPECT_THAT(station.reported("environment"), ElementsAre("PATH=/usr/bin:/usr/sbin:/home/tovik/bin"));
    EXPECT_THAT(station.reported("SigBlk:"), ElementsAre("0000000000000000"));
    EXPECT_THAT(station.reported("SigIgn:"), ElementsAre("0000000000001000"));
    EXPECT_THAT(station.reported("leads its group"), ElementsAre("1"));
    EXPECT_THAT(station.reported("leads its session"), ElementsAre("1"));
    std::set<std::string> expected{"0", "1", "2"};
    for (const int fd : inherited) {
        expected.insert(std::to_string(fd));
    }
    const Texts descriptors = station.reported("descriptor");
    EXPECT_EQ(std::set<std::string>(descriptors.begin(), descriptors.end()), expected);
}

// --- lifetime

TEST(LoadLogger, KeepsRunningWhenTheLoadIsGoodAgain) {
    LoadedStation station;
    LivingLoggers living(station);
    station.bring_to_the_brink();
    station.measure(95);
    const std::vector<pid_t> pids = living.await(1);
    station.measure(10, 5);
    EXPECT_THAT(sentences_of(station), SizeIs(4));
    station.measure(95, 5);
    EXPECT_THAT(sentences_of(station), SizeIs(6));
    EXPECT_EQ(station.load_loggers(), pids) << "at most one at a time";
    EXPECT_THAT(station.trace().messages_of("process_remove"), IsEmpty());
    EXPECT_EQ(station.stop(), 1);
    EXPECT_TRUE(living.await_end());
}

/// After a load logger has ended, the next change to bad starts another.
void expect_another(LoadedStation &station) {
    station.measure(10, 5);
    EXPECT_THAT(station.load_loggers(), SizeIs(1));
    station.measure(95, 5);
    EXPECT_THAT(station.load_loggers(), SizeIs(2));
    station.await_reaped(2);
}

TEST(LoadLogger, CanBeStartedAgainWhenItEndsAtOnce) {
    LoadedStation station;
    station.bring_to_the_brink();
    station.measure(95);
    station.await_reaped(1);
    expect_another(station);
}

TEST(LoadLogger, CanBeStartedAgainWhenItIsKilled) {
    LoadedStation station;
    LivingLoggers living(station);
    station.bring_to_the_brink();
    station.measure(95);
    kill(living.await(1).at(0), SIGKILL);
    station.await_reaped(1);
    station.files().remove(std::string(STATUS_FOLDER) + "/alive");
    expect_another(station);
}

TEST(LoadLogger, IsTriedAgainWhenMissingAndNothingIsWrittenTwice) {
    LoadedStation station;
    station.files().remove(LOAD_LOGGER);
    station.start({"-D", "-L", "stdout"});
    const std::int64_t start = station.clock();
    station.measure(95, 5);
    station.await_reaped(1);
    EXPECT_EQ(count_of(station.trace().messages_of("load_logger"), "child: exec failed: No such file or directory"),
              1U);
    expect_another(station);
    const Texts sentences = sentences_of(station);
    EXPECT_EQ(count_of(sentences, WARNING), 2U);
    EXPECT_EQ(count_of(sentences, FAILURE), 2U);
    EXPECT_EQ(station.stop(), 1);
    Texts records = records_in(station.out());
    EXPECT_THAT(records, SizeIs(records_between(start, station.clock(), 180)));
    std::sort(records.begin(), records.end());
    EXPECT_EQ(std::adjacent_find(records.begin(), records.end()), records.end());
    EXPECT_THAT(station.out(), HasSubstr("FINISHED"));
    EXPECT_EQ(station.out().find("FINISHED"), station.out().rfind("FINISHED"));
}

/// Starts the daemon and one load logger per check.
std::vector<pid_t> start_two(LoadedStation &station, LivingLoggers &living) {
    station.start();
    station.measure(80, 5);  // the warning only
    station.signal(SIGUSR1); // allows another load logger
    station.measure(95, 5);
    const std::vector<pid_t> pids = living.await(2);
    EXPECT_THAT(station.load_loggers(), UnorderedElementsAreArray(pids));
    return pids;
}

TEST(LoadLoggers, OfBothChecksThatEndTogetherAreReapedTogether) {
    LoadedStation station;
    LivingLoggers living(station);
    const std::vector<pid_t> pids = start_two(station, living);
    const HeldFile held(station, TEMPERATURE_FILE);
    station.forget();
    station.begin_to_measure(95);
    station.await_trace("temperature_exec");
    for (const pid_t pid : pids) {
        kill(pid, SIGKILL);
        await_end_of(pid);
    }
    const unsigned before = station.waits();
    held.release("42000\n");
    station.await_wait_after(before);
    EXPECT_EQ(count_of(station.trace().messages_of("sig_child_handler"), "signal: 17 DONE"), 1U);
    EXPECT_EQ(count_of(station.trace().messages_of("process_remove"), "FOUND"), 2U);
    EXPECT_EQ(count_of(station.trace().messages_of("process_remove"), "MISSING"), 0U);
}

// --- end with the daemon

TEST(LoadLoggers, OfBothChecksAreEndedWithTheDaemon) {
    const Subreaper orphans;
    LoadedStation station;
    LivingLoggers living(station);
    const std::vector<pid_t> pids = start_two(station, living);
    EXPECT_EQ(station.stop(), 1);
    for (const pid_t pid : pids) {
        EXPECT_EQ(signal_that_ended(pid), SIGTERM);
    }
}

TEST(LoadLogger, IsEndedWithTheDaemonTogetherWithItsOwnChildren) {
    const Subreaper orphans;
    LoadedStation station;
    LivingLoggers living(station);
    station.mark("family");
    station.bring_to_the_brink();
    station.measure(95);
    std::vector<pid_t> family = living.await(2);
    const pid_t parent = station.load_loggers().at(0);
    ASSERT_EQ(std::erase(family, parent), 1U);
    EXPECT_EQ(station.stop(), 1);
    EXPECT_TRUE(living.await_end());
    EXPECT_EQ(signal_that_ended(parent), SIGTERM); // only then is its child the test's
    EXPECT_EQ(signal_that_ended(family.at(0)), SIGTERM);
}

TEST(LoadLogger, DelaysNothingWhenItIgnoresTheTermination) {
    const Subreaper orphans;
    LoadedStation station;
    LivingLoggers living(station);
    station.mark("stubborn");
    station.bring_to_the_brink();
    station.measure(95);
    const pid_t pid = living.await(1).at(0);
    EXPECT_EQ(station.stop(), 1);
    EXPECT_THAT(station.trace().messages_of("load_cleanup"), ElementsAre("pid: " + std::to_string(pid)));
    EXPECT_EQ(kill(pid, SIGKILL), 0);
    EXPECT_EQ(signal_that_ended(pid), SIGKILL);
}

namespace {

/// Counts the traces since the registration of the load logger, the child's included.
std::size_t traces_since_fork(LoadedStation &station) {
    const auto &lines = station.trace().lines();
    const auto fork =
        std::find_if(lines.begin(), lines.end(), [](const TraceLine &line) { return line.function == "process_add"; });
    return static_cast<std::size_t>(lines.end() - fork);
}

/// Spins for that long, during which the child gets a little further.
void spin(std::chrono::microseconds time) {
    const auto end = std::chrono::steady_clock::now() + time;
    while (std::chrono::steady_clock::now() < end) {
    }
}

} // namespace

// The child is then between fork and exec.
TEST(LoadLogger, IsEndedByTerminationsAtRandomInstantsAfterTheFork) {
    const int count = is_sanitized() ? 60 : 200;
    constexpr std::size_t most_traces = 12;
    constexpr int longest_us = 2000;
    const Subreaper orphans;
    LoadedStation station;
    const LivingLoggers living(station);
    std::mt19937 random(seed_of_the_day());
    for (int i = 0; i < count; ++i) {
        const std::size_t traces = 1 + random() % most_traces;
        const std::chrono::microseconds pause(random() % longest_us);
        const int signo = TERMINATIONS.at(random() % TERMINATIONS.size());
        SCOPED_TRACE("signal " + std::to_string(signo) + " after " + std::to_string(traces) + " traces and " +
                     std::to_string(pause.count()) + " us");
        station.bring_to_the_brink();
        station.begin_to_measure(95);
        station.await("the fork", [&] { return traces_since_fork(station) >= traces; });
        spin(pause);
        station.send(signo);
        ASSERT_EQ(station.await_exit(), 1);
        ASSERT_THAT(station.load_loggers(), SizeIs(1));
        ASSERT_EQ(signal_that_ended(station.load_loggers().at(0)), SIGTERM);
    }
}
