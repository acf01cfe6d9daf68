// What is written to the socket that NOTIFY_SOCKET names, and that nothing is written without one.

#include "supervision.h"

#include "captured_traces.h"
#include "handle.h"
#include "hang_guard.h"
#include "memory_fault.h"
#include "scratch_folder.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

/// The address the manager listens on: a path, or an abstract name after an @.
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

    /// The messages received.
    [[nodiscard]] std::vector<std::string> take() const {
        std::vector<std::string> messages;
        std::array<char, 1024> buffer{};
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
    /// As a daemon that has sent nothing yet.
    void start() const {
        supervision_ready();
        static_cast<void>(manager.take());
    }
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

TEST_F(Supervision, SendsKeepAliveAfterEachPassAndAStatusThatChanged) {
    start();
    supervision_pass_done({});
    supervision_pass_done({});
    supervision_pass_done({.raised_issues = "CB07, CB20"});
    supervision_pass_done({.raised_issues = "CB07, CB20"});
    supervision_pass_done({});
    EXPECT_THAT(manager.take(), ElementsAre("WATCHDOG=1\nSTATUS=Raised issues: none", "WATCHDOG=1",
                                            "WATCHDOG=1\nSTATUS=Raised issues: CB07, CB20", "WATCHDOG=1",
                                            "WATCHDOG=1\nSTATUS=Raised issues: none"));
}

TEST_F(Supervision, ReportsProblemsInItsStatus) {
    start();
    supervision_pass_done({.is_off_bus = true});
    supervision_pass_done({.status_log_error = ENOSPC});
    supervision_pass_done({.lost_traces = 12});
    supervision_pass_done({.raised_issues = "CB20", .is_off_bus = true, .status_log_error = EACCES, .lost_traces = 13});
    EXPECT_THAT(manager.take(),
                ElementsAre("WATCHDOG=1\nSTATUS=Raised issues: none; not on the bus",
                            "WATCHDOG=1\nSTATUS=Raised issues: none; status log cannot be written: "
                            "No space left on device",
                            "WATCHDOG=1\nSTATUS=Raised issues: none; traces lost: 12",
                            "WATCHDOG=1\nSTATUS=Raised issues: CB20; not on the bus; status log cannot be written: "
                            "Permission denied; traces lost: 13"));
}

TEST_F(Supervision, HasRoomForAllProblemsAtOnce) {
    std::string labels = "CBnn";
    for (int id = 32; id >= 0; --id) {
        labels.insert(0, "CB" + std::to_string(id) + ", ");
    }
    start();
    supervision_pass_done({.raised_issues = labels.c_str(),
                           .is_off_bus = true,
                           .status_log_error = EILSEQ, // one of the longest texts
                           .lost_traces = 4294967295});
    const std::vector<std::string> messages = manager.take();
    ASSERT_THAT(messages, SizeIs(1));
    EXPECT_THAT(messages[0], testing::EndsWith("traces lost: 4294967295"));
}

TEST_F(Supervision, SendsAgainAStatusThatTheManagerDidNotTake) {
    start();
    const CapturedTraces traces;
    while (traces.all().empty()) {
        supervision_pass_done({});
    }
    static_cast<void>(manager.take());
    supervision_pass_done({.raised_issues = "CB20"});
    EXPECT_THAT(manager.take(), ElementsAre("WATCHDOG=1\nSTATUS=Raised issues: CB20"));
    while (traces.all().size() < 2) {
        supervision_pass_done({.raised_issues = "CB20"});
    }
    supervision_pass_done({.raised_issues = "CB21"}); // is lost
    static_cast<void>(manager.take());
    supervision_pass_done({.raised_issues = "CB21"});
    EXPECT_THAT(manager.take(), ElementsAre("WATCHDOG=1\nSTATUS=Raised issues: CB21"));
}

TEST_F(Supervision, ReportsLossAndReturnOfBusAndStatusLogOnce) {
    start();
    const CapturedTraces traces;
    const auto pass = [](bool is_off_bus, int error) {
        supervision_pass_done({.is_off_bus = is_off_bus, .status_log_error = error});
        supervision_pass_done({.is_off_bus = is_off_bus, .status_log_error = error});
    };
    pass(false, 0);
    EXPECT_THAT(traces.all(), IsEmpty());
    pass(true, 0);
    pass(true, ENOSPC);
    pass(true, EACCES);
    pass(false, 0);
    EXPECT_THAT(traces.texts_of("say_changes"),
                ElementsAre("not on the bus", "status log cannot be written: No space left on device",
                            "status log cannot be written: Permission denied", "on the bus again",
                            "status log is written again"));
    EXPECT_THAT(traces.all(), testing::Each(testing::Field(&CapturedTrace::priority, LOG_INFO)));
}

TEST_F(Supervision, UsesAnAbstractSocket) {
    const std::string name = "@vigmond-test-" + std::to_string(getpid());
    const NotifySocket abstract(name);
    ask_at(name);
    supervision_ready();
    EXPECT_THAT(abstract.take(), ElementsAre("READY=1"));
    EXPECT_THAT(manager.take(), IsEmpty());
}

TEST_F(Supervision, UsesTheLongestPathThatASocketCanHave) {
    const std::filesystem::path path = folder / std::string(106 - folder.path().string().size(), 'n');
    ASSERT_EQ(path.string().size(), 107U);
    const NotifySocket socket(path);
    ask_at(path);
    supervision_ready();
    EXPECT_THAT(socket.take(), ElementsAre("READY=1"));
}

TEST_F(Supervision, UsesTheShortestNameThatASocketCanHave) {
    const CapturedTraces traces;
    ask_at("@v");
    supervision_ready();
    EXPECT_THAT(traces.texts_of("notify"), ElementsAre("FAILED: Connection refused"));
}

TEST_F(Supervision, IsSilentWithoutASocketName) {
    const CapturedTraces traces;
    unsetenv("NOTIFY_SOCKET");
    supervision_ready();
    supervision_pass_done({.raised_issues = "CB20", .is_off_bus = true});
    supervision_stopping();
    EXPECT_THAT(manager.take(), IsEmpty());
    EXPECT_THAT(traces.all(), IsEmpty());
}

TEST_F(Supervision, IsSilentWithAnInvalidSocketName) {
    const CapturedTraces traces;
    for (const std::string &name : {std::string(), std::string("@"), std::string("/"), std::string("notify"),
                                    "/" + std::string(107, 'n'), std::string(5000, '@')}) {
        ask_at(name);
        supervision_ready();
        EXPECT_THAT(traces.all(), IsEmpty()) << name;
    }
    EXPECT_THAT(manager.take(), IsEmpty());
}

TEST_F(Supervision, TracesAMissingSocket) {
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
        supervision_pass_done({});
        ++sent;
    }
    EXPECT_THAT(traces.texts_of("notify"), ElementsAre("FAILED: Resource temporarily unavailable"));
    EXPECT_THAT(manager.take(), SizeIs(static_cast<std::size_t>(sent - 1)));
    supervision_ready(); // sends again after the manager has read
    EXPECT_THAT(manager.take(), ElementsAre("READY=1"));
}

std::ptrdiff_t open_descriptors() {
    const std::filesystem::directory_iterator folder("/proc/self/fd");
    return std::distance(begin(folder), end(folder));
}

TEST_F(Supervision, NeitherAllocatesNorLeaksDescriptors) {
    supervision_pass_done({});
    EXPECT_THAT(manager.take(), SizeIs(1));
    const int allocations = allocation_count();
    const std::ptrdiff_t descriptors = open_descriptors();
    for (int pass = 1; pass <= 100; ++pass) {
        supervision_pass_done({.status_log_error = pass % 3, .lost_traces = static_cast<unsigned>(pass)});
        EXPECT_THAT(manager.take(), SizeIs(1));
    }
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(allocation_count(), allocations);
}

} // namespace
