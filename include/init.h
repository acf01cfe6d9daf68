#pragma once

/// Initialises all modules, then every runnable task in list order; returns 0.
int init();
