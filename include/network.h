#pragma once

#include <cstdint>

// Whether each network path is in use: 1 or 0; 0 until the first check. Main thread only; tests write them too.
extern constinit std::int32_t lan_available;
extern constinit std::int32_t wifi_available;
extern constinit std::int32_t mobile_available;

/// Refreshes which network paths are in use; returns 0. Called before every pass.
int network_check_daemon();

/// Handles a key of the wired interface's networkd file; returns 1, continue.
int network_lan_handler(const char *section, const char *name, const char *value);

/// Whether the LAN is in use, from the file's "Unmanaged" and "ActivationPolicy": each 1, 0, or -1 if absent.
std::int32_t network_decide_lan(std::int32_t managed, std::int32_t activation);

struct JsonToken;
/// Whether the WiFi is in use, from the settings file's `text` and its `count` tokens, or the tokenizer's error.
std::int32_t network_decide_wifi(const char *text, const JsonToken *tokens, std::int32_t count);
