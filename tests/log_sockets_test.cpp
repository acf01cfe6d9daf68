#include "log_sockets.h"

#include "datagram_queue.h"
#include "handle.h"
#include "hang_guard.h"
#include "in_child.h"
#include "scratch_folder.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <gtest/gtest.h>
#include <optional>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constinit std::time_t uptime = 1000;

/// Each test starts and ends without a pause.
struct JournalPauses : testing::Test {
    ~JournalPauses() override { log_sockets_resume(); }
};

/// A socket pair with one end full.
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

/// The send timeout in microseconds; 0: none.
std::int64_t longest_wait_of(int fd) {
    timeval longest{};
    socklen_t size = sizeof longest;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &longest, &size), 0);
    return std::int64_t{longest.tv_sec} * 1'000'000 + longest.tv_usec;
}

sockaddr_un address_of(const std::string &path) {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return address;
}

constinit const char *syslog_path = nullptr; ///< replaces /dev/log

/// A syslog socket that nobody reads.
struct Syslog : JournalPauses {
    Syslog() {
        const sockaddr_un address = address_of(path);
        EXPECT_EQ(bind(socket.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        syslog_path = path.c_str();
    }

    void fill() const { EXPECT_TRUE(fill_datagram_queue(address_of(path), "x")); }

    void read_one() const {
        char message = 0;
        ASSERT_EQ(recv(socket.get(), &message, 1, 0), 1);
    }

    ScratchFolder folder;
    std::string path = folder / "log";
    Descriptor socket{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
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

TEST(JournalOpening, BoundsTheWaitsOfTheSocketThatTheLibraryOpens) {
    std::optional<FullPair> pair;
    {
        const JournalOpening opening;
        pair.emplace(SOCK_DGRAM);
    }
    const HangGuard guard;
    EXPECT_EQ(send(pair->writer.get(), "x", 1, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
}

// The library sends a refused line once more. Each wait is rounded up to the kernel's ticks.
TEST(JournalOpening, MakesTwoWaitsLessThanATenthOfASecond) {
    std::optional<FullPair> pair;
    {
        const JournalOpening opening;
        pair.emplace(SOCK_DGRAM);
    }
    EXPECT_EQ(longest_wait_of(pair->writer.get()), 40000);
}

TEST(JournalOpening, LeavesInheritedSocketsAlone) {
    in_child([] {
        const FullPair low(SOCK_DGRAM);
        FullPair gap(SOCK_DGRAM);
        ASSERT_EQ(dup2(low.writer.get(), 100), 100);
        const FullPair high(SOCK_DGRAM);
        gap.writer.reset();
        std::optional<FullPair> own;
        {
            const JournalOpening opening;
            own.emplace(SOCK_DGRAM);
        }
        for (const int inherited : {low.writer.get(), low.reader.get(), high.writer.get(), high.reader.get(), 100}) {
            EXPECT_EQ(longest_wait_of(inherited), 0) << inherited;
        }
        EXPECT_EQ(longest_wait_of(own->writer.get()), 40000) << "in the gap";
    });
}

TEST(JournalOpening, LeavesOtherSocketsThanDatagramAlone) {
    std::optional<FullPair> pair;
    {
        const JournalOpening opening;
        pair.emplace(SOCK_STREAM);
    }
    EXPECT_EQ(longest_wait_of(pair->writer.get()), 0);
}

TEST(JournalOpening, EndsAWaitForASocketThatIsNotYetBounded) {
    const FullPair pair(SOCK_DGRAM);
    const HangGuard guard;
    const JournalOpening opening;
    EXPECT_EQ(send(pair.writer.get(), "x", 1, 0), -1);
    EXPECT_EQ(errno, EINTR);
}

TEST(JournalOpening, EndsAWaitEvenIfItsSignalIsBlocked) {
    in_child([] {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, nullptr);
        const FullPair pair(SOCK_DGRAM);
        const HangGuard guard;
        {
            const JournalOpening opening;
            EXPECT_EQ(send(pair.writer.get(), "x", 1, 0), -1);
        }
        sigset_t left;
        sigprocmask(SIG_BLOCK, nullptr, &left);
        EXPECT_EQ(sigismember(&left, SIGRTMIN), 1) << "as before";
    });
}

TEST(JournalOpening, LeavesNoHandler) {
    { const JournalOpening opening; }
    struct sigaction action {};
    ASSERT_EQ(sigaction(SIGRTMIN, nullptr, &action), 0);
    EXPECT_EQ(action.sa_handler, SIG_DFL);
}

TEST(JournalOpening, NeedsNoFreeDescriptor) {
    in_child([] {
        constexpr rlimit none{.rlim_cur = 0, .rlim_max = 0};
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
        const JournalOpening opening;
    });
}

TEST_F(JournalPauses, LastTenSeconds) {
    journal_note_result(-EAGAIN);
    uptime += 9;
    EXPECT_TRUE(journal_is_paused());
    uptime += 1;
    EXPECT_FALSE(journal_is_paused());
}

TEST_F(JournalPauses, EndWithTheNextHeartbeat) {
    journal_note_result(-EAGAIN);
    log_sockets_resume();
    EXPECT_FALSE(journal_is_paused());
}

// The first try has waited already: the library returns EMFILE, for example, if it has no descriptor for the second.
TEST_F(JournalPauses, BeginWithAnyRefusalThatMayHaveBlocked) {
    for (const int result : {-EAGAIN, -EMFILE, -ENFILE, -ENOMEM, -ENOSPC, -EPERM, -EINTR}) {
        log_sockets_resume();
        journal_note_result(result);
        EXPECT_TRUE(journal_is_paused()) << result;
    }
}

TEST_F(JournalPauses, DoNotBeginOnSuccessOrDuringAJournalRestart) {
    for (const int result : {0, -ECONNREFUSED}) {
        journal_note_result(result);
        EXPECT_FALSE(journal_is_paused()) << result;
    }
}

TEST_F(Syslog, HasRoomUntilItIsFull) {
    EXPECT_TRUE(syslog_has_room());
    fill();
    EXPECT_FALSE(syslog_has_room());
    read_one();
    EXPECT_FALSE(syslog_has_room()) << "it is not tried again";
    log_sockets_resume();
    EXPECT_TRUE(syslog_has_room());
}

TEST_F(Syslog, IsTriedAgainAfterTenSeconds) {
    fill();
    EXPECT_FALSE(syslog_has_room());
    read_one();
    uptime += 10;
    EXPECT_TRUE(syslog_has_room());
}

TEST_F(Syslog, HasRoomWhenNobodyListens) {
    fill();
    socket.reset();
    EXPECT_TRUE(syslog_has_room());
}
