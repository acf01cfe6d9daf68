#pragma once

/// The listener thread: owns the name on the bus and answers calls.
void *d_bus_srv_main(void *);
