#pragma once

// A station whose network files are in a scratch folder. Programs linked with --wrap for open64 and sd_bus_process see
// them instead of the board's.

#include "captured_traces.h"
#include "fake_systemd.h"
#include "network.h"
#include "private_bus.h"
#include "scratch_folder.h"

#include <cstdint>
#include <string>

/// Makes `address` that of the system bus.
void use_system_bus(const std::string &address);

/// The system calls of the check since the station was created.
struct NetworkCalls {
    int lan_opened = 0;
    int wifi_opened = 0;
    bool all_close_on_exec = true;
    int processed = 0; ///< calls of sd_bus_process
};
const NetworkCalls &network_calls();

/// The station, without a bus. One at a time.
class Station {
  public:
    Station();
    ~Station();
    Station(const Station &) = delete;
    Station &operator=(const Station &) = delete;

    void lan(const std::string &content) const { folder.write("lan", content); }
    void wifi(const std::string &content) const { folder.write("wifi", content); }
    void remove(const std::string &name) const;

    /// Runs a pass; returns whether it read the files.
    bool reads() const; // NOLINT(modernize-use-nodiscard)
    /// The flag after a pass that read `content`.
    [[nodiscard]] std::int32_t lan_after(const std::string &content) const;
    [[nodiscard]] std::int32_t wifi_after(const std::string &content) const;

    ScratchFolder folder;
    CapturedTraces traces;
};

/// The same with systemd on a bus.
class BusStation : public Station {
  public:
    BusStation() { use_system_bus(bus.address()); }

    PrivateBus bus;
    FakeSystemd systemd{bus};
};
