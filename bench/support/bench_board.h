#pragma once

// A board for all checks: files in memory in a private mount namespace, and the tests' fake systemd on a private
// bus.

#include "bench_daemon.h"
#include "fake_systemd.h"
#include "private_bus.h"
#include "processors.h"
#include "scratch_folder.h"

#include <memory>
#include <string>

class BenchBoard {
  public:
    /// Needs root. Ends the program with a message on stderr on failure.
    BenchBoard();

    [[nodiscard]] BoardPaths paths() const {
        return {.logfile = logfile_.c_str(), .disk = disk_.c_str(), .emmc = emmc_.c_str()};
    }
    [[nodiscard]] const ScratchFolder &scratch() const { return scratch_; }

  private:
    int own_processor_ = leave_last_processor(); ///< first, so that the board's servers inherit the first processor
    ScratchFolder scratch_;
    std::unique_ptr<PrivateBus> bus_;
    std::unique_ptr<FakeSystemd> systemd_;
    std::string disk_ = scratch_.path();
    std::string emmc_ = scratch_ / "mmcblk1";
    std::string logfile_ = scratch_ / "logfile";
};

/// Makes the board's /proc/net visible in a process forked from the board's.
void share_board_network();
