#pragma once

#include <string>

/// Says what the rig could not do, and aborts: a test on a broken rig would prove nothing.
[[noreturn]] void rig_failure(const std::string &text);
/// The same for a failed system call, with its errno.
[[noreturn]] void rig_failure_of(const std::string &call);
