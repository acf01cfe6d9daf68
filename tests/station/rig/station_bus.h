#pragma once

// A station's system bus with a fake systemd.

#include "fake_systemd.h"
#include "private_bus.h"
#include "station.h"

/// Created before the daemon starts, so that the daemon uses it.
class StationBus {
  public:
    explicit StationBus(Station *station) : bus(station->files().scratch()) {
        station->environment.push_back(bus.variable());
    }

    PrivateBus bus;
    FakeSystemd systemd{bus};
};
