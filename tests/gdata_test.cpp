#include "gdata.h"

#include "captured_traces.h"
#include "hang_guard.h"
#include "memory_fault.h"
#include "process_state.h"
#include "sample_task.h"
#include "scratch_folder.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <tuple>
#include <type_traits>
#include <vector>

namespace {

constexpr const char *BUILT_IN_LOGFILE = "/var/lib/evse/vigmond/logfile";

/// Restores the settings.
class GdataTest : public testing::Test {
  public:
    ~GdataTest() override { gdata_record() = saved_; }

  protected:
    GdataTest() : saved_(gdata_record()) {}

    const ScratchFolder folder;

  private:
    GlobalData saved_;
};

TEST_F(GdataTest, StartsWithTheBuiltInSettings) {
    EXPECT_EQ(gdata_get_task_head(), nullptr);
    EXPECT_STREQ(gdata_get_logfile(), BUILT_IN_LOGFILE);
    EXPECT_EQ(gdata_get_logsize(), 8388608);
    EXPECT_EQ(gdata_get_logcount(), 20);
    EXPECT_EQ(gdata_get_loglevel(), 3);
    EXPECT_EQ(gdata_get_severitylevel(), 5);
    EXPECT_STREQ(gdata_get_dbus_busname(), "com.corvana.vigmond");
    EXPECT_STREQ(gdata_get_dbus_path(), "/com/corvana/Monitoring1");
    EXPECT_STREQ(gdata_get_dbus_if(), "com.corvana.State2.Issues");
    EXPECT_EQ(gdata_get_interval(), 10);
    EXPECT_EQ(gdata_get_intervalsteps(), 10);
    EXPECT_STREQ(gdata_record().analyze, "common");
    EXPECT_STREQ(gdata_record().notify, "common");
    EXPECT_STREQ(gdata_record().logging, "common");
    EXPECT_EQ(gdata_record().hysteresis, 0);
}

struct NumberSetting {
    const char *name;
    std::int32_t (*set)(std::int32_t);
    std::int32_t (*get)();
    const char *trace; ///< before the number
    std::vector<std::pair<std::int32_t, std::int32_t>> given_and_stored;
};

TEST_F(GdataTest, NumberSettersStoreAndReturnAValidValue) {
    const std::array<NumberSetting, 4> settings{{
        {"gdata_set_logcount",
         gdata_set_logcount,
         gdata_get_logcount,
         "cnt: ",
         {{-5, 0}, {-1, 0}, {0, 0}, {1, 1}, {128, 128}, {129, 128}, {500, 128}, {INT_MIN, 0}, {INT_MAX, 128}}},
        {"gdata_set_logsize",
         gdata_set_logsize,
         gdata_get_logsize,
         "sz: ",
         {{-1, 10240},
          {0, 10240},
          {9999, 10240},
          {10239, 10240},
          {10240, 10240},
          {10241, 10241},
          {104857599, 104857599},
          {104857600, 104857600},
          {104857601, 104857600},
          {200000000, 104857600},
          {INT_MIN, 10240},
          {INT_MAX, 104857600}}},
        {"gdata_set_loglevel",
         gdata_set_loglevel,
         gdata_get_loglevel,
         "lvl: ",
         {{0, 2}, {1, 1}, {2, 2}, {3, 3}, {4, 2}, {1, 1}, {4, 2}, {-1, 2}, {INT_MIN, 2}, {INT_MAX, 2}}},
        {"gdata_set_severitylevel",
         gdata_set_severitylevel,
         gdata_get_severitylevel,
         "lvl: ",
         {{1, 4}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {6, 4}, {2, 2}, {0, 4}, {-1, 4}, {INT_MIN, 4}, {INT_MAX, 4}}},
    }};
    for (const NumberSetting &setting : settings) {
        for (const auto &[given, stored] : setting.given_and_stored) {
            SCOPED_TRACE(std::string(setting.name) + " " + std::to_string(given));
            const CapturedTraces traces;
            EXPECT_EQ(setting.set(given), stored);
            EXPECT_EQ(traces.texts_of(setting.name), std::vector<std::string>{setting.trace + std::to_string(given)});
            EXPECT_EQ(traces.all().front().line.substr(0, 4), "(3) ");
            EXPECT_EQ(setting.get(), stored);
        }
    }
}

TEST_F(GdataTest, SettersChangeNothingElse) {
    gdata_set_logcount(1);
    gdata_set_logsize(20480);
    gdata_set_loglevel(1);
    gdata_set_severitylevel(2);
    EXPECT_EQ(gdata_record().logcount, 1);
    EXPECT_EQ(gdata_record().logsize, 20480);
    EXPECT_EQ(gdata_record().loglevel, 1);
    EXPECT_EQ(gdata_record().severitylevel, 2);
    EXPECT_EQ(gdata_record().interval, 10);
    EXPECT_EQ(gdata_record().intervalsteps, 10);
    EXPECT_EQ(gdata_record().hysteresis, 0);
}

TEST_F(GdataTest, GettersTraceTheirEntry) {
    const CapturedTraces traces;
    gdata_get_task_head();
    gdata_get_logfile();
    gdata_get_logcount();
    gdata_get_logsize();
    gdata_get_loglevel();
    gdata_get_severitylevel();
    gdata_get_commandline();
    gdata_get_dbus_busname();
    gdata_get_dbus_path();
    gdata_get_dbus_if();
    gdata_get_interval();
    gdata_get_intervalsteps();
    const std::vector<std::string> names{"gdata_get_task_head",   "gdata_get_logfile",      "gdata_get_logcount",
                                         "gdata_get_logsize",     "gdata_get_loglevel",     "gdata_get_severitylevel",
                                         "gdata_get_commandline", "gdata_get_dbus_busname", "gdata_get_dbus_path",
                                         "gdata_get_dbus_if",     "gdata_get_interval",     "gdata_get_intervalsteps"};
    ASSERT_EQ(traces.all().size(), names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(traces.all()[i].function, names[i]);
        EXPECT_EQ(traces.all()[i].text, " ");
        EXPECT_EQ(traces.all()[i].line.substr(0, 4), "(3) ");
        EXPECT_EQ(traces.all()[i].code_file, "CODE_FILE=gdata.c");
    }
}

TEST_F(GdataTest, ReturnsTheListItWasGiven) {
    Task task = sample_task();
    gdata_set_tasks({.first = &task, .last = &task, .count = 1});
    EXPECT_EQ(gdata_get_task_head(), &task);
    EXPECT_EQ(gdata_record().tasks.count, 1);
    gdata_set_tasks({.first = nullptr, .last = nullptr, .count = 0});
    EXPECT_EQ(gdata_get_task_head(), nullptr);
}

TEST_F(GdataTest, SetLogfileCreatesTheFileAndStoresACopy) {
    std::string path = folder / "log";
    const std::string expected = path;
    const CapturedTraces traces;
    const char *in_force = gdata_set_logfile(path.c_str());
    path.assign(path.size(), '#');
    EXPECT_EQ(in_force, expected);
    EXPECT_EQ(gdata_get_logfile(), expected);
    EXPECT_EQ(traces.texts_of("gdata_set_logfile"), std::vector<std::string>{"fn: " + expected});
    EXPECT_EQ(traces.all().front().line.substr(0, 4), "(3) ");
    EXPECT_TRUE(std::filesystem::is_regular_file(expected));
}

TEST_F(GdataTest, SetLogfileKeepsTheContentOfAnExistingFile) {
    const std::string path = folder.write("log", "earlier\n");
    EXPECT_EQ(gdata_set_logfile(path.c_str()), path);
    EXPECT_EQ(read_file(path), "earlier\n");
}

TEST_F(GdataTest, SetLogfileKeepsTheOldPathWhenTheFileCannotBeOpened) {
    const std::string old = folder / "log";
    const std::string missing = folder / "missing/log";
    EXPECT_STREQ(gdata_set_logfile(missing.c_str()), BUILT_IN_LOGFILE);
    gdata_set_logfile(old.c_str());
    EXPECT_EQ(gdata_set_logfile(missing.c_str()), old);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(gdata_set_logfile(folder.path().c_str()), old); // a folder
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(gdata_set_logfile(""), old);
    EXPECT_EQ(gdata_get_logfile(), old);
}

TEST_F(GdataTest, SetLogfileDoesNotWaitForTheReaderOfAPipe) {
    const HangGuard guard;
    const std::string pipe = folder / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_STREQ(gdata_set_logfile(pipe.c_str()), BUILT_IN_LOGFILE);
    EXPECT_EQ(errno, ENXIO);
}

// Closing it, under any name, would release the daemon's lock.
TEST_F(GdataTest, SetLogfileRefusesTheLockFileOfItsFolder) {
    const WorkingFolder here(folder.path());
    std::filesystem::create_directory("sub");
    for (const char *name : {".lock", "./.lock", "sub/.lock", "sub//.lock", "sub/./.lock", "sub/../.lock"}) {
        EXPECT_STREQ(gdata_set_logfile(name), BUILT_IN_LOGFILE) << name;
        EXPECT_EQ(errno, EINVAL);
        EXPECT_FALSE(std::filesystem::exists(name)) << name << " was created";
    }
    folder.write("sub/.lock", "1\n");
    std::filesystem::create_symlink(".lock", "sub/symlink");
    std::filesystem::create_hard_link("sub/.lock", "sub/hardlink");
    for (const char *name : {"sub/symlink", "sub/hardlink"}) {
        EXPECT_STREQ(gdata_set_logfile(name), BUILT_IN_LOGFILE) << name;
        EXPECT_EQ(errno, EINVAL);
    }
    for (const char *name : {"lock", "sub.lock", ".lock2", "sub/x"}) {
        EXPECT_STREQ(gdata_set_logfile(name), name);
    }
}

TEST_F(GdataTest, SetLogfileFollowsALinkButCreatesNoTarget) {
    const std::string link = folder / "link";
    std::filesystem::create_symlink(folder / "elsewhere", link);
    EXPECT_STREQ(gdata_set_logfile(link.c_str()), BUILT_IN_LOGFILE);
    EXPECT_EQ(errno, ELOOP);
    EXPECT_FALSE(std::filesystem::exists(folder / "elsewhere"));
    folder.write("elsewhere", "");
    EXPECT_EQ(gdata_set_logfile(link.c_str()), link);
}

TEST_F(GdataTest, SetLogfileAcceptsTheCurrentPath) {
    const std::string path = folder / "log";
    gdata_set_logfile(path.c_str());
    EXPECT_EQ(gdata_set_logfile(gdata_get_logfile()), path);
    EXPECT_EQ(gdata_get_logfile(), path);
}

TEST_F(GdataTest, RepeatedSetLogfileReplacesItsOwnTextAndNeverTheBuiltInOne) {
    const char *built_in = gdata_get_logfile();
    for (const char *name : {"a", "b", "c"}) {
        const std::string path = folder / name;
        EXPECT_EQ(gdata_set_logfile(path.c_str()), path);
    }
    EXPECT_STREQ(built_in, BUILT_IN_LOGFILE);
}

TEST_F(GdataTest, SetLogfileKeepsTheOldPathWhenOutOfMemory) {
    const std::string old = folder / "log";
    const std::string path = folder / "other";
    gdata_set_logfile(old.c_str());
    const MemoryFault fault(1);
    EXPECT_EQ(gdata_set_logfile(path.c_str()), old);
    EXPECT_TRUE(MemoryFault::happened());
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(gdata_get_logfile(), old);
}

TEST_F(GdataTest, SetLogfileLeavesNoDescriptorOpen) {
    const auto open_descriptors = [] {
        const std::filesystem::directory_iterator entries("/proc/self/fd");
        return std::distance(begin(entries), end(entries));
    };
    const auto before = open_descriptors();
    gdata_set_logfile((folder / "log").c_str());
    gdata_set_logfile((folder / "missing/log").c_str());
    EXPECT_EQ(open_descriptors(), before);
}

/// Removes the command line.
class CommandLineTest : public testing::Test {
  public:
    ~CommandLineTest() override {
        const MemoryFault fault(1);
        gdata_set_commandline(0, nullptr);
    }
};

/// A command line as main gets it.
const char *set_commandline(std::vector<std::string> arguments) {
    std::vector<char *> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string &argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    return gdata_set_commandline(static_cast<int>(arguments.size()), argv.data());
}

TEST_F(CommandLineTest, IsNullUntilSet) { EXPECT_EQ(gdata_get_commandline(), nullptr); }

TEST_F(CommandLineTest, QuotesAllButTheFirstArgument) {
    EXPECT_STREQ(set_commandline({"vigmond", "-D", "-S", "200"}), "vigmond \"-D\" \"-S\" \"200\"");
    EXPECT_STREQ(gdata_get_commandline(), "vigmond \"-D\" \"-S\" \"200\"");
    EXPECT_STREQ(set_commandline({"/usr/bin/vigmond"}), "/usr/bin/vigmond");
    EXPECT_STREQ(gdata_get_commandline(), "/usr/bin/vigmond");
}

TEST_F(CommandLineTest, EscapesNothing) {
    EXPECT_STREQ(set_commandline({"a \"b\"", "c\"d", "e\\f", "g\th\n", "", "%s"}),
                 "a \"b\" \"c\"d\" \"e\\f\" \"g\th\n\" \"\" \"%s\"");
}

TEST_F(CommandLineTest, WithoutArgumentsIsEmpty) { EXPECT_STREQ(set_commandline({}), ""); }

TEST_F(CommandLineTest, KeepsLongArgumentsWhole) {
    const std::string argument(5000, 'x');
    EXPECT_EQ(set_commandline({"v", argument, argument}), "v \"" + argument + "\" \"" + argument + "\"");
}

TEST_F(CommandLineTest, IsTraced) {
    const CapturedTraces traces;
    set_commandline({"vigmond", "-D"});
    EXPECT_EQ(traces.texts_of("gdata_set_commandline"),
              (std::vector<std::string>{"argc: 2", "gdata_commandline: 'vigmond \"-D\"'"}));
    EXPECT_EQ(traces.all().front().line.substr(0, 4), "(3) ");
}

TEST_F(CommandLineTest, IsLostWhenOutOfMemory) {
    set_commandline({"vigmond", "-D"});
    const CapturedTraces traces;
    {
        const MemoryFault fault(1);
        EXPECT_EQ(set_commandline({"vigmond", "-d"}), nullptr);
        EXPECT_TRUE(MemoryFault::happened());
    }
    EXPECT_EQ(gdata_get_commandline(), nullptr);
    EXPECT_EQ(traces.texts_of("gdata_set_commandline"), std::vector<std::string>{"argc: 2"});
    EXPECT_STREQ(set_commandline({"vigmond"}), "vigmond");
}

TEST(Task, FieldsAreInTheEstablishedOrder) {
    const std::array offsets{offsetof(Task, next),
                             offsetof(Task, prev),
                             offsetof(Task, flags),
                             offsetof(Task, init),
                             offsetof(Task, precondition),
                             offsetof(Task, cleanup),
                             offsetof(Task, exec),
                             offsetof(Task, source),
                             offsetof(Task, analyze),
                             offsetof(Task, notify),
                             offsetof(Task, logging),
                             offsetof(Task, name),
                             offsetof(Task, id),
                             offsetof(Task, index),
                             offsetof(Task, interval),
                             offsetof(Task, minfail),
                             offsetof(Task, minwarn),
                             offsetof(Task, maxwarn),
                             offsetof(Task, maxfail),
                             offsetof(Task, hysteresis),
                             offsetof(Task, delay),
                             offsetof(Task, parameter),
                             offsetof(Task, format),
                             offsetof(Task, next_run),
                             offsetof(Task, value),
                             offsetof(Task, error),
                             offsetof(Task, child_pid),
                             offsetof(Task, counter_minfail),
                             offsetof(Task, counter_minwarn),
                             offsetof(Task, counter_ok),
                             offsetof(Task, counter_maxwarn),
                             offsetof(Task, counter_maxfail),
                             offsetof(Task, state),
                             offsetof(Task, analyzable),
                             offsetof(Task, do_notify),
                             offsetof(Task, do_log),
                             offsetof(Task, do_logfile)};
    EXPECT_TRUE(std::is_sorted(offsets.begin(), offsets.end()));
}

TEST(Task, FieldsHaveTheirSignAndTheSmallOnesTheirSize) {
    const Task task{};
    const std::tuple bytes{task.counter_minfail, task.counter_minwarn, task.counter_ok,
                           task.counter_maxwarn, task.counter_maxfail, task.analyzable,
                           task.do_notify,       task.do_log,          task.do_logfile};
    std::apply([](auto... each) { EXPECT_TRUE((std::is_same_v<decltype(each), std::uint8_t> && ...)); }, bytes);
    EXPECT_TRUE((std::is_same_v<decltype(task.state), std::int8_t>));
    EXPECT_TRUE(std::is_unsigned_v<decltype(task.flags)>);
    const std::tuple numbers{task.id,      task.index,   task.interval,   task.minfail, task.minwarn,
                             task.maxwarn, task.maxfail, task.hysteresis, task.delay,   task.next_run,
                             task.value,   task.error,   task.child_pid};
    std::apply([](auto... each) { EXPECT_TRUE((std::is_signed_v<decltype(each)> && ...)); }, numbers);
}

TEST(Task, CountersAreBytesThatWrap) {
    Task task{};
    task.counter_ok = 255;
    ++task.counter_ok;
    EXPECT_EQ(task.counter_ok, 0);
    task.state = -2;
    EXPECT_LT(task.state, 0);
}

TEST(Task, FlagsHaveTheirEstablishedBits) {
    const std::array<std::uint32_t, 21> flags{
        TASK_INITIALISED,    TASK_REINIT,      TASK_RUNNABLE,    TASK_HAS_PRECONDITION, TASK_HAS_CLEANUP,
        TASK_HAS_SOURCE,     TASK_HAS_ANALYZE, TASK_HAS_NOTIFY,  TASK_HAS_LOGGING,      TASK_HAS_ID,
        TASK_HAS_INTERVAL,   TASK_HAS_MINFAIL, TASK_HAS_MINWARN, TASK_HAS_MAXWARN,      TASK_HAS_MAXFAIL,
        TASK_HAS_HYSTERESIS, TASK_HAS_DELAY,   TASK_VALUE_VALID, TASK_HAS_FORMAT,       TASK_HAS_PARAMETER,
        TASK_BUILTIN};
    for (std::size_t bit = 0; bit < flags.size(); ++bit) {
        EXPECT_EQ(flags[bit], 1U << bit) << bit;
    }
}

TEST(Task, HasChecksAllBitsOfTheMask) {
    Task task{};
    task.flags = TASK_RUNNABLE | TASK_HAS_ID;
    EXPECT_TRUE(task_has(&task, TASK_RUNNABLE));
    EXPECT_TRUE(task_has(&task, TASK_RUNNABLE | TASK_HAS_ID));
    EXPECT_FALSE(task_has(&task, TASK_RUNNABLE | TASK_HAS_CLEANUP));
    EXPECT_FALSE(task_has(&task, TASK_HAS_CLEANUP));
}

} // namespace
