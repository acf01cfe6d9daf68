#pragma once

#include <string>

/// Prints what the rig could not do and aborts: a test on a broken rig proves nothing.
[[noreturn]] void rig_failure(const std::string &text);
/// Like rig_failure(), for a failed system call with its errno.
[[noreturn]] void rig_failure_of(const std::string &call);
