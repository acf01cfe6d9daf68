#pragma once

#include <cstdint>

// Which network paths are in use: 1 or 0, 0 until the first check. Main thread only; written by the
// check and, to choose a path, by tests.
extern constinit std::int32_t lan_available;
extern constinit std::int32_t wifi_available;
extern constinit std::int32_t mobile_available;

/// Refreshes which network paths are in use; returns 0. Called before every pass.
int network_check_daemon();

/// Takes a key of the wired interface's networkd file; returns 1, go on.
int network_lan_handler(const char *section, const char *name, const char *value);

/// Whether the LAN is in use, from what the file says of "Unmanaged" and "ActivationPolicy": 1, 0, or
/// -1 where it says nothing.
std::int32_t network_decide_lan(std::int32_t managed, std::int32_t activation);

struct JsonToken;
/// Whether the WiFi is in use, from the settings file's `text` and the `count` tokens found in it, or
/// the tokenizer's error.
std::int32_t network_decide_wifi(const char *text, const JsonToken *tokens, std::int32_t count);
