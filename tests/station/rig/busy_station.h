#pragma once

// A station on which a start, ten heartbeats and a stop exercise everything the daemon does: questions to systemd,
// records, a rotation over an older generation, issues raised and cleared on the bus, sentences, and a load logger.

#include "private_bus.h"
#include "station.h"

#include <memory>
#include <string>
#include <vector>

class FakeSystemd;

/// The bus and the fake systemd of a sequence of busy stations.
class BusyWorld {
  public:
    explicit BusyWorld(BusRules rules = BusRules::open);
    ~BusyWorld();
    BusyWorld(const BusyWorld &) = delete;
    BusyWorld &operator=(const BusyWorld &) = delete;

    [[nodiscard]] PrivateBus &bus() { return bus_; }
    [[nodiscard]] const PrivateBus &bus() const { return bus_; }
    [[nodiscard]] FakeSystemd &systemd() const { return *systemd_; }

  private:
    PrivateBus bus_;
    std::unique_ptr<FakeSystemd> systemd_;
};

/// A board with everything that the daemon checks except WiFi.
Board busy_board();

class BusyStation : public Station {
  public:
    static constexpr int BEATS = 10;

    explicit BusyStation(const BusyWorld &world, Board board = busy_board());
    /// Starts the daemon without waiting.
    void launch_busy(const std::vector<std::string> &further = {});
    /// As in the blocks of the log.
    [[nodiscard]] const std::string &command_line() const { return command_line_; }
    /// Heats and loads the board for the next heartbeat, then cools it again.
    void prepare_beat();
    /// A heartbeat three minutes later, when most checks are due.
    void beat();

    /// The content of the log and its generations since the start, in order.
    [[nodiscard]] std::string recorded() const;
    [[nodiscard]] bool is_locked() const;

  private:
    std::string command_line_;
    int beats_ = 0;
};

/// The parts of a status log.
struct LogContent {
    std::vector<std::string> records; ///< time, issue and index of each, "2024-03-01 12:00:07 CB20 0"
    int starts = 0;
    int rotations = 0;
    int closings = 0;
    bool ends_closed = false; ///< only the header of a rotation follows the last closing block
    std::string torn;         ///< the text from the first unknown byte on; empty when there is none
};

/// Parses a log; `command_line` is the one in its blocks.
LogContent take_apart(const std::string &text, const std::string &command_line);
