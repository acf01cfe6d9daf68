#pragma once

// The board and the systemd that all 23 checks find what they look for on: files in memory in a mount
// namespace of the process's own, and the tests' fake systemd on a private bus.

#include "bench_daemon.h"
#include "fake_systemd.h"
#include "private_bus.h"
#include "processors.h"
#include "scratch_folder.h"

#include <memory>
#include <string>

class BenchBoard {
  public:
    /// Takes root. Ends the program with a word on stderr where it cannot be had.
    BenchBoard();

    [[nodiscard]] BoardPaths paths() const {
        return {.logfile = logfile_.c_str(), .disk = disk_.c_str(), .emmc = emmc_.c_str()};
    }
    [[nodiscard]] const ScratchFolder &scratch() const { return scratch_; }

  private:
    int own_processor_ = leave_last_processor(); ///< before all that serves the board inherits the first
    ScratchFolder scratch_;
    std::unique_ptr<PrivateBus> bus_;
    std::unique_ptr<FakeSystemd> systemd_;
    std::string disk_ = scratch_.path();
    std::string emmc_ = scratch_ / "mmcblk1";
    std::string logfile_ = scratch_ / "logfile";
};

/// Shows a process that was forked from that of the board the board's /proc/net too.
void share_board_network();
