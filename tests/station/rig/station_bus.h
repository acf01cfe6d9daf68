#pragma once

// A station's system bus, with systemd on it.

#include "fake_systemd.h"
#include "private_bus.h"
#include "station.h"

/// Made before the daemon is started, which then takes it for its own.
class StationBus {
  public:
    explicit StationBus(Station *station) : bus(station->files().scratch()) {
        station->environment.push_back(bus.variable());
    }

    PrivateBus bus;
    FakeSystemd systemd{bus};
};
