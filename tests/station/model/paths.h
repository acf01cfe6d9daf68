#pragma once

// The network paths that the configuration enables.

#include "board_state.h"

namespace model {

/// Whether this WiFi configuration enables the WiFi.
bool wifi_in_use(const File &configuration);

class Paths {
  public:
    /// Reads the configuration if systemd-networkd has changed its state.
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
    // The last value in the LAN's configuration, kept when it disappears; -1 at first.
    int managed_ = -1;
    int activation_ = -1;
};

} // namespace model
