#pragma once

// A station on which a start, ten heartbeats and a stop pass through all that the daemon does: questions
// to systemd, records, a rotation over an older generation, issues raised and cleared on the bus,
// sentences, and a load logger.

#include "private_bus.h"
#include "station.h"

#include <memory>
#include <string>
#include <vector>

class FakeSystemd;

/// The bus and the systemd of many busy stations, one after the other.
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

/// A board with all that the daemon looks at but WiFi.
Board busy_board();

class BusyStation : public Station {
  public:
    static constexpr int BEATS = 10;

    explicit BusyStation(const BusyWorld &world, Board board = busy_board());
    /// Starts the daemon and awaits nothing.
    void launch_busy(const std::vector<std::string> &further = {});
    /// As the blocks of the log show it.
    [[nodiscard]] const std::string &command_line() const { return command_line_; }
    /// Heats and loads the board for the next heartbeat, then cools it again.
    void prepare_beat();
    /// Three minutes go by, after which most checks are due.
    void beat();

    /// All that the log and its generations hold since the start, in order.
    [[nodiscard]] std::string recorded() const;
    [[nodiscard]] bool is_locked() const;

  private:
    std::string command_line_;
    int beats_ = 0;
};

/// What a status log consists of.
struct LogContent {
    std::vector<std::string> records; ///< time, issue and index of each, "2024-03-01 12:00:07 CB20 0"
    int starts = 0;
    int rotations = 0;
    int closings = 0;
    bool ends_closed = false; ///< nothing follows the last closing block but the header of a rotation
    std::string torn;         ///< where something else begins; empty when there is nothing else
};

/// Takes a text apart; `command_line` is that of its blocks.
LogContent take_apart(const std::string &text, const std::string &command_line);
