#pragma once

// Replaces syslog in unit tests and records what the code under test opens and writes.

#include <string>
#include <vector>

struct SyslogMessage {
    int priority;
    std::string text;

    bool operator==(const SyslogMessage &) const = default;
};

struct SyslogOpening {
    const char *identity; ///< the caller's pointer: syslog reads it again with each message
    int options;
    int facility;
};

/// Collects from its construction; earlier calls are dropped.
class CapturedSyslog {
  public:
    CapturedSyslog();
    /// All messages so far, in order.
    [[nodiscard]] const std::vector<SyslogMessage> &messages() const;
    /// All calls of openlog so far, in order.
    [[nodiscard]] const std::vector<SyslogOpening> &openings() const;
};
