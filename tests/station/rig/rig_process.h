#pragma once

// One program in a sandbox with the preloaded library, and its output.

#include "board.h"
#include "handle.h"
#include "preload/station_page.h"
#include "sandbox.h"
#include "trace_line.h"

#include <memory>
#include <optional>
#include <string>
#include <sys/resource.h>
#include <sys/types.h>
#include <vector>

/// The exit status of a process ended by a sanitizer.
inline constexpr int SANITIZER_STATUS = 99;

struct Launch {
    std::string program; ///< the same path inside and outside
    std::string argv0;
    std::vector<std::string> arguments;
    std::vector<std::string> environment; ///< "NAME=value", in addition to the rig's own
    mode_t umask;
    rlim_t file_size;
    StationFault fault{};
    bool uses_disk = false;
};

struct UnmapPage {
    void operator()(StationPage *page) const;
};

class RigProcess {
  public:
    /// Starts the program with its own page.
    RigProcess(const Launch &launch, const Sandbox &sandbox, const Board &board);
    /// Kills the process if it still runs.
    ~RigProcess();
    RigProcess(const RigProcess &) = delete;
    RigProcess &operator=(const RigProcess &) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    [[nodiscard]] StationPage &page() const { return *page_; }
    void send(int signo) const;

    /// Descriptors to poll; call drain() when one becomes readable.
    [[nodiscard]] std::vector<int> descriptors() const;
    /// Reads all output so far without waiting.
    void drain();

    [[nodiscard]] const std::string &out() const { return out_; }
    [[nodiscard]] TraceLog &err() { return err_; }
    /// The exit status or the negative signal number; none while it runs.
    [[nodiscard]] const std::optional<int> &status() const { return status_; }

  private:
    [[noreturn]] void become(const Launch &launch, const Sandbox &sandbox, int out, int err) const;
    void reap();

    Descriptor page_fd_;
    std::unique_ptr<StationPage, UnmapPage> page_;
    Descriptor wake_;
    Descriptor out_pipe_;
    Descriptor err_pipe_;
    Descriptor pidfd_;
    pid_t pid_ = -1;
    std::optional<int> status_;
    std::string out_;
    TraceLog err_;
};
