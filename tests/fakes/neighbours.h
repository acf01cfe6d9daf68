#pragma once

#include <string>
#include <vector>

/// What has happened in a test, in order. The network check and the announcement of changes, which
/// the linker leads here, add "network" and "announce <now>".
std::vector<std::string> &events();
