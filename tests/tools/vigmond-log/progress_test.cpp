// The progress bar.

#include "child_process.h"
#include "program.h"
#include "session.h"

#include <array>
#include <chrono>
#include <pty.h>
#include <sys/stat.h>

using testing::EndsWith;
using testing::HasSubstr;

namespace {

/// Replaces standard error with a terminal as long as it exists.
class TerminalAsStderr {
  public:
    TerminalAsStderr() : before_(dup(STDERR_FILENO)) {
        int master = -1;
        int slave = -1;
        EXPECT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
        master_.reset(master);
        dup2(slave, STDERR_FILENO);
        close(slave);
    }
    ~TerminalAsStderr() { dup2(before_.get(), STDERR_FILENO); }
    TerminalAsStderr(const TerminalAsStderr &) = delete;
    TerminalAsStderr &operator=(const TerminalAsStderr &) = delete;

    /// What was written since the last call. Nothing may be pending.
    [[nodiscard]] std::string text() const {
        std::array<char, 4096> buffer{};
        const ssize_t count = read(master_.get(), buffer.data(), buffer.size());
        return {buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
    }

  private:
    Descriptor before_;
    Descriptor master_;
};

struct Progress : Program {};

} // namespace

TEST_F(Progress, ShowsTheShareOfAllFiles) {
    const TerminalAsStderr terminal;
    {
        vlog::Progress progress(1000, std::chrono::milliseconds(0));
        *progress.counter() = 250;
        progress.show();
        EXPECT_EQ(terminal.text(), "\r[##########                              ]  25 %\033[K");
    }
    EXPECT_EQ(terminal.text(), "\r\033[K") << "the bar is removed at the end";
    {
        vlog::Progress progress(1000, std::chrono::milliseconds(0));
        *progress.counter() = 2000; // the log has grown
        progress.show();
        EXPECT_THAT(terminal.text(), EndsWith("] 100 %\033[K"));
    }
}

// Feeds the program until the bar appears. A pipe has no known size.
TEST_F(Progress, AppearsOnATerminalWhenReadingTakesLong) {
    const std::string pipe = scratch / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const std::string typescript = scratch.write("typescript", "");
    ChildProcess terminal(
        {"script", "-qefc", "TZ=UTC " VIGMOND_LOG " summary - <" + pipe + " >" + (scratch / "out"), typescript});
    FileHandle writer(std::fopen(pipe.c_str(), "we"));
    ASSERT_TRUE(writer);
    std::string block = header("2024-05-01 10:00:00", "START");
    for (int second = 0; second < 10000; ++second) {
        block += record(vlog::local_text(1714557600 + second), "OK", "CB20", "42");
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (read_file(typescript).find(" MB read") == std::string::npos && std::chrono::steady_clock::now() < deadline) {
        ASSERT_EQ(std::fwrite(block.data(), 1, block.size(), writer.get()), block.size());
    }
    EXPECT_THAT(read_file(typescript), HasSubstr(" MB read\033[K"));
    writer.reset();
    EXPECT_EQ(terminal.wait(), 0);
}
