#pragma once

#include <string>
#include <vector>

/// The events of a test, in order. The network check and the announcement of changes, linked instead of the modules'
/// own, add "network" and "announce <now>".
std::vector<std::string> &events();
