#include "common/compression.h"

#include "bzip2_tool.h"
#include "captured_traces.h"
#include "heap.h"
#include "memory_fault.h"
#include "process_state.h"
#include "scratch_folder.h"

#include <bzlib.h>
#include <deque>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <vector>

namespace {

using std::filesystem::create_symlink;
using std::filesystem::exists;
using std::filesystem::is_symlink;

/// How the next stream opens, and how the last one was opened.
struct StreamOpening {
    bool fails = false;
    int block_size = 0;
    int verbosity = -1;
    int work_factor = 0;
    std::vector<int> descriptors_open_over_exec;
} opening;

/// The byte counts that a closing stream reports instead of the true ones.
struct {
    bool faked = false;
    unsigned in_low = 0;
    unsigned in_high = 0;
    unsigned out_low = 0;
    unsigned out_high = 0;
} counts;

/// The number of the fclose that fails, from 1; 0 for none.
int failing_close = 0;

/// The number of the fopen that is out of memory, from 1; 0 for none.
int failing_stream = 0;

/// The number of the bzip2 read stream that is out of memory, from 1; 0 for none.
int failing_reader = 0;

/// The clock's next readings; without any it stops.
std::deque<timeval> clock_readings;

template <typename Time> int read_clock(Time *now) {
    *now = {};
    if (!clock_readings.empty()) {
        now->tv_sec = clock_readings.front().tv_sec;
        now->tv_usec = clock_readings.front().tv_usec;
        clock_readings.pop_front();
    }
    return 0;
}

} // namespace

extern "C" {
BZFILE *__real_BZ2_bzWriteOpen(int *error, std::FILE *file, int block_size, int verbosity, int work_factor);
void __real_BZ2_bzWriteClose64(int *error, BZFILE *stream, int abandon, unsigned *in_low, unsigned *in_high,
                               unsigned *out_low, unsigned *out_high);

BZFILE *__real_BZ2_bzReadOpen(int *error, std::FILE *file, int verbosity, int small, void *unused, int unused_count);

BZFILE *__wrap_BZ2_bzReadOpen(int *error, std::FILE *file, int verbosity, int small, void *unused, int unused_count) {
    if (failing_reader > 0 && --failing_reader == 0) {
        *error = BZ_MEM_ERROR;
        return nullptr;
    }
    return __real_BZ2_bzReadOpen(error, file, verbosity, small, unused, unused_count);
}

BZFILE *__wrap_BZ2_bzWriteOpen(int *error, std::FILE *file, int block_size, int verbosity, int work_factor) {
    opening = {opening.fails, block_size, verbosity, work_factor, descriptors_open_over_exec()};
    if (opening.fails) {
        *error = BZ_MEM_ERROR;
        return nullptr;
    }
    return __real_BZ2_bzWriteOpen(error, file, block_size, verbosity, work_factor);
}

void __wrap_BZ2_bzWriteClose64(int *error, BZFILE *stream, int abandon, unsigned *in_low, unsigned *in_high,
                               unsigned *out_low, unsigned *out_high) {
    __real_BZ2_bzWriteClose64(error, stream, abandon, in_low, in_high, out_low, out_high);
    if (counts.faked && in_low != nullptr) {
        *in_low = counts.in_low;
        *in_high = counts.in_high;
        *out_low = counts.out_low;
        *out_high = counts.out_high;
    }
}

std::FILE *__real_fdopen(int fd, const char *mode);
std::FILE *__wrap_fdopen(int fd, const char *mode) {
    return failing_stream > 0 && --failing_stream == 0 ? nullptr : __real_fdopen(fd, mode);
}

int __real_fclose(std::FILE *file);
int __wrap_fclose(std::FILE *file) {
    const int result = __real_fclose(file);
    return failing_close > 0 && --failing_close == 0 ? EOF : result;
}

int __wrap_gettimeofday(timeval *now, void * /*zone*/) { return read_clock(now); }
int __wrap___gettimeofday64(timeval *now, void * /*zone*/) { return read_clock(now); }
}

namespace {

class CompressionTest : public testing::Test {
  protected:
    CompressionTest() {
        opening = {};
        counts = {};
        failing_close = 0;
        failing_stream = 0;
        clock_readings.clear();
    }

    /// A name whose writes all fail with a full disk.
    [[nodiscard]] std::string full_disk() const {
        create_symlink("/dev/full", to);
        return to;
    }

    const ScratchFolder folder; // NOLINT(*-non-private-member-variables-in-classes)
    const std::string from = folder / "log";
    const std::string to = folder / "log.bz2";
    const std::string back = folder / "back";
};

struct TextCase {
    const char *name;
    std::string (*make)(std::size_t size);
    std::size_t size;
};

void PrintTo(const TextCase &text, std::ostream *out) { *out << text.name; }

std::string letters(std::size_t size) { return std::string{}.append(size, 'a'); }
std::string zeros(std::size_t size) { return std::string{}.append(size, '\0'); }

class CompressedTextTest : public CompressionTest, public testing::WithParamInterface<TextCase> {
  protected:
    const std::string text = GetParam().make(GetParam().size); // NOLINT(*-non-private-member-variables-in-classes)
};

TEST_P(CompressedTextTest, IsRestoredByTheToolToTheByte) {
    folder.write("log", text);
    ASSERT_EQ(file_compress(from.c_str(), to.c_str()), 0);
    EXPECT_TRUE(bunzip2(to) == text);
}

TEST_P(CompressedTextTest, IsRestoredByFileDecompressToTheByte) {
    folder.write("log", text);
    ASSERT_EQ(file_compress(from.c_str(), to.c_str()), 0);
    ASSERT_EQ(file_decompress(to.c_str(), back.c_str()), 0);
    EXPECT_TRUE(exists(back));
    EXPECT_TRUE(read_file(back) == text);
}

TEST_P(CompressedTextTest, FromTheToolIsReadToTheByte) {
    folder.write("log.bz2", bzip2(text, "-9"));
    ASSERT_EQ(file_decompress(to.c_str(), back.c_str()), 0);
    EXPECT_TRUE(exists(back));
    EXPECT_TRUE(read_file(back) == text);
}

// The copy buffer holds 65,536 bytes, a block 100,000.
INSTANTIATE_TEST_SUITE_P(Texts, CompressedTextTest,
                         testing::Values(TextCase{"Empty", letters, 0}, TextCase{"OneZero", zeros, 1},
                                         TextCase{"BufferLessOne", log_text, 65535},
                                         TextCase{"Buffer", log_text, 65536}, TextCase{"BufferAndOne", log_text, 65537},
                                         TextCase{"Blocks", log_text, 350000}, TextCase{"Noise", noise, 350000},
                                         TextCase{"Run", letters, 900000}),
                         [](const auto &text) { return text.param.name; });

TEST_F(CompressionTest, UsesTheSmallestBlocksAndWorkFactor30) {
    folder.write("log", "text");
    ASSERT_EQ(file_compress(from.c_str(), to.c_str()), 0);
    EXPECT_EQ(opening.block_size, 1);
    EXPECT_EQ(opening.verbosity, 0);
    EXPECT_EQ(opening.work_factor, 30);
    EXPECT_EQ(read_file(to).substr(0, 4), "BZh1");
}

TEST_F(CompressionTest, LeavesNoDescriptorOpenAcrossAnExec) {
    const std::vector<int> before = descriptors_open_over_exec();
    folder.write("log", "text");
    file_compress(from.c_str(), to.c_str());
    EXPECT_EQ(opening.descriptors_open_over_exec, before);
    const RedirectedDescriptor in(STDIN_FILENO, from, O_RDONLY);
    const RedirectedDescriptor out(STDOUT_FILENO, to, O_WRONLY);
    file_compress("stdin", "stdout");
    EXPECT_EQ(opening.descriptors_open_over_exec, before);
}

TEST_F(CompressionTest, ReplacesAnExistingFile) {
    folder.write("log", "text");
    folder.write("log.bz2", std::string(1000, 'x'));
    ASSERT_EQ(file_compress(from.c_str(), to.c_str()), 0);
    EXPECT_EQ(bunzip2(to), "text");
}

TEST_F(CompressionTest, TracesTheNamesFirst) {
    const CapturedTraces traces;
    file_compress("/nowhere/a", "/nowhere/b");
    file_decompress("/nowhere/c", "/nowhere/d");
    ASSERT_EQ(traces.all().size(), 2U);
    EXPECT_TRUE(traces.has("file_compress", "from: /nowhere/a to: /nowhere/b"));
    EXPECT_TRUE(traces.has("file_decompress", "from: /nowhere/c to: /nowhere/d"));
    EXPECT_EQ(traces.all()[0].code_file, "CODE_FILE=common.c");
}

struct FactorCase {
    unsigned in_low, in_high, out_low, out_high;
    int percent;
};

void PrintTo(const FactorCase &factor, std::ostream *out) { *out << factor.percent << '%'; }

class FactorTest : public CompressionTest, public testing::WithParamInterface<FactorCase> {};

TEST_P(FactorTest, IsTheCompressedSizeInPercentOfThePlainOne) {
    const auto [in_low, in_high, out_low, out_high, percent] = GetParam();
    counts = {true, in_low, in_high, out_low, out_high};
    folder.write("log", "text");
    const CapturedTraces traces;
    file_compress(from.c_str(), to.c_str());
    EXPECT_EQ(traces.texts_of("file_compress").back(),
              "file: " + from + ": factor: " + std::to_string(percent) + "% time: 1000000 us");
}

INSTANTIATE_TEST_SUITE_P(Counts, FactorTest,
                         testing::Values(FactorCase{1000, 0, 250, 0, 25},           //
                                         FactorCase{1000, 0, 259, 0, 25},           // cut, not rounded
                                         FactorCase{10, 0, 35, 0, 350},             // grown
                                         FactorCase{0, 0, 14, 0, 0},                // empty: no division
                                         FactorCase{100000000, 0, 50000000, 0, 50}, // 100 * 50,000,000 exceeds 32 bits
                                         FactorCase{0, 2, 0, 1, 50},                // 4 GiB out of 8 GiB
                                         FactorCase{1073741824, 1, 0, 1, 80}));     // 4 GiB out of 5 GiB

TEST_F(CompressionTest, OfAnEmptyFileHasTheFactor0) {
    folder.write("log", "");
    const CapturedTraces traces;
    ASSERT_EQ(file_compress(from.c_str(), to.c_str()), 0);
    EXPECT_TRUE(traces.has("file_compress", "file: " + from + ": factor: 0% time: 1000000 us"));
    EXPECT_EQ(traces.all().back().priority, 7); // the journal's debug level
    EXPECT_EQ(traces.all().back().line.substr(0, 3), "(3)");
}

struct TimeCase {
    timeval start, end;
    const char *text;
};

void PrintTo(const TimeCase &times, std::ostream *out) { *out << times.text; }

class ElapsedTimeTest : public CompressionTest, public testing::WithParamInterface<TimeCase> {};

TEST_P(ElapsedTimeTest, IsTakenFromTheMicrosecondsAlone) {
    folder.write("log", "");
    const CapturedTraces traces;
    clock_readings = {GetParam().start, GetParam().end, GetParam().start, GetParam().end};
    ASSERT_EQ(file_compress(from.c_str(), to.c_str()), 0);
    ASSERT_EQ(file_decompress(to.c_str(), back.c_str()), 0);
    EXPECT_TRUE(traces.has("file_compress", "file: " + from + ": factor: 0% time: " + GetParam().text));
    EXPECT_TRUE(traces.has("file_decompress", "file: " + to + ": time: " + GetParam().text));
    EXPECT_TRUE(clock_readings.empty());
}

INSTANTIATE_TEST_SUITE_P(Times, ElapsedTimeTest,
                         testing::Values(TimeCase{{10, 100}, {10, 350}, "250 us"}, //
                                         TimeCase{{10, 100}, {17, 350}, "250 us"}, // seven seconds ignored
                                         TimeCase{{10, 999998}, {11, 3}, "5 us"},  // 3 - 999998 + 1000000
                                         TimeCase{{10, 500}, {10, 501}, "1 us"},
                                         TimeCase{{10, 500}, {10, 500}, "1000000 us"},
                                         TimeCase{{10, 500}, {10, 499}, "999999 us"}));

TEST_F(CompressionTest, OfAMissingFileFailsAndCreatesNothing) {
    EXPECT_EQ(file_compress(from.c_str(), to.c_str()), -1);
    EXPECT_FALSE(exists(to));
}

TEST_F(CompressionTest, IntoAMissingFolderFails) {
    folder.write("log", "text");
    EXPECT_EQ(file_compress(from.c_str(), (folder / "none/log.bz2").c_str()), -1);
    EXPECT_EQ(read_file(from), "text");
}

TEST_F(CompressionTest, TreatsAReadErrorAsTheEnd) {
    EXPECT_EQ(file_compress(folder.path().c_str(), to.c_str()), 0); // a folder opens but cannot be read
    EXPECT_TRUE(exists(to));
    EXPECT_EQ(bunzip2(to), "");
}

TEST_F(CompressionTest, RemovesTheDestinationWhenTheDiskFillsUpMidway) {
    folder.write("log", noise(350000));
    EXPECT_EQ(file_compress(from.c_str(), full_disk().c_str()), -1);
    EXPECT_FALSE(is_symlink(to));
}

TEST_F(CompressionTest, RemovesTheDestinationWhenTheDiskIsFullAtTheEnd) {
    folder.write("log", "text"); // written at the close, not before
    EXPECT_EQ(file_compress(from.c_str(), full_disk().c_str()), -1);
    EXPECT_FALSE(is_symlink(to));
}

TEST_F(CompressionTest, RemovesTheDestinationThatReportsItsErrorAtTheClose) { // like a network file system
    folder.write("log", "text");
    failing_close = 2; // after the source's
    EXPECT_EQ(file_compress(from.c_str(), to.c_str()), -1);
    EXPECT_EQ(failing_close, 0);
    EXPECT_FALSE(exists(to));
}

TEST_F(CompressionTest, RemovesTheDestinationThatReachedTheLimitOfItsSize) {
    folder.write("log", noise(350000)); // compresses to slightly more than 350 kB
    for (const rlim_t limit : {0UL, 1UL, 5000UL, 100000UL, 350000UL}) {
        const FileSizeLimit limited(limit);
        EXPECT_EQ(file_compress(from.c_str(), to.c_str()), -1) << limit;
        EXPECT_FALSE(exists(to)) << limit;
    }
    EXPECT_EQ(file_compress(from.c_str(), to.c_str()), 0);
}

TEST_F(CompressionTest, OfStdinKeepsTheDestinationThatCannotBeClosed) {
    folder.write("log", "text");
    const RedirectedDescriptor in(STDIN_FILENO, from, O_RDONLY);
    EXPECT_EQ(file_compress("stdin", full_disk().c_str()), -1);
    EXPECT_TRUE(is_symlink(to));
}

TEST_F(CompressionTest, OfStdinRemovesTheDestinationThatCannotBeWritten) {
    folder.write("log", noise(350000));
    const RedirectedDescriptor in(STDIN_FILENO, from, O_RDONLY);
    EXPECT_EQ(file_compress("stdin", full_disk().c_str()), -1);
    EXPECT_FALSE(is_symlink(to));
}

TEST_F(CompressionTest, RemovesTheDestinationWhenNoStreamOpens) {
    folder.write("log", "text");
    opening.fails = true;
    EXPECT_EQ(file_compress(from.c_str(), to.c_str()), -1);
    EXPECT_FALSE(exists(to));
}

TEST_F(CompressionTest, WithoutMemoryTouchesNothing) {
    folder.write("log", "text");
    folder.write("log.bz2", "old");
    const MemoryFault fault(1);
    EXPECT_EQ(file_compress(from.c_str(), to.c_str()), -1);
    EXPECT_TRUE(MemoryFault::happened());
    EXPECT_EQ(read_file(to), "old");
}

TEST_F(CompressionTest, WithoutMemoryForAStreamLeavesNoEmptyFile) {
    folder.write("log", "text");
    folder.write("log.bz2", "old");
    const std::ptrdiff_t descriptors = open_descriptors();
    failing_stream = 1; // the source's
    EXPECT_EQ(file_compress(from.c_str(), to.c_str()), -1);
    EXPECT_EQ(read_file(to), "old");
    failing_stream = 2;
    EXPECT_EQ(file_compress(from.c_str(), to.c_str()), -1);
    EXPECT_FALSE(exists(to));
    EXPECT_EQ(failing_stream, 0);
    EXPECT_EQ(open_descriptors(), descriptors);
}

/// Each failure once.
void fail_in_every_way(const ScratchFolder &folder) {
    const std::string big = folder.write("big", noise(350000));
    const std::string small = folder.write("small", "text");
    const std::string to = folder / "full";
    for (const std::string &from : {big, small}) {
        create_symlink("/dev/full", to);
        EXPECT_EQ(file_compress(from.c_str(), to.c_str()), -1);
        EXPECT_EQ(file_decompress(from.c_str(), to.c_str()), -1); // no stream
    }
    EXPECT_EQ(file_compress("/nowhere/a", to.c_str()), -1);
    EXPECT_EQ(file_compress(small.c_str(), "/nowhere/b"), -1);
    EXPECT_EQ(file_decompress("/nowhere/a", to.c_str()), -1);
    EXPECT_EQ(file_decompress(small.c_str(), "/nowhere/b"), -1);
    const RedirectedDescriptor out(STDOUT_FILENO, "/dev/full", O_WRONLY);
    EXPECT_EQ(file_compress(big.c_str(), "stdout"), -1);
    EXPECT_EQ(file_compress(small.c_str(), "stdout"), -1);
}

TEST_F(CompressionTest, LeaksNoMemoryAndNoDescriptorInThirtyFailures) {
    fail_in_every_way(folder); // one-time allocations happen now
    const std::size_t heap = heap_in_use();
    const std::ptrdiff_t descriptors = open_descriptors();
    for (int i = 0; i < 30; ++i) {
        const CapturedTraces forgotten;
        fail_in_every_way(folder);
    }
    EXPECT_LT(heap_in_use(), heap + 50000); // one leaked stream is a megabyte
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(CompressionTest, ReadsStdinAndWritesStdout) {
    const std::string text = log_text(200000);
    folder.write("log", text);
    {
        const RedirectedDescriptor in(STDIN_FILENO, from, O_RDONLY);
        const RedirectedDescriptor out(STDOUT_FILENO, to, O_WRONLY | O_CREAT);
        EXPECT_EQ(file_compress("stdin", "stdout"), 0);
        EXPECT_NE(fcntl(STDIN_FILENO, F_GETFD), -1); // both stay open
        EXPECT_NE(fcntl(STDOUT_FILENO, F_GETFD), -1);
    }
    EXPECT_TRUE(bunzip2(to) == text);
    {
        const RedirectedDescriptor in(STDIN_FILENO, to, O_RDONLY);
        const RedirectedDescriptor out(STDOUT_FILENO, back, O_WRONLY | O_CREAT);
        EXPECT_EQ(file_decompress("stdin", "stdout"), 0);
        EXPECT_NE(fcntl(STDIN_FILENO, F_GETFD), -1);
        EXPECT_NE(fcntl(STDOUT_FILENO, F_GETFD), -1);
    }
    EXPECT_TRUE(read_file(back) == text);
}

TEST_F(CompressionTest, FollowsWhatWasPrintedBefore) {
    folder.write("log.bz2", bzip2("text", ""));
    std::fflush(stdout);
    {
        const RedirectedDescriptor out(STDOUT_FILENO, back, O_WRONLY | O_CREAT);
        std::fputs("printed ", stdout);
        EXPECT_EQ(file_decompress(to.c_str(), "stdout"), 0);
        std::fflush(stdout);
    }
    EXPECT_EQ(read_file(back), "printed text");
}

TEST_F(CompressionTest, TreatsStreamNamesInAnotherCaseAsFiles) {
    const WorkingFolder here(folder.path());
    folder.write("STDIN", "a file");
    folder.write("Stdin", "another");
    EXPECT_EQ(file_compress("STDIN", "STDOUT"), 0);
    EXPECT_EQ(bunzip2("STDOUT"), "a file");
    EXPECT_EQ(file_compress("Stdin", "Stdout"), 0);
    EXPECT_EQ(file_decompress("Stdout", "STDERR"), 0);
    EXPECT_EQ(read_file("STDERR"), "another");
}

TEST_F(CompressionTest, ToAFullStdoutRemovesNoFileOfThatName) {
    const WorkingFolder here(folder.path());
    folder.write("stdout", "a file");
    folder.write("log", noise(350000));
    const RedirectedDescriptor out(STDOUT_FILENO, "/dev/full", O_WRONLY);
    EXPECT_EQ(file_compress(from.c_str(), "stdout"), -1);
    EXPECT_EQ(file_decompress(from.c_str(), "stdout"), -1);
    EXPECT_EQ(read_file("stdout"), "a file");
}

class DecompressionTest : public CompressionTest {
  protected:
    /// The result for a file of these bytes; the caller checks the destination.
    int decompress(const std::string &bytes) {
        folder.write("log.bz2", bytes);
        folder.write("back", "old");
        return file_decompress(to.c_str(), back.c_str());
    }
};

TEST_F(DecompressionTest, ReplacesAnExistingFile) {
    EXPECT_EQ(decompress(bzip2("", "")), 0);
    EXPECT_TRUE(exists(back));
    EXPECT_EQ(read_file(back), "");
}

TEST_F(DecompressionTest, OfAMissingFileFailsAndLeavesTheDestinationAlone) {
    folder.write("back", "old");
    EXPECT_EQ(file_decompress(to.c_str(), back.c_str()), -1);
    EXPECT_EQ(read_file(back), "old");
}

TEST_F(DecompressionTest, RefusesEveryTruncation) {
    const std::string stream = bzip2("a short text", "-1");
    for (std::size_t length = 0; length < stream.size(); ++length) {
        EXPECT_EQ(decompress(stream.substr(0, length)), -1) << length;
        EXPECT_FALSE(exists(back)) << length;
    }
    EXPECT_EQ(decompress(stream), 0);
}

TEST_F(DecompressionTest, RefusesWhatIsNotAStream) {
    for (const std::string &bytes : {std::string("plain text"), std::string("BZh0"), std::string("BZ"), noise(10000)}) {
        EXPECT_EQ(decompress(bytes), -1);
        EXPECT_FALSE(exists(back));
    }
}

TEST_F(DecompressionTest, RefusesAFolder) {
    EXPECT_EQ(file_decompress(folder.path().c_str(), back.c_str()), -1);
    EXPECT_FALSE(exists(back));
}

TEST_F(DecompressionTest, RefusesADamagedStream) {
    const std::string stream = bzip2(log_text(250000), "-1");
    for (const std::size_t damaged : {std::size_t{4}, std::size_t{10}, stream.size() / 2}) { // mark, checksum, data
        std::string bytes = stream;
        bytes[damaged] = static_cast<char>(~bytes[damaged]);
        EXPECT_EQ(decompress(bytes), -1) << damaged;
        EXPECT_FALSE(exists(back)) << damaged;
    }
}

TEST_F(DecompressionTest, JoinsStreamsThatFollowEachOther) {
    EXPECT_EQ(decompress(bzip2("one ", "") + bzip2("", "") + bzip2("two", "-1")), 0);
    EXPECT_EQ(read_file(back), "one two");
    const std::string stream = bzip2("x", "");
    std::string streams;
    std::string text;
    for (int i = 0; i < 300; ++i) { // more than the library reads at once
        streams += stream;
        text += "x";
    }
    EXPECT_EQ(decompress(streams), 0);
    EXPECT_EQ(read_file(back), text);
    EXPECT_EQ(decompress(bzip2(noise(70000), "") + bzip2(log_text(70000), "")), 0);
    EXPECT_TRUE(read_file(back) == noise(70000) + log_text(70000));
}

TEST_F(DecompressionTest, IgnoresWhatFollowsTheLastStream) {
    EXPECT_EQ(decompress(bzip2("text", "") + "\n"), 0);
    EXPECT_EQ(read_file(back), "text");
    EXPECT_EQ(decompress(bzip2("text", "") + noise(20000)), 0);
    EXPECT_EQ(read_file(back), "text");
}

TEST_F(DecompressionTest, RefusesASecondStreamThatIsTruncated) {
    EXPECT_EQ(decompress(bzip2("text", "") + bzip2("more", "").substr(0, 20)), -1);
    EXPECT_FALSE(exists(back));
    EXPECT_EQ(decompress(bzip2("text", "") + "BZ"), -1);
    EXPECT_FALSE(exists(back));
}

TEST_F(DecompressionTest, RemovesTheDestinationOnAFullDisk) {
    for (const std::string &text : {std::string("short"), log_text(200000)}) {
        folder.write("log.bz2", bzip2(text, ""));
        create_symlink("/dev/full", back);
        EXPECT_EQ(file_decompress(to.c_str(), back.c_str()), -1);
        EXPECT_FALSE(is_symlink(back));
    }
}

TEST_F(DecompressionTest, WithoutMemoryTouchesNothing) {
    folder.write("log.bz2", bzip2("text", ""));
    folder.write("back", "old");
    const MemoryFault fault(1);
    EXPECT_EQ(file_decompress(to.c_str(), back.c_str()), -1);
    EXPECT_TRUE(MemoryFault::happened());
    EXPECT_EQ(read_file(back), "old");
}

TEST_F(DecompressionTest, WithoutMemoryForAStreamRemovesTheDestination) {
    for (const int stream : {1, 2}) {
        failing_reader = stream;
        EXPECT_EQ(decompress(bzip2("one ", "") + bzip2("two", "")), -1) << stream;
        EXPECT_EQ(failing_reader, 0);
        EXPECT_FALSE(exists(back)) << stream;
    }
}

} // namespace
