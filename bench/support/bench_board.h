#pragma once

// The board and the systemd that all 23 checks find what they look for on: files in memory in a mount
// namespace of the process's own, and the tests' fake systemd on a private bus.

#include "fake_systemd.h"
#include "private_bus.h"
#include "scratch_folder.h"

#include <memory>
#include <string>

class BenchBoard {
  public:
    /// Takes root. Ends the program with a word on stderr where it cannot be had.
    BenchBoard();

    /// Hands the daemon its table, the parameters of which no machine but the board has (a disk, the
    /// eMMC) changed for paths of ours, and a status log that does not rotate.
    void configure_daemon() const;

  private:
    ScratchFolder scratch_;
    std::unique_ptr<PrivateBus> bus_;
    std::unique_ptr<FakeSystemd> systemd_;
    std::string disk_ = scratch_.path();
    std::string emmc_ = scratch_ / "mmcblk1";
    std::string logfile_ = scratch_ / "logfile";
};
