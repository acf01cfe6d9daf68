#define TRACE_FILE "module.c"
#include "trace.h"

#include "captured_traces.h"
#include "chosen_time.h"
#include "in_child.h"
#include "log_sockets.h"
#include "memory_fault.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <new>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

// Also counts allocations with new. If inlined, the compiler would report mismatched pairs. The sanitizer for threads
// has its own, which cannot be replaced.
#ifndef SANITIZED_THREADS
// NOLINTBEGIN(cppcoreguidelines-no-malloc)
[[gnu::noinline]] void *operator new(std::size_t size) {
    void *memory = std::malloc(size == 0 ? 1 : size);
    if (memory == nullptr) {
        std::abort();
    }
    return memory;
}
[[gnu::noinline]] void operator delete(void *memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void *memory, std::size_t /*size*/) noexcept { std::free(memory); }
// NOLINTEND(cppcoreguidelines-no-malloc)
#endif

namespace {

constexpr std::size_t LINE_LENGTH = 1023;

/// Chooses a destination for one test.
class TraceMode {
  public:
    explicit TraceMode(int mode) : before_(trace_mode) { trace_mode = mode; }
    ~TraceMode() { trace_mode = before_; }
    TraceMode(const TraceMode &) = delete;
    TraceMode &operator=(const TraceMode &) = delete;

  private:
    int before_;
};

std::string two_digits(std::time_t number) { return {char('0' + (number / 10)), char('0' + (number % 10))}; }

/// The prefix of a trace at `now`.
std::string prefix_at(std::time_t now, int level, const std::string &place) {
    return "(" + std::to_string(level) + ") [" + std::to_string(gettid()) + "] " + two_digits(now / 3600 % 24) + ":" +
           two_digits(now / 60 % 60) + ":" + two_digits(now % 60) + " " + place + " ";
}

/// Calls `write` until it finishes within one second, and returns that second.
template <typename Write> std::time_t in_one_second(Write write) {
    while (true) {
        const std::time_t before = std::time(nullptr);
        write();
        if (std::time(nullptr) == before) {
            return before;
        }
    }
}

std::string last_line(const CapturedTraces &traces) { return traces.all().empty() ? "" : traces.all().back().line; }

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

int trace_from_a_function() {
    trace(TRACE_DEBUG, "value %d of %s", 17, "probe");
    return __LINE__ - 1;
}

TEST(Trace, StartsWithTheJournalAsDestinationAndTheNameDebug) {
    in_child([] {
        EXPECT_EQ(trace_mode, 2);
        EXPECT_STREQ(trace_level_name(trace_mode), "DEBUG");
    });
}

TEST(Trace, NamesTheLevels) {
    EXPECT_STREQ(trace_level_name(0), "IMPORTANT");
    EXPECT_STREQ(trace_level_name(1), "INFO");
    EXPECT_STREQ(trace_level_name(2), "DEBUG");
    EXPECT_STREQ(trace_level_name(3), "TRACE");
    for (const int other : {-1, 4, 99, INT32_MAX, INT32_MIN}) {
        EXPECT_STREQ(trace_level_name(other), " --- ") << other;
    }
}

TEST(Trace, WholePrefixedLineIsTheMessage) {
    const CapturedTraces traces;
    int line = 0;
    const std::time_t now = in_one_second([&] { line = trace_from_a_function(); });
    EXPECT_EQ(last_line(traces),
              prefix_at(now, 2, "module.c: trace_from_a_function(" + std::to_string(line) + ")") + "value 17 of probe");
}

TEST(Trace, PassesThePlaceOfTheCallToTheJournal) {
    const CapturedTraces traces;
    const int line = trace_from_a_function();
    ASSERT_EQ(traces.all().size(), 1U);
    EXPECT_EQ(traces.all()[0].code_file, "CODE_FILE=module.c");
    EXPECT_EQ(traces.all()[0].code_line, "CODE_LINE=" + std::to_string(line));
    EXPECT_EQ(traces.all()[0].function, "trace_from_a_function");
}

TEST(Trace, PassesAGivenPlaceUnchanged) {
    const CapturedTraces traces;
    trace_at(TRACE_TRACE, "builtin/load.c", "load_exec", 321, "x");
    ASSERT_EQ(traces.all().size(), 1U);
    EXPECT_EQ(traces.all()[0].code_file, "CODE_FILE=builtin/load.c");
    EXPECT_EQ(traces.all()[0].code_line, "CODE_LINE=321");
    EXPECT_EQ(traces.all()[0].function, "load_exec");
    EXPECT_NE(traces.all()[0].line.find(" builtin/load.c: load_exec(321) x"), std::string::npos);
}

TEST(Trace, MapsLevelsToPriorities) {
    struct Case {
        int level, priority;
    };
    for (const Case &c : {Case{0, 5}, {1, 6}, {2, 7}, {3, 7}}) {
        const CapturedTraces traces;
        trace(c.level, " ");
        ASSERT_EQ(traces.all().size(), 1U);
        EXPECT_EQ(traces.all()[0].priority, c.priority) << c.level;
        EXPECT_EQ(traces.all()[0].line.substr(0, 4), "(" + std::to_string(c.level) + ") ");
    }
}

TEST(Trace, PrefixHoldsTheLargestNumbers) {
    for (const int level : {INT32_MAX, INT32_MIN}) {
        const CapturedTraces traces;
        const std::time_t now =
            in_one_second([&] { trace_write(level, "CODE_FILE=module.c", "CODE_LINE=2147483647", "f", "text"); });
        EXPECT_EQ(last_line(traces), prefix_at(now, level, "module.c: f(2147483647)") + "text");
    }
}

TEST(Trace, ThreadIdIsThatOfTheForkedProcess) {
    const CapturedTraces before;
    trace(TRACE_TRACE, "of the parent");
    in_child([] {
        const CapturedTraces traces;
        const std::time_t now = in_one_second([] { trace_at(TRACE_TRACE, "module.c", "f", 1, "of the child"); });
        EXPECT_EQ(last_line(traces), prefix_at(now, 3, "module.c: f(1)") + "of the child");
    });
    trace(TRACE_TRACE, "of the parent");
    EXPECT_EQ(before.all().back().line.find("(3) [" + std::to_string(gettid()) + "] "), 0U);
}

TEST(Trace, TimeIsUtcWhateverTheTimeZone) {
    in_child([] { // the zone is set only in the child
        for (const char *zone : {"AAA-5:30", "BBB+11", "UTC0"}) {
            setenv("TZ", zone, 1);
            tzset();
            const CapturedTraces traces;
            const std::time_t now =
                in_one_second([] { trace_write(2, "CODE_FILE=module.c", "CODE_LINE=90", "function", "%s", "text"); });
            EXPECT_EQ(last_line(traces), prefix_at(now, 2, "module.c: function(90)") + "text") << zone;
        }
    });
}

TEST(Trace, TimeFollowsTheClockBothWays) {
    for (const std::time_t now : {0, 59, 60, 60, 3, 0, 86399}) {
        chosen_time = now;
        const CapturedTraces traces;
        trace_write(2, "CODE_FILE=module.c", "CODE_LINE=90", "function", "%s", "text");
        EXPECT_EQ(last_line(traces), prefix_at(now, 2, "module.c: function(90)") + "text");
    }
    chosen_time.reset();
}

TEST(Trace, TimeHasTwoDigitsEach) {
    for (std::time_t now = 0; now < 86400; now += 3661) { // an hour, a minute and a second later
        chosen_time = now;
        const CapturedTraces traces;
        trace_write(2, "CODE_FILE=module.c", "CODE_LINE=90", "function", "%s", "text");
        EXPECT_EQ(last_line(traces), prefix_at(now, 2, "module.c: function(90)") + "text");
    }
    chosen_time.reset();
}

TEST(Trace, KeepsTheBlankOfAnEntryTrace) {
    const CapturedTraces traces;
    trace_write(2, "CODE_FILE=module.c", "CODE_LINE=90", "function", " ");
    EXPECT_TRUE(last_line(traces).ends_with("module.c: function(90)  ")) << last_line(traces);
}

TEST(Trace, KeepsALineEndOfTheMessage) {
    const CapturedTraces traces;
    trace_write(2, "CODE_FILE=module.c", "CODE_LINE=90", "function", "\n");
    EXPECT_TRUE(last_line(traces).ends_with("function(90) \n"));
}

TEST(Trace, DoesNotInterpretTheFormattedText) {
    const CapturedTraces traces;
    trace(TRACE_TRACE, "%s", "100%d %s%n");
    EXPECT_TRUE(last_line(traces).ends_with(") 100%d %s%n"));
}

#define EXPECT_TRACED(expected, ...)                                                                                   \
    do {                                                                                                               \
        const CapturedTraces traces;                                                                                   \
        trace_at(TRACE_TRACE, "module.c", "f", 1, __VA_ARGS__);                                                        \
        EXPECT_EQ(traces.all().back().text, expected);                                                                 \
    } while (false)

TEST(Trace, CutsANumberThatLeavesNoRoom) {
    const std::string place = prefix_at(0, 3, "module.c: f(1)");
    const std::string filler(LINE_LENGTH - place.size() - 2, 'x');
    EXPECT_TRACED(filler + "12", "%s%d", filler.c_str(), 12345);
    EXPECT_TRACED(filler + "12", "%s%u", filler.c_str(), 12345U);
}

TEST(Trace, CutsALineAfter1023Characters) {
    const std::size_t room = LINE_LENGTH - prefix_at(0, 3, "module.c: f(1)").size();
    for (const std::size_t length :
         {room - 1, room, room + 1, std::size_t{1023}, std::size_t{1024}, std::size_t{5000}}) {
        SCOPED_TRACE(length);
        const std::string message(length, 'x');
        const CapturedTraces traces;
        const std::time_t now =
            in_one_second([&] { trace_write(3, "CODE_FILE=module.c", "CODE_LINE=1", "f", "%s", message.c_str()); });
        EXPECT_EQ(last_line(traces), (prefix_at(now, 3, "module.c: f(1)") + message).substr(0, LINE_LENGTH));
    }
}

TEST(Trace, CutsAPrefixThatLeavesNoRoom) {
    const std::size_t rest = prefix_at(0, 3, ": f(1)").size();
    for (const std::size_t length :
         {LINE_LENGTH - rest - 1, LINE_LENGTH - rest, LINE_LENGTH - rest + 1, std::size_t{1024}, std::size_t{5000}}) {
        SCOPED_TRACE(length);
        const std::string file(length, 'f');
        const std::string field = "CODE_FILE=" + file;
        const CapturedTraces traces;
        const std::time_t now =
            in_one_second([&] { trace_write(3, field.c_str(), "CODE_LINE=1", "f", "%s", "message"); });
        EXPECT_EQ(last_line(traces), (prefix_at(now, 3, file + ": f(1)") + "message").substr(0, LINE_LENGTH));
        EXPECT_EQ(traces.all().back().code_file, field);
    }
}

TEST(Trace, OnlyMode3GoesToStderrAndNoModeFilters) {
    for (const int mode : {-1, 0, 1, 2, 3, 4, 99}) {
        for (const int level : {0, 1, 2, 3}) {
            SCOPED_TRACE("mode " + std::to_string(mode) + " level " + std::to_string(level));
            const TraceMode chosen(mode);
            const CapturedTraces traces;
            testing::internal::CaptureStderr();
            trace(level, "text");
            const std::string printed = testing::internal::GetCapturedStderr();
            EXPECT_EQ(lines_of(printed).size(), mode == 3 ? 1U : 0U);
            EXPECT_EQ(traces.all().size(), mode == 3 ? 0U : 1U);
        }
    }
}

TEST(Trace, WritesTheSameLineToStderr) {
    const TraceMode chosen(TRACE_TRACE);
    const std::string message(2000, 'y');
    std::string printed;
    const std::time_t now = in_one_second([&] {
        testing::internal::CaptureStderr();
        trace_write(1, "CODE_FILE=module.c", "CODE_LINE=7", "f", " ");
        trace_write(0, "CODE_FILE=module.c", "CODE_LINE=8", "f", "%s", message.c_str());
        printed = testing::internal::GetCapturedStderr();
    });
    const std::string cut = (prefix_at(now, 0, "module.c: f(8)") + message).substr(0, LINE_LENGTH);
    EXPECT_EQ(printed, prefix_at(now, 1, "module.c: f(7)") + " \n" + cut + "\n");
}

TEST(Trace, FlushesABufferedStderrAfterEveryLine) {
    in_child([] {
        const TraceMode chosen(TRACE_TRACE);
        std::array<char, 4096> buffer{};
        std::array<int, 2> ends{};
        ASSERT_EQ(pipe2(ends.data(), O_NONBLOCK), 0);
        const int terminal = dup(STDERR_FILENO);
        dup2(ends[1], STDERR_FILENO);
        std::setvbuf(stderr, buffer.data(), _IOFBF, buffer.size());
        trace_at(TRACE_INFO, "module.c", "f", 1, "at once");
        std::array<char, 256> seen{};
        EXPECT_GT(read(ends[0], seen.data(), seen.size() - 1), 0);
        EXPECT_NE(std::string(seen.data()).find("f(1) at once\n"), std::string::npos);
        dup2(terminal, STDERR_FILENO);
        std::setvbuf(stderr, nullptr, _IONBF, 0);
    });
}

TEST(Trace, KeepsErrnoOfItsCaller) {
    errno = EXDEV;
    trace(TRACE_TRACE, "to the journal");
    EXPECT_EQ(errno, EXDEV);
    in_child([] {
        const TraceMode chosen(TRACE_TRACE);
        const int terminal = dup(STDERR_FILENO);
        close(STDERR_FILENO); // the write will fail with EBADF
        errno = EXDEV;
        trace_at(TRACE_TRACE, "module.c", "f", 1, "to nowhere");
        const int kept = errno;
        dup2(terminal, STDERR_FILENO);
        EXPECT_EQ(kept, EXDEV);
    });
}

/// Makes the journal refuse lines until the end of the test.
struct RefusingJournal : testing::Test {
    RefusingJournal() { journal_result = -EAGAIN; }
    ~RefusingJournal() override {
        accept();
        const CapturedTraces traces;
        trace(TRACE_TRACE, "what was lost is told");
    }
    static void accept() {
        journal_result = 0;
        log_sockets_resume();
    }
};

TEST_F(RefusingJournal, IsNotTriedAgainInTheSameHeartbeat) {
    trace(TRACE_INFO, "lost");
    journal_result = 0;
    const CapturedTraces traces;
    trace(TRACE_INFO, "lost, too");
    EXPECT_TRUE(traces.all().empty());
}

TEST_F(RefusingJournal, GetsTheNumberOfLostTracesFirst) {
    trace(TRACE_INFO, "lost");
    trace(TRACE_TRACE, "lost, too");
    accept();
    const CapturedTraces traces;
    const int line = trace_from_a_function();
    ASSERT_EQ(traces.all().size(), 2U);
    EXPECT_EQ(traces.all()[0].text, "2 traces lost");
    EXPECT_EQ(traces.all()[0].priority, 5);
    EXPECT_EQ(traces.all()[0].code_file, "CODE_FILE=trace.c");
    EXPECT_TRUE(traces.all()[0].line.starts_with("(0) [" + std::to_string(gettid()) + "] ")) << traces.all()[0].line;
    EXPECT_EQ(traces.all()[1].code_line, "CODE_LINE=" + std::to_string(line));
    trace_from_a_function();
    EXPECT_EQ(traces.all().size(), 3U) << "it is told once";
}

TEST_F(RefusingJournal, KeepsTheNumberUntilItIsReported) {
    trace(TRACE_INFO, "lost");
    log_sockets_resume();
    trace(TRACE_INFO, "lost with the number");
    accept();
    const CapturedTraces traces;
    trace(TRACE_INFO, "back");
    ASSERT_EQ(traces.all().size(), 2U);
    EXPECT_EQ(traces.all()[0].text, "2 traces lost");
}

// While the journal restarts it refuses lines at once, so there is no pause.
TEST_F(RefusingJournal, CountsImmediateRefusalsToo) {
    journal_result = -ECONNREFUSED;
    trace(TRACE_INFO, "lost");
    trace(TRACE_INFO, "lost");
    journal_result = 0;
    const CapturedTraces traces;
    trace(TRACE_INFO, "back");
    ASSERT_EQ(traces.all().size(), 2U);
    EXPECT_EQ(traces.all()[0].text, "2 traces lost");
}

TEST(Trace, AllocatesNothing) {
    const TraceMode chosen(TRACE_TRACE); // the fake journal does allocate
    const std::string message(3000, 'z');
    testing::internal::CaptureStderr();
    const int before = allocation_count();
    trace(TRACE_TRACE, " ");
    trace(TRACE_TRACE, "%s %d %f", message.c_str(), 5, 1.5);
    const int after = allocation_count();
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(after, before);
}

TEST(AllocationCount, SeesNewMemory) {
    const int before = allocation_count();
    const std::string text(100, 'a');
    EXPECT_EQ(allocation_count(), before + 1) << text;
}

constexpr int THREADS = 4;
constexpr int ROUNDS = 100;

void lose_traces() {
    for (int round = 0; round < ROUNDS; ++round) {
        trace(TRACE_INFO, "lost");
    }
}

TEST_F(RefusingJournal, CountsTheLossesOfAllThreads) {
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (int number = 0; number < THREADS; ++number) {
        threads.emplace_back(lose_traces);
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
    accept();
    const CapturedTraces traces;
    trace(TRACE_INFO, "back");
    EXPECT_EQ(traces.all()[0].text, std::to_string(THREADS * ROUNDS) + " traces lost");
}

void trace_from_all_threads() {
    std::vector<std::thread> threads;
    threads.reserve(THREADS);
    for (int number = 0; number < THREADS; ++number) {
        threads.emplace_back([number] {
            for (int round = 0; round < ROUNDS; ++round) {
                trace_write(3, "CODE_FILE=module.c", "CODE_LINE=5", "work", "thread %d round %d id %d;", number, round,
                            gettid());
            }
        });
    }
    for (std::thread &thread : threads) {
        thread.join();
    }
}

/// Each line is complete, appears once, and has its own thread's id in brackets.
void expect_whole_lines(const std::vector<std::string> &lines) {
    const std::regex shape(R"(\(3\) \[(\d+)\] \d\d:\d\d:\d\d module\.c: work\(5\) (thread \d+ round \d+) id (\d+);)");
    std::set<std::string> ids;
    std::set<std::string> rounds;
    for (const std::string &line : lines) {
        std::smatch found;
        ASSERT_TRUE(std::regex_match(line, found, shape)) << line;
        EXPECT_EQ(found[1], found[3]);
        ids.insert(found[1]);
        rounds.insert(found[2]);
    }
    EXPECT_EQ(ids.size(), std::size_t{THREADS});
    EXPECT_EQ(rounds.size(), std::size_t{THREADS} * ROUNDS);
    EXPECT_EQ(lines.size(), std::size_t{THREADS} * ROUNDS);
}

TEST(Trace, ThreadsMayTraceAtTheSameTimeToTheJournal) {
    const CapturedTraces traces;
    trace_from_all_threads();
    std::vector<std::string> lines;
    for (const CapturedTrace &trace : traces.all()) {
        lines.push_back(trace.line);
    }
    expect_whole_lines(lines);
}

TEST(Trace, ThreadsMayTraceAtTheSameTimeToStderr) {
    const TraceMode chosen(TRACE_TRACE);
    testing::internal::CaptureStderr();
    trace_from_all_threads();
    expect_whole_lines(lines_of(testing::internal::GetCapturedStderr()));
}

} // namespace
