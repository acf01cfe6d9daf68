#pragma once

// Which network paths the configuration has in use.

#include "board_state.h"

namespace model {

/// Whether a WiFi configuration with this text has the WiFi in use.
bool wifi_in_use(const File &configuration);

class Paths {
  public:
    /// Looks at the configuration, if systemd-networkd has changed its state since.
    void look(BoardState *board);
    [[nodiscard]] bool lan() const { return lan_; }
    [[nodiscard]] bool wifi() const { return wifi_; }

  private:
    [[nodiscard]] bool is_unchanged(BoardState *board);
    bool lan_in_use(const File &configuration);
    bool read_lan(const std::string &text);
    void take_key(const std::string &section, const std::string &name, const std::string &value);

    bool first_ = true;
    std::string networkd_time_ = "0";
    bool lan_ = false;
    bool wifi_ = false;
    // What the LAN's configuration said last, never forgotten; -1 before it said anything.
    int managed_ = -1;
    int activation_ = -1;
};

} // namespace model
