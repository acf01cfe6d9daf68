#pragma once

/// The listener thread: owns the bus name and handles calls.
void *d_bus_srv_main(void *);
