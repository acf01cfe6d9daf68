#pragma once

/// A function to run at exit, called with the argument given to `cleanup_add`.
using CleanupFunction = int (*)(void *argument);

/// Runs the registered functions, the latest first, then the cleanups of the tasks and of the
/// status log. Returns the last function's result, or -1 when none is registered.
int cleanup();
/// Registers `function`; 0, or -1 when out of memory. The caller keeps ownership of `argument`. The daemon
/// never calls it; kept for future modules.
[[gnu::used, gnu::retain]] int cleanup_add(CleanupFunction function, void *argument);
