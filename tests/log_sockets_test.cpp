#define TRACE_FILE "module.c"
#include "log_sockets.h"

#include "captured_traces.h"
#include "handle.h"
#include "hang_guard.h"
#include "in_child.h"
#include "scratch_folder.h"
#include "trace.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

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

timeval longest_wait_of(int fd) {
    timeval longest{};
    socklen_t size = sizeof longest;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &longest, &size), 0);
    return longest;
}

sockaddr_un address_of(const std::string &path) {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

constinit const char *syslog_path = nullptr; ///< what stands in for /dev/log

/// A socket of syslog that nobody reads.
struct Syslog : testing::Test {
    Syslog() {
        const sockaddr_un address = address_of(path);
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        syslog_path = path.c_str();
    }

    void fill() const {
        const Descriptor writer(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        const sockaddr_un address = address_of(path);
        ASSERT_EQ(connect(writer.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        while (send(writer.get(), "x", 1, MSG_DONTWAIT) == 1) {
        }
        ASSERT_EQ(errno, EAGAIN);
    }

    ScratchFolder folder;
    std::string path = folder / "log";
    Descriptor socket_{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
};

} // namespace

extern "C" int __real_connect(int fd, const sockaddr *address, socklen_t size);
extern "C" int __wrap_connect(int fd, const sockaddr *address, socklen_t size) {
    sockaddr_un other = *reinterpret_cast<const sockaddr_un *>(address);
    if (std::strcmp(other.sun_path, "/dev/log") == 0) {
        other = address_of(syslog_path);
    }
    return __real_connect(fd, reinterpret_cast<const sockaddr *>(&other), size);
}

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

TEST(JournalWaits, AreATenthOfASecond) {
    const FullPair pair(SOCK_DGRAM);
    journal_bound_waits();
    EXPECT_EQ(longest_wait_of(pair.writer.get()).tv_sec, 0);
    EXPECT_EQ(longest_wait_of(pair.writer.get()).tv_usec, 100000);
}

TEST(JournalWaits, AreBoundedForAnyOfTheFirstSixteenDescriptors) {
    for (const int fd : {0, 15}) {
        in_child([fd] {
            FullPair pair(SOCK_DGRAM);
            ASSERT_EQ(dup2(pair.writer.get(), fd), fd);
            pair.writer.reset();
            journal_bound_waits();
            EXPECT_EQ(send(fd, "x", 1, 0), -1) << fd;
            EXPECT_EQ(errno, EAGAIN) << fd;
        });
    }
}

TEST(JournalWaits, AreBoundedBehindManyInheritedDescriptors) {
    in_child([] {
        for (int inherited = 0; inherited < 100; ++inherited) {
            ASSERT_GE(dup(STDERR_FILENO), 0);
        }
        const FullPair pair(SOCK_DGRAM);
        ASSERT_GE(pair.writer.get(), 100);
        journal_bound_waits();
        const HangGuard guard;
        EXPECT_EQ(send(pair.writer.get(), "x", 1, 0), -1);
        EXPECT_EQ(errno, EAGAIN);
    });
}

TEST(JournalWaits, AreLeftAloneForStreams) {
    const FullPair pair(SOCK_STREAM);
    journal_bound_waits();
    EXPECT_EQ(longest_wait_of(pair.writer.get()).tv_sec, 0);
    EXPECT_EQ(longest_wait_of(pair.writer.get()).tv_usec, 0);
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

TEST_F(Syslog, HasRoomUntilNobodyReadsIt) {
    EXPECT_TRUE(syslog_has_room());
    fill();
    EXPECT_FALSE(syslog_has_room());
    char message = 0;
    ASSERT_EQ(recv(socket_.get(), &message, 1, 0), 1);
    EXPECT_TRUE(syslog_has_room());
}

TEST_F(Syslog, HasRoomWhenThereIsNone) {
    fill();
    socket_.reset();
    EXPECT_TRUE(syslog_has_room());
}
