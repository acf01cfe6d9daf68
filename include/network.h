#pragma once

/// Refreshes which network paths are in use; returns 0. Called before every pass.
int network_check_daemon();
