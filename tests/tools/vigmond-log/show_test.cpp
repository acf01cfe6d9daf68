// The commands show and changes, and what all commands share.

#include "bzip2_tool.h"
#include "child_process.h"
#include "program.h"

#include <array>
#include <csignal>
#include <filesystem>
#include <sys/inotify.h>

using testing::EndsWith;
using testing::StartsWith;

namespace {

const std::string FIRST = record("2024-05-01 10:00:00", "OK", "CB20", "42");
const std::string SECOND = record("2024-05-01 10:00:10", "WARN", "CB20", "72");
const std::string MEMORY = record("2024-05-01 10:00:10", "WARN", "CB21", "NaN");
const std::string THIRD = record("2024-05-01 10:00:20", "FAIL", "CB20", "85");
const std::string TEXT = header("2024-05-01 10:00:00", "START") + FIRST + SECOND + MEMORY + THIRD;

struct Show : Program {
    Show() { log = scratch.write("logfile", TEXT); }
    std::string log;
};
using Changes = Show;
using Usage = Show;

} // namespace

TEST_F(Show, PrintsTheRecordsUnchanged) {
    const Ran ran = run("show " + log);
    EXPECT_EQ(ran.status, 0);
    EXPECT_EQ(ran.out, FIRST + SECOND + MEMORY + THIRD);
    EXPECT_EQ(ran.err, "");
}

TEST_F(Show, ReadsFoldersCompressedFilesAndStandardInput) {
    scratch.write("s.bz2", bzip2(TEXT, "-1"));
    EXPECT_EQ(run("show " + (scratch / "s.bz2")).out, FIRST + SECOND + MEMORY + THIRD);
    EXPECT_EQ(run("show -", "<" + (scratch / "s.bz2")).out, FIRST + SECOND + MEMORY + THIRD);
    EXPECT_EQ(run("show - --state FAIL", "cat " + log + " |").out, THIRD);
    EXPECT_EQ(run("show " + scratch.path().string() + " --state FAIL").out, THIRD);
    EXPECT_EQ(run("show north=" + log + " south=" + log + " --state FAIL").out, "north\t" + THIRD + "south\t" + THIRD);
}

TEST_F(Show, FiltersByIssueStateAndTime) {
    EXPECT_EQ(run("show --issue CB21 " + log).out, MEMORY);
    EXPECT_EQ(run("show --state=WARN " + log).out, SECOND + MEMORY);
    EXPECT_EQ(run("show " + log + " --since '2024-05-01 10:00:10' --until '2024-05-01 10:00:20'").out, SECOND + MEMORY);
    EXPECT_EQ(run("show --timezone Europe/Berlin --until '2024-05-01 08:00:01 UTC' " + log).out, FIRST);
}

TEST_F(Show, WritesAFile) {
    EXPECT_EQ(run("show -o '" + (scratch / "a b") + "' " + log).out, "");
    EXPECT_EQ(read_file(scratch / "a b"), FIRST + SECOND + MEMORY + THIRD);
}

TEST_F(Show, LeavesNoPartialFileOnAFullDisk) {
    std::filesystem::create_directory(scratch / "full");
    std::string many;
    for (int second = 0; second < 20000; ++second) {
        many += record(vlog::local_text(1714557600 + second), "OK", "CB20", "42");
    }
    const Ran ran =
        run("show -o " + (scratch / "full/out") + " " + scratch.write("many", many), "ulimit -f 100; trap '' XFSZ;");
    EXPECT_EQ(ran.status, 1);
    EXPECT_THAT(ran.err, EndsWith("/full/out: File too large\n"));
    EXPECT_TRUE(std::filesystem::is_empty(scratch / "full"));
    EXPECT_EQ(run("show " + log + " >/dev/full 2>/dev/null #").status, 1);
}

TEST_F(Show, LeavesNoPartialFileWhenInterrupted) {
    std::filesystem::create_directory(scratch / "left");
    const Descriptor watch(inotify_init1(IN_CLOEXEC));
    ASSERT_GE(inotify_add_watch(watch.get(), (scratch / "left").c_str(), IN_CREATE), 0);
    ChildProcess program({"/bin/sh", "-c", "exec " VIGMOND_LOG " show -o " + (scratch / "left/out") + " -"});
    std::array<char, 4096> created{};
    ASSERT_GT(read(watch.get(), created.data(), created.size()), 0);
    program.kill(SIGINT);
    EXPECT_EQ(program.wait(), -SIGINT);
    EXPECT_TRUE(std::filesystem::is_empty(scratch / "left"));
}

TEST_F(Show, KeepsAnExistingFileOnFailure) {
    const std::string kept = scratch.write("kept", "kept");
    EXPECT_EQ(run("show -o " + kept + " " + scratch.write("no_log", "x\n")).status, 1);
    EXPECT_EQ(read_file(kept), "kept");
    EXPECT_THAT(run("show -o " + (scratch / "missing/out") + " " + log).err, EndsWith("No such file or directory\n"));
}

TEST_F(Changes, ShowTheDurationOfThePreviousState) {
    const Ran ran = run("changes " + log);
    EXPECT_EQ(ran.status, 0);
    EXPECT_EQ(ran.out, "2024-05-01 10:00:00  START\n"
                       "2024-05-01 10:00:10  CB20[0] temperature  OK -> WARN  value 72  after 10s\n"
                       "2024-05-01 10:00:20  CB20[0] temperature  WARN -> FAIL  value 85  after 10s\n");
}

TEST_F(Changes, ShowStartsGapsAndClockChanges) {
    scratch.write("logfile", TEXT + header("2024-05-01 11:00:00", "START") +
                                 record("2024-05-01 11:00:00", "OK", "CB20", "42") +
                                 record("2024-05-01 12:01:05", "OK", "CB20", "42") +
                                 record("2024-05-01 11:01:00", "OK", "CB20", "42") + finished("2024-05-01 11:01:01"));
    EXPECT_THAT(
        run("changes x=" + log + " y=" + log).out,
        EndsWith("y  2024-05-01 11:00:00  START after the daemon was killed or lost power\n"
                 "y  2024-05-01 11:00:00  CB20[0] temperature  FAIL -> OK  value 42  after 0s\n"
                 "y  2024-05-01 11:00:00  gap: nothing was recorded for 1h 1min 5s, or the clock was set forward\n"
                 "y  2024-05-01 11:01:00  the clock was set back by 1h 5s\n"
                 "y  2024-05-01 11:01:01  FINISHED\n"));
}

TEST_F(Usage, IsShownAndChecked) {
    const Ran help = run("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.out, StartsWith("Usage: vigmond-log "));
    EXPECT_THAT(run("-v").out, StartsWith("vigmond-log 0."));
    for (const std::string words :
         {"--nonsense", "--since", "show --since never x", "--timezone Nowhere", "show --issue 20", "show --state bad",
          "plot", "export", "export --format csv --textfile x", "show --format csv", "export --format xml",
          "show --json", "changes --state OK", "'a b=x'", "'a\"b=x'", "=x", "export --format csv --bus",
          "summary --bus"}) {
        const Ran ran = run(words);
        EXPECT_EQ(ran.status, 2) << words;
        EXPECT_THAT(ran.err, StartsWith("vigmond-log: ")) << words;
        EXPECT_EQ(ran.out, "") << words;
    }
}

TEST_F(Usage, ReportsUnreadableInput) {
    std::filesystem::create_directory(scratch / "empty");
    scratch.write("text", "Dear station,\nall is well.\n");
    for (const auto &[words, problem] :
         {std::pair{"show " + (scratch / "missing"), "/missing: No such file or directory\n"},
          std::pair{"show " + (scratch / "empty"), "/empty: there is no status log in this folder\n"},
          std::pair{"show " + (scratch / "text"), "/text: not a status log\n"},
          std::pair{std::string("show - </dev/null"), "-: not a status log\n"}}) {
        const Ran ran = run(words);
        EXPECT_EQ(ran.status, 1) << words;
        EXPECT_THAT(ran.err, AllOf(StartsWith("vigmond-log: "), EndsWith(problem)));
        EXPECT_EQ(ran.out, "");
    }
}

// Root reads every file, unless it lacks two capabilities.
TEST_F(Usage, ReportsFilesWithoutPermission) {
    const std::string runner =
        geteuid() == 0 ? "setpriv --bounding-set=-dac_override,-dac_read_search --inh-caps=-all" : "";
    std::filesystem::create_directory(scratch / "s");
    const std::string hidden = scratch.write("s/logfile", TEXT);
    std::filesystem::permissions(hidden, std::filesystem::perms::none);
    for (const std::string &words : {"show " + hidden, "show " + (scratch / "s"), "show x=" + hidden,
                                     "export --textfile " + (scratch / "v.prom") + " " + hidden}) {
        const Ran ran = run(words, "", runner);
        EXPECT_EQ(ran.status, 1) << words;
        EXPECT_EQ(ran.err, "vigmond-log: " + hidden + ": Permission denied\n") << words;
    }
    std::filesystem::permissions(scratch / "s", std::filesystem::perms::none);
    EXPECT_EQ(run("show " + (scratch / "s"), "", runner).err,
              "vigmond-log: " + (scratch / "s") + ": Permission denied\n");
    std::filesystem::permissions(scratch / "s", std::filesystem::perms::owner_all);
    EXPECT_FALSE(std::filesystem::exists(scratch / "v.prom"));
}

TEST_F(Usage, ReadsTheRestOfALogWithADamagedGeneration) {
    std::filesystem::create_directory(scratch / "s");
    scratch.write("s/logfile.000.bz2", bzip2(TEXT, "-1").substr(0, 60));
    scratch.write("s/logfile", record("2024-05-01 11:00:00", "OK", "CB20", "1"));
    const Ran ran = run("show " + (scratch / "s"));
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.err, "vigmond-log: " + (scratch / "s/logfile.000.bz2") + ": is truncated\n");
    EXPECT_EQ(ran.out, record("2024-05-01 11:00:00", "OK", "CB20", "1"));
}
