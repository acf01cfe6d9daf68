#define TRACE_FILE "module.c"
#include "log_sockets.h"

#include "captured_traces.h"
#include "handle.h"
#include "trace.h"

#include <array>
#include <cerrno>
#include <ctime>
#include <gtest/gtest.h>
#include <sys/socket.h>

namespace {

constinit std::time_t uptime = 1000;

struct JournalThatIsFull : testing::Test {
    JournalThatIsFull() { journal_note_result(-EAGAIN); }
    ~JournalThatIsFull() override { uptime += 10; }
};

/// Two ends of a socket, one of which is full.
struct FullPair {
    explicit FullPair(int type) {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends.data()), 0);
        writer = Descriptor(ends[0]);
        reader = Descriptor(ends[1]);
        while (send(writer.get(), "x", 1, MSG_DONTWAIT) == 1) {
        }
    }
    Descriptor writer;
    Descriptor reader;
};

} // namespace

extern "C" int __wrap_clock_gettime(clockid_t /*clock*/, std::timespec *result) {
    *result = {.tv_sec = uptime, .tv_nsec = 0};
    return 0;
}
extern "C" int __wrap___clock_gettime64(clockid_t clock, std::timespec *result) {
    return __wrap_clock_gettime(clock, result);
}

TEST(JournalWaits, AreBoundedForDatagrams) {
    const FullPair pair(SOCK_DGRAM);
    journal_bound_waits();
    EXPECT_EQ(send(pair.writer.get(), "x", 1, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(JournalWaits, AreLeftAloneForStreams) {
    const FullPair pair(SOCK_STREAM);
    journal_bound_waits();
    timeval longest{};
    socklen_t size = sizeof longest;
    ASSERT_EQ(getsockopt(pair.writer.get(), SOL_SOCKET, SO_SNDTIMEO, &longest, &size), 0);
    EXPECT_EQ(longest.tv_sec, 0);
    EXPECT_EQ(longest.tv_usec, 0);
}

TEST_F(JournalThatIsFull, GetsNoTraceForTenSeconds) {
    CapturedTraces traces;
    trace(TRACE_INFO, "lost");
    uptime += 9;
    EXPECT_TRUE(journal_is_full());
    trace(TRACE_INFO, "lost, too");
    EXPECT_TRUE(traces.all().empty());
    uptime += 1;
    trace(TRACE_INFO, "back");
    EXPECT_EQ(traces.all().size(), 1U);
}

TEST_F(JournalThatIsFull, IsTheOnlyOneThatIsLeftOut) {
    uptime += 10;
    for (const int result : {0, -ENOENT, -ECONNREFUSED}) {
        journal_note_result(result);
        EXPECT_FALSE(journal_is_full()) << result;
    }
}
