#include "rotation.h"

#include "bzip2_tool.h"
#include "captured_traces.h"
#include "common/compression.h"
#include "hang_guard.h"
#include "heap.h"
#include "in_child.h"
#include "memory_fault.h"
#include "process_state.h"
#include "scratch_folder.h"

#include <array>
#include <bzlib.h>
#include <cerrno>
#include <cstdio>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <vector>

namespace {

int trims = 0; ///< number of malloc_trim calls

constexpr int KILLED = 7;

int kill_at = 0;                ///< the process ends before this call of those below, from 1; 0: never
bool keeps_calls = false;       ///< whether they are recorded
std::vector<std::string> calls; ///< "name argument", in file names without their folder
int sync_error = 0;             ///< fdatasync fails with this errno

std::string name_of(const char *path) { return std::filesystem::path(path).filename(); }

std::string name_of(int fd) { return std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)).filename(); }

void step(const std::string &call) {
    if (kill_at > 0 && --kill_at == 0) {
        _exit(KILLED);
    }
    if (keeps_calls) {
        calls.push_back(call);
    }
}

} // namespace

extern "C" {
int __real_malloc_trim(std::size_t keep);
int __wrap_malloc_trim(std::size_t keep) {
    trims += keep == 0 ? 1 : 0;
    return __real_malloc_trim(keep);
}

int __real_fdatasync(int fd);
int __wrap_fdatasync(int fd) {
    step("fdatasync " + name_of(fd));
    errno = sync_error;
    return sync_error == 0 ? __real_fdatasync(fd) : -1;
}

int __real_fsync(int fd);
int __wrap_fsync(int fd) {
    step("fsync " + name_of(fd));
    return __real_fsync(fd);
}

int __real_rename(const char *from, const char *to);
int __wrap_rename(const char *from, const char *to) {
    step("rename " + name_of(from) + " " + name_of(to));
    return __real_rename(from, to);
}

int __real_remove(const char *path);
int __wrap_remove(const char *path) {
    step("remove " + name_of(path));
    return __real_remove(path);
}

int __real_fclose(std::FILE *file);
int __wrap_fclose(std::FILE *file) {
    step("fclose");
    return __real_fclose(file);
}

void __real_BZ2_bzWrite(int *error, BZFILE *stream, void *bytes, int count);
void __wrap_BZ2_bzWrite(int *error, BZFILE *stream, void *bytes, int count) {
    step("BZ2_bzWrite");
    __real_BZ2_bzWrite(error, stream, bytes, count);
}

void __real_BZ2_bzWriteClose64(int *error, BZFILE *stream, int abandon, unsigned *in_low, unsigned *in_high,
                               unsigned *out_low, unsigned *out_high);
void __wrap_BZ2_bzWriteClose64(int *error, BZFILE *stream, int abandon, unsigned *in_low, unsigned *in_high,
                               unsigned *out_low, unsigned *out_high) {
    step("BZ2_bzWriteClose64");
    __real_BZ2_bzWriteClose64(error, stream, abandon, in_low, in_high, out_low, out_high);
}
}

namespace {

using std::filesystem::create_symlink;
using std::filesystem::exists;
using std::filesystem::is_directory;

/// A folder with the log file "log" and the generations a test adds. An earlier generation holds plain text, so that it
/// is recognised after a move.
class RotationTest : public testing::Test {
  protected:
    RotationTest() { folder.write("log", "log text"); }

    [[nodiscard]] std::string generation(int number) const {
        std::array<char, 32> name{};
        std::snprintf(name.data(), name.size(), "log.%03d.bz2", number);
        return folder / name.data();
    }

    /// Generations with the texts "old 0", "old 1" and so on.
    void put_generations(const std::set<int> &numbers) const {
        for (const int number : numbers) {
            folder.write(std::filesystem::path(generation(number)).filename(), "old " + std::to_string(number));
        }
    }

    /// A generation that can neither be removed nor replaced.
    void block(int number) const {
        std::filesystem::create_directory(generation(number));
        folder.write(std::filesystem::path(generation(number)).filename() / "inside", "");
    }

    /// The names in the folder.
    [[nodiscard]] std::set<std::string> names() const {
        std::set<std::string> found;
        for (const auto &entry : std::filesystem::directory_iterator(folder.path())) {
            found.insert(entry.path().filename());
        }
        return found;
    }

    using Names = std::set<std::string>;

    const ScratchFolder folder; // NOLINT(*-non-private-member-variables-in-classes)
    const std::string file = folder / "log";
};

TEST_F(RotationTest, WithAllGenerationsDropsTheOldestAndShiftsTheRest) {
    put_generations({0, 1, 2});
    file_rotate(file.c_str(), 3);
    EXPECT_EQ(names(), (Names{"log.000.bz2", "log.001.bz2", "log.002.bz2"}));
    EXPECT_EQ(bunzip2(generation(0)), "log text");
    EXPECT_EQ(read_file(generation(1)), "old 0");
    EXPECT_EQ(read_file(generation(2)), "old 1");
}

TEST_F(RotationTest, TracesWhatItDoes) {
    put_generations({0, 1, 2});
    const CapturedTraces traces;
    file_rotate(file.c_str(), 3);
    EXPECT_EQ(traces.texts_of("file_rotate"),
              (std::vector<std::string>{"file: " + file + " -- count: 3 ", "remove " + generation(2),
                                        "compress " + file + " -> " + generation(0)}));
    EXPECT_EQ(traces.all().front().code_file, "CODE_FILE=common.c");
    ASSERT_EQ(traces.all().size(), 5U);
    EXPECT_EQ(traces.all()[3].text, "from: " + file + " to: " + generation(0)) << "the compressor's follow";
    EXPECT_EQ(traces.all()[4].function, "file_compress");
}

TEST_F(RotationTest, TracesNoRemovalWhereNothingIsRemoved) {
    put_generations({0, 1});
    const CapturedTraces traces;
    file_rotate(file.c_str(), 3);
    EXPECT_EQ(traces.texts_of("file_rotate"), (std::vector<std::string>{"file: " + file + " -- count: 3 ",
                                                                        "compress " + file + " -> " + generation(0)}));
}

TEST_F(RotationTest, TracesItsArgumentsWhateverTheyAre) {
    const CapturedTraces traces;
    file_rotate("StdErr", 3);
    file_rotate((folder / "missing").c_str(), 0);
    EXPECT_EQ(
        traces.texts_of("file_rotate"),
        (std::vector<std::string>{"file: StdErr -- count: 3 ", "file: " + (folder / "missing") + " -- count: 0 "}));
}

TEST_F(RotationTest, WithTheFirstGenerationMissingShiftsNothing) {
    put_generations({1});
    file_rotate(file.c_str(), 3);
    EXPECT_EQ(names(), (Names{"log.000.bz2", "log.001.bz2"}));
    EXPECT_EQ(bunzip2(generation(0)), "log text");
    EXPECT_EQ(read_file(generation(1)), "old 1");
}

TEST_F(RotationTest, ShiftsOnlyTheRunBelowTheFirstGap) {
    put_generations({0, 1, 3, 4});
    file_rotate(file.c_str(), 5);
    EXPECT_EQ(names(), (Names{"log.000.bz2", "log.001.bz2", "log.002.bz2", "log.003.bz2", "log.004.bz2"}));
    EXPECT_EQ(read_file(generation(1)), "old 0");
    EXPECT_EQ(read_file(generation(2)), "old 1");
    EXPECT_EQ(read_file(generation(3)), "old 3");
    EXPECT_EQ(read_file(generation(4)), "old 4");
}

TEST_F(RotationTest, LeavesGenerationsFromTheCountOnAlone) {
    put_generations({0, 1, 2, 3, 7});
    file_rotate(file.c_str(), 2);
    EXPECT_EQ(bunzip2(generation(0)), "log text");
    EXPECT_EQ(read_file(generation(1)), "old 0");
    EXPECT_EQ(read_file(generation(2)), "old 2");
    EXPECT_EQ(read_file(generation(3)), "old 3");
    EXPECT_EQ(read_file(generation(7)), "old 7");
}

TEST_F(RotationTest, LeavesAFileBeforeTheFirstGenerationAlone) {
    folder.write("log.-01.bz2", "a stranger's");
    put_generations({0});
    file_rotate(file.c_str(), 3);
    EXPECT_EQ(names(), (Names{"log.-01.bz2", "log.000.bz2", "log.001.bz2"}));
}

TEST_F(RotationTest, WithCount0RemovesTheFileAndMakesNoGeneration) {
    put_generations({1});
    file_rotate(file.c_str(), 0);
    EXPECT_EQ(names(), Names{"log.001.bz2"});
}

TEST_F(RotationTest, WithCount1ReplacesTheOneGeneration) {
    put_generations({0});
    const CapturedTraces traces;
    file_rotate(file.c_str(), 1);
    EXPECT_EQ(names(), Names{"log.000.bz2"});
    EXPECT_EQ(bunzip2(generation(0)), "log text");
    EXPECT_TRUE(traces.has("file_rotate", "remove " + generation(0)));
}

TEST_F(RotationTest, WithCount128ShiftsAllOfThem) {
    for (int number = 0; number < 128; ++number) {
        put_generations({number});
    }
    file_rotate(file.c_str(), 128);
    EXPECT_EQ(names().size(), 128U);
    EXPECT_EQ(bunzip2(generation(0)), "log text");
    for (int number = 1; number < 128; ++number) {
        EXPECT_EQ(read_file(generation(number)), "old " + std::to_string(number - 1));
    }
}

TEST_F(RotationTest, WithANegativeCountReplacesGeneration000Alone) {
    put_generations({0, 1});
    const CapturedTraces traces;
    file_rotate(file.c_str(), -1);
    EXPECT_EQ(names(), (Names{"log.000.bz2", "log.001.bz2"}));
    EXPECT_EQ(bunzip2(generation(0)), "log text");
    EXPECT_EQ(read_file(generation(1)), "old 1");
    EXPECT_FALSE(traces.has("file_rotate", "remove " + generation(0)));
}

TEST_F(RotationTest, WithTheLargestCountStopsAtTheFirstGap) {
    put_generations({0});
    file_rotate(file.c_str(), INT32_MAX);
    EXPECT_EQ(bunzip2(generation(0)), "log text");
    EXPECT_EQ(read_file(generation(1)), "old 0");
}

TEST_F(RotationTest, OfAMissingFileMovesNothing) {
    put_generations({0, 1});
    std::filesystem::remove(file);
    file_rotate(file.c_str(), 2);
    EXPECT_EQ(names(), (Names{"log.000.bz2", "log.001.bz2"}));
    EXPECT_EQ(read_file(generation(0)), "old 0");
}

TEST_F(RotationTest, EachGenerationHoldsItsLogToTheByte) {
    for (int day = 1; day <= 5; ++day) {
        folder.write("log", std::to_string(day) + log_text(120000));
        file_rotate(file.c_str(), 3);
        EXPECT_FALSE(exists(file));
    }
    EXPECT_EQ(names(), (Names{"log.000.bz2", "log.001.bz2", "log.002.bz2"}));
    for (int number = 0; number < 3; ++number) {
        const std::string expected = std::to_string(5 - number) + log_text(120000);
        EXPECT_TRUE(bunzip2(generation(number)) == expected) << number;
        EXPECT_EQ(file_decompress(generation(number).c_str(), (folder / "back").c_str()), 0);
        EXPECT_TRUE(read_file(folder / "back") == expected) << number;
    }
}

TEST_F(RotationTest, KeepsAnOldestGenerationThatCannotBeRemoved) {
    put_generations({0, 1});
    block(2);
    file_rotate(file.c_str(), 3);
    EXPECT_EQ(names(), (Names{"log.000.bz2", "log.001.bz2", "log.002.bz2"}));
    EXPECT_EQ(bunzip2(generation(0)), "log text");
    EXPECT_EQ(read_file(generation(1)), "old 0"); // "old 1" could not move
    EXPECT_TRUE(is_directory(generation(2)));
}

TEST_F(RotationTest, LosesTheLogWhenItsGenerationCannotBeReplaced) {
    block(0);
    file_rotate(file.c_str(), 1);
    EXPECT_EQ(names(), Names{"log.000.bz2"});
    EXPECT_TRUE(exists(generation(0) + "/inside"));
}

TEST_F(RotationTest, MovesAFolderInTheWayLikeAGeneration) {
    block(0);
    file_rotate(file.c_str(), 2);
    EXPECT_EQ(names(), (Names{"log.000.bz2", "log.001.bz2"}));
    EXPECT_EQ(bunzip2(generation(0)), "log text");
    EXPECT_TRUE(exists(generation(1) + "/inside"));
}

TEST_F(RotationTest, OfAFileWhoseGenerationsHaveNoValidNameRemovesIt) {
    const std::string longest(255, 'n');
    folder.write(longest, "text");
    file_rotate((folder / longest).c_str(), 3);
    EXPECT_EQ(names(), Names{"log"});
}

TEST_F(RotationTest, RemovesAnEmptyFolderInPlaceOfTheFile) {
    std::filesystem::remove(file);
    std::filesystem::create_directory(file);
    file_rotate(file.c_str(), 3);
    EXPECT_EQ(names(), Names{"log.000.bz2"});
    EXPECT_EQ(bunzip2(generation(0)), "");
}

TEST_F(RotationTest, RemovesTheFileAndTheHalfGenerationOnAFullDisk) {
    put_generations({0});
    folder.write("log", noise(350000));
    {
        const FileSizeLimit full(100000);
        file_rotate(file.c_str(), 3);
    }
    EXPECT_EQ(names(), Names{"log.001.bz2"});
    folder.write("log", "again");
    file_rotate(file.c_str(), 3); // shifts into the gap
    EXPECT_EQ(names(), (Names{"log.000.bz2", "log.001.bz2"}));
    EXPECT_EQ(bunzip2(generation(0)), "again");
    EXPECT_EQ(read_file(generation(1)), "old 0");
}

TEST_F(RotationTest, RemovesTheFileWhenItsCompressionFailsAtTheEnd) {
    const FileSizeLimit full(10);
    file_rotate(file.c_str(), 3);
    EXPECT_EQ(names(), Names{});
}

TEST_F(RotationTest, RemovesTheFileWhenSyncingItsGenerationFails) {
    for (const int error : {EIO, ENOSPC}) {
        folder.write("log", "log text");
        sync_error = error;
        file_rotate(file.c_str(), 3);
        sync_error = 0;
        EXPECT_EQ(names(), Names{});
    }
}

TEST_F(RotationTest, KeepsAGenerationWhereSyncingIsUnsupported) {
    for (const int error : {EINVAL, ENOSYS}) {
        folder.write("log", "log text");
        sync_error = error;
        file_rotate(file.c_str(), 1);
        sync_error = 0;
        EXPECT_EQ(bunzip2(generation(0)), "log text");
    }
}

// --- kills and power cuts

TEST_F(RotationTest, SyncsTheNamedGenerationBeforeItRemovesTheFile) {
    put_generations({0});
    calls.clear();
    keeps_calls = true;
    file_rotate(file.c_str(), 3);
    keeps_calls = false;
    const std::string name = folder.path().filename();
    EXPECT_EQ(calls, (std::vector<std::string>{"rename log.000.bz2 log.001.bz2", "remove log.packing", "BZ2_bzWrite",
                                               "fclose", "BZ2_bzWriteClose64", "fdatasync log.packing", "fclose",
                                               "rename log.packing log.000.bz2", "fsync " + name, "remove log"}));
}

TEST_F(RotationTest, KilledAtAnyStepLosesNothingAndLeavesNoTornGeneration) {
    const std::string text = noise(140000);
    int last = 0;
    for (int killed = 1; last == 0; ++killed) {
        SCOPED_TRACE("at step " + std::to_string(killed));
        folder.write("log", text);
        put_generations({0, 1});
        const int status = run_child([this, killed] {
            kill_at = killed;
            file_rotate(file.c_str(), 4);
            kill_at = 0; // where coverage is counted, the end of the process also calls fclose
        });
        last = WEXITSTATUS(status) == KILLED ? 0 : killed;
        std::set<std::string> found;
        for (const std::string &name : names()) {
            if (name.ends_with(".bz2")) {
                const std::string content = read_file(folder / name);
                found.insert(content.starts_with("old") ? content : bunzip2(folder / name));
            }
        }
        found.insert(exists(file) ? read_file(file) : text);
        ASSERT_TRUE(found == (std::set<std::string>{text, "old 0", "old 1"}));
        ASSERT_TRUE(exists(file) || bunzip2(generation(0)) == text);
        for (const std::string &name : names()) {
            std::remove((folder / name).c_str());
        }
    }
    EXPECT_EQ(last, 14); // two shifts, three pieces, and the eight others above
}

TEST_F(RotationTest, AfterAKillUsesTheGapAndRemovesWhatWasLeft) {
    folder.write("log.packing", "BZh1 torn");
    put_generations({1});
    file_rotate(file.c_str(), 3);
    EXPECT_EQ(names(), (Names{"log.000.bz2", "log.001.bz2"}));
    EXPECT_EQ(bunzip2(generation(0)), "log text");
    EXPECT_EQ(read_file(generation(1)), "old 1");
}

TEST_F(RotationTest, RemovesALeftoverAndNothingElse) {
    folder.write("log.packing", "BZh1 torn");
    put_generations({0});
    file_rotate_leftover(file.c_str());
    file_rotate_leftover(file.c_str());
    EXPECT_EQ(names(), (Names{"log", "log.000.bz2"}));
}

// --- aborting

TEST_F(RotationTest, WhenAbortedLeavesTheFileAndNoGeneration) {
    put_generations({0});
    const std::string text = noise(350000);
    folder.write("log", text);
    file_rotate(file.c_str(), 3, [] { return true; });
    EXPECT_EQ(names(), (Names{"log", "log.001.bz2"}));
    EXPECT_TRUE(read_file(file) == text);
    file_rotate(file.c_str(), 3, [] { return false; });
    EXPECT_EQ(names(), (Names{"log.000.bz2", "log.001.bz2"}));
    EXPECT_TRUE(bunzip2(generation(0)) == text);
}

TEST_F(RotationTest, OfAFileOfOnePieceIsNotAborted) {
    file_rotate(file.c_str(), 3, [] { return true; });
    EXPECT_EQ(names(), Names{"log.000.bz2"});
}

// --- links

TEST_F(RotationTest, DoesNotWriteThroughLinks) {
    const std::string foreign = folder.write("foreign", "what stood there");
    create_symlink(foreign, folder / "log.packing");
    create_symlink(folder / "made", generation(0));
    file_rotate(file.c_str(), 1);
    EXPECT_EQ(names(), (Names{"foreign", "log.000.bz2"}));
    EXPECT_EQ(read_file(foreign), "what stood there");
    EXPECT_FALSE(std::filesystem::is_symlink(generation(0)));
    EXPECT_EQ(bunzip2(generation(0)), "log text");
}

TEST_F(RotationTest, WithoutMemoryForANameRemovesTheFileAndMovesNothing) {
    for (const int nth : {1, 2, 3}) {
        put_generations({0, 1});
        folder.write("log", "log text");
        const MemoryFault fault(nth);
        file_rotate(file.c_str(), 2);
        EXPECT_TRUE(MemoryFault::happened());
        EXPECT_EQ(names(), (Names{"log.000.bz2", "log.001.bz2"}));
        EXPECT_EQ(read_file(generation(0)), "old 0");
        EXPECT_EQ(read_file(generation(1)), "old 1");
    }
}

TEST_F(RotationTest, WithoutMemoryForTheCompressionRemovesTheFile) {
    put_generations({0});
    const MemoryFault fault(4);
    file_rotate(file.c_str(), 2);
    EXPECT_TRUE(MemoryFault::happened());
    EXPECT_EQ(names(), Names{"log.001.bz2"});
}

TEST_F(RotationTest, DropsTheOldestGenerationEvenWhenNoneFollows) {
    put_generations({0});
    const MemoryFault fault(4); // the compression fails
    file_rotate(file.c_str(), 1);
    EXPECT_EQ(names(), Names{});
}

TEST_F(RotationTest, LeaksNoMemoryAndNoDescriptorInThirtyRotations) {
    const auto rotate = [this](rlim_t limit) {
        const CapturedTraces forgotten;
        folder.write("log", noise(350000));
        const FileSizeLimit limited(limit);
        file_rotate(file.c_str(), 2);
    };
    rotate(RLIM_INFINITY);
    rotate(100000);
    const std::size_t heap = heap_in_use();
    const std::ptrdiff_t descriptors = open_descriptors();
    for (int i = 0; i < 30; ++i) {
        rotate(i % 3 == 0 ? RLIM_INFINITY : 100000);
    }
    EXPECT_LT(heap_in_use(), heap + 50000); // one lost stream is a megabyte
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(RotationTest, ReturnsTheCompressorsMemoryToTheSystem) {
    trims = 0;
    file_rotate(file.c_str(), 1);
    EXPECT_EQ(trims, 1);
}

TEST_F(RotationTest, DoesNotWaitForTheWriterOfAPipeInPlaceOfTheFile) {
    const HangGuard guard;
    std::filesystem::remove(file);
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    file_rotate(file.c_str(), 3);
    EXPECT_EQ(names(), Names{"log.000.bz2"});
    EXPECT_EQ(bunzip2(generation(0)), "");
}

TEST_F(RotationTest, ReplacesAPipeInPlaceOfAGeneration) {
    const HangGuard guard;
    ASSERT_EQ(mkfifo(generation(0).c_str(), 0600), 0);
    block(1); // it cannot be moved
    file_rotate(file.c_str(), 2);
    EXPECT_EQ(names(), (Names{"log.000.bz2", "log.001.bz2"}));
    ASSERT_TRUE(std::filesystem::is_regular_file(generation(0)));
    EXPECT_EQ(bunzip2(generation(0)), "log text");
}

class StreamNameTest : public RotationTest, public testing::WithParamInterface<const char *> {};

TEST_P(StreamNameTest, IsNotRotated) {
    const WorkingFolder here(folder.path());
    folder.write(GetParam(), "text");
    for (const int count : {-1, 0, 3}) {
        file_rotate(GetParam(), count);
        EXPECT_EQ(names(), (Names{"log", GetParam()})) << count;
    }
}

INSTANTIATE_TEST_SUITE_P(Names, StreamNameTest, testing::Values("stderr", "STDERR", "StdErr", "stdout", "STDOUT"));

TEST_F(RotationTest, AcceptsANameThatOnlyStartsLikeAStreams) {
    const WorkingFolder here(folder.path());
    folder.write("stdout.log", "text");
    file_rotate("stdout.log", 1);
    EXPECT_EQ(names(), (Names{"log", "stdout.log.000.bz2"}));
    folder.write("stdin", "text"); // a plain name here, though the compressor reads standard input
    file_rotate("stdin", 1);
    EXPECT_FALSE(exists("stdin"));
    EXPECT_EQ(bunzip2("stdin.000.bz2"), "text");
}

/// Rotates `name` in a process with the root `root`; returns whether the file is still there.
bool stays_below_root(const char *root, const char *name, int count) {
    const pid_t child = fork();
    if (child == 0) {
        if (chroot(root) != 0 || chdir("/") != 0) {
            _exit(2);
        }
        file_rotate(name, count);
        _exit(access(name, F_OK) == 0 ? 0 : 1);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(RotationTest, LeavesTheNullDeviceAlone) {
    std::filesystem::create_directory(folder / "dev");
    std::filesystem::create_directory(folder / "DEV");
    folder.write("dev/null", "");
    folder.write("DEV/Null", "");
    for (const int count : {-1, 0, 3}) {
        EXPECT_TRUE(stays_below_root(folder.path().c_str(), "/dev/null", count)) << count;
        EXPECT_TRUE(stays_below_root(folder.path().c_str(), "/DEV/Null", count)) << count;
        EXPECT_FALSE(exists(folder / "dev/null.000.bz2"));
    }
    EXPECT_FALSE(stays_below_root(folder.path().c_str(), "/log", 0));
}

} // namespace
