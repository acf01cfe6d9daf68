// What is written to the socket that NOTIFY_SOCKET names, and that nothing is where it names none.

#include "supervision.h"

#include "captured_traces.h"
#include "handle.h"
#include "hang_guard.h"
#include "memory_fault.h"
#include "scratch_folder.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr std::int64_t NOON = 1700049600; // of 15 November 2023

/// What the manager listens at: a path, or behind an @ a name of the abstract kind.
class NotifySocket {
  public:
    explicit NotifySocket(const std::string &name) : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, sizeof address.sun_path);
        if (name[0] == '@') {
            address.sun_path[0] = '\0';
        }
        const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
        EXPECT_EQ(bind(fd_.get(), reinterpret_cast<const sockaddr *>(&address), size), 0) << name;
    }

    /// The messages that have come.
    [[nodiscard]] std::vector<std::string> take() const {
        std::vector<std::string> messages;
        std::array<char, 256> buffer{};
        ssize_t size = 0;
        while ((size = recv(fd_.get(), buffer.data(), buffer.size(), 0)) >= 0) {
            messages.emplace_back(buffer.data(), static_cast<std::size_t>(size));
        }
        return messages;
    }

  private:
    Descriptor fd_;
};

class Supervision : public testing::Test {
  protected:
    void SetUp() override { ask_at(folder / "notify"); }
    void TearDown() override { unsetenv("NOTIFY_SOCKET"); }
    static void ask_at(const std::string &name) { setenv("NOTIFY_SOCKET", name.c_str(), 1); }

    ScratchFolder folder;
    NotifySocket manager{folder / "notify"};
};

TEST_F(Supervision, SaysThatItIsReady) {
    supervision_ready();
    EXPECT_THAT(manager.take(), ElementsAre("READY=1"));
}

TEST_F(Supervision, SaysThatItStops) {
    supervision_stopping();
    EXPECT_THAT(manager.take(), ElementsAre("STOPPING=1"));
}

TEST_F(Supervision, KeepsAliveAndTellsItsStatusInOneMessageAPass) {
    supervision_pass_done(NOON, 0);
    supervision_pass_done(NOON + 3723, 12);
    EXPECT_THAT(manager.take(), ElementsAre("WATCHDOG=1\nSTATUS=Last heartbeat at 12:00:00 UTC, raised issues: 0",
                                            "WATCHDOG=1\nSTATUS=Last heartbeat at 13:02:03 UTC, raised issues: 12"));
}

TEST_F(Supervision, FindsASocketOfTheAbstractKind) {
    const std::string name = "@vigmond-test-" + std::to_string(getpid());
    const NotifySocket abstract(name);
    ask_at(name);
    supervision_ready();
    EXPECT_THAT(abstract.take(), ElementsAre("READY=1"));
    EXPECT_THAT(manager.take(), IsEmpty());
}

TEST_F(Supervision, FindsTheLongestPathThatASocketCanHave) {
    const std::filesystem::path path = folder / std::string(106 - folder.path().string().size(), 'n');
    ASSERT_EQ(path.string().size(), 107U);
    const NotifySocket socket(path);
    ask_at(path);
    supervision_ready();
    EXPECT_THAT(socket.take(), ElementsAre("READY=1"));
}

TEST_F(Supervision, TriesTheShortestNameThatASocketCanHave) {
    const CapturedTraces traces;
    ask_at("@v");
    supervision_ready();
    EXPECT_THAT(traces.texts_of("notify"), ElementsAre("FAILED: Connection refused"));
}

TEST_F(Supervision, IsSilentWhereNobodyAsks) {
    const CapturedTraces traces;
    unsetenv("NOTIFY_SOCKET");
    supervision_ready();
    supervision_pass_done(NOON, 1);
    supervision_stopping();
    EXPECT_THAT(manager.take(), IsEmpty());
    EXPECT_THAT(traces.all(), IsEmpty());
}

TEST_F(Supervision, IsSilentWhereTheNameIsNoSocketsName) {
    const CapturedTraces traces;
    for (const std::string &name : {std::string(), std::string("@"), std::string("/"), std::string("notify"),
                                    "/" + std::string(107, 'n'), std::string(5000, '@')}) {
        ask_at(name);
        supervision_ready();
        EXPECT_THAT(traces.all(), IsEmpty()) << name;
    }
    EXPECT_THAT(manager.take(), IsEmpty());
}

TEST_F(Supervision, TracesASocketThatIsNotThere) {
    const CapturedTraces traces;
    ask_at(folder / "nobody");
    supervision_ready();
    EXPECT_THAT(traces.texts_of("notify"), ElementsAre("FAILED: No such file or directory"));
}

TEST_F(Supervision, DoesNotWaitForAManagerThatDoesNotRead) {
    const HangGuard guard;
    const CapturedTraces traces;
    int sent = 0;
    while (traces.all().empty()) {
        supervision_pass_done(NOON, 0);
        ++sent;
    }
    EXPECT_THAT(traces.texts_of("notify"), ElementsAre("FAILED: Resource temporarily unavailable"));
    EXPECT_THAT(manager.take(), SizeIs(static_cast<std::size_t>(sent - 1)));
    supervision_ready(); // and goes on when it reads again
    EXPECT_THAT(manager.take(), ElementsAre("READY=1"));
}

std::ptrdiff_t open_descriptors() {
    const std::filesystem::directory_iterator folder("/proc/self/fd");
    return std::distance(begin(folder), end(folder));
}

TEST_F(Supervision, NeitherAllocatesNorKeepsMoreDescriptorsAPass) {
    supervision_pass_done(NOON, 0);
    EXPECT_THAT(manager.take(), SizeIs(1));
    const int allocations = allocation_count();
    const std::ptrdiff_t descriptors = open_descriptors();
    for (int pass = 1; pass <= 100; ++pass) {
        supervision_pass_done(NOON + pass, pass);
        EXPECT_THAT(manager.take(), SizeIs(1));
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(allocation_count(), allocations);
}

} // namespace
