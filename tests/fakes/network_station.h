#pragma once

// A station whose network files stand in a scratch folder. Programs linked with --wrap for open64,
// sd_bus_process and sd_bus_set_method_call_timeout see them in the place of the board's.

#include "captured_traces.h"
#include "fake_systemd.h"
#include "network.h"
#include "private_bus.h"
#include "scratch_folder.h"

#include <cstdint>
#include <string>

/// Makes `address` that of the system bus.
void use_system_bus(const std::string &address);

/// What the check has asked of the system since the station was made.
struct NetworkCalls {
    int lan_opened = 0;
    int wifi_opened = 0;
    bool all_close_on_exec = true;
    std::uint64_t call_timeout = 0; ///< in microseconds; a minute is set instead
    int processed = 0;              ///< how often the bus was processed
};
const NetworkCalls &network_calls();

/// Whether calls without an answer are given up soon, or after a minute, from now on; the daemon is connected.
void give_up_calls(bool soon);

/// The station, without a bus at first. One at a time.
class Station {
  public:
    Station();
    ~Station();
    Station(const Station &) = delete;
    Station &operator=(const Station &) = delete;

    void lan(const std::string &content) const { folder.write("lan", content); }
    void wifi(const std::string &content) const { folder.write("wifi", content); }
    void remove(const std::string &name) const;

    /// Makes a pass; whether it has read the files.
    bool reads() const; // NOLINT(modernize-use-nodiscard)
    /// The flag after a pass that reads `content`.
    [[nodiscard]] std::int32_t lan_after(const std::string &content) const;
    [[nodiscard]] std::int32_t wifi_after(const std::string &content) const;

    ScratchFolder folder;
    CapturedTraces traces;
};

/// The same with a bus, and with systemd on it.
class BusStation : public Station {
  public:
    BusStation() { use_system_bus(bus.address()); }

    PrivateBus bus;
    FakeSystemd systemd{bus};
};
